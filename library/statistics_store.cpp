// The totals store and the word lists of the running chat statistics.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <string_view>

#include "library/statistics.h"
#include "platform/files.h"
#include "platform/text.h"

namespace gab {
namespace {

// The counters are 32-bit and may wrap; unsigned arithmetic keeps that
// defined.
int32_t Wrapped(int32_t a, int32_t b) {
  return int32_t(uint32_t(a) + uint32_t(b));
}

// A count read the way NSNumber's and NSString's intValue read one: integers
// keep their low 32 bits, reals are truncated (saturating), strings give
// their leading integer, anything else 0.
int32_t IntValue(plist_t node) {
  if (!node) return 0;
  switch (plist_get_node_type(node)) {
    case PLIST_UINT: {
      uint64_t v = 0;
      plist_get_uint_val(node, &v);
      return int32_t(uint32_t(v));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      if (std::isnan(d)) return 0;
      if (d >= double(INT32_MAX)) return INT32_MAX;
      if (d <= double(INT32_MIN)) return INT32_MIN;
      return int32_t(d);
    }
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return b ? 1 : 0;
    }
    case PLIST_STRING: {
      char* s = nullptr;
      plist_get_string_val(node, &s);
      errno = 0;
      long long v = s ? std::strtoll(s, nullptr, 10) : 0;
      std::free(s);
      if (v > INT32_MAX) return INT32_MAX;
      if (v < INT32_MIN) return INT32_MIN;
      return int32_t(v);
    }
    default:
      return 0;
  }
}

std::optional<Date> DateValue(plist_t node) {
  if (!node || plist_get_node_type(node) != PLIST_DATE) return std::nullopt;
  int32_t sec = 0, usec = 0;
  plist_get_date_val(node, &sec, &usec);
  return Date{double(sec) + double(usec) / 1e6};
}

plist_t NewDate(Date d) {
  double whole = std::floor(d.time);
  return plist_new_date(int32_t(whole), int32_t((d.time - whole) * 1e6));
}

Date FromTimestamp(const struct statx_timestamp& t) {
  return Date::FromUnix(double(t.tv_sec) + double(t.tv_nsec) / 1e9);
}

}  // namespace

void StatisticsTotals::Add(const ChatFigures& chat) {
  userWords = Wrapped(userWords, chat.userWords);
  otherWords = Wrapped(otherWords, chat.otherWords);
  userCurses = Wrapped(userCurses, chat.userCurses);
  otherCurses = Wrapped(otherCurses, chat.otherCurses);
  userSlang = Wrapped(userSlang, chat.userSlang);
  otherSlang = Wrapped(otherSlang, chat.otherSlang);
  images = Wrapped(images, chat.images);
  links = Wrapped(links, chat.links);
}

std::optional<Date> FolderCreationDate(const std::string& path) {
  struct statx st {};
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME | STATX_CTIME,
            &st) == 0) {
    if (st.stx_mask & STATX_BTIME) return FromTimestamp(st.stx_btime);
    return std::min(FromTimestamp(st.stx_mtime), FromTimestamp(st.stx_ctime));
  }
  if (errno != ENOSYS) return std::nullopt;
  struct stat old {};
  if (lstat(path.c_str(), &old) != 0) return std::nullopt;
  auto date = [](const timespec& t) {
    return Date::FromUnix(double(t.tv_sec) + double(t.tv_nsec) / 1e9);
  };
  return std::min(date(old.st_mtim), date(old.st_ctim));
}

namespace {

// The counts and start date as the store holds them (a null store: none).
StatisticsTotals StoredTotals(plist_t dict) {
  auto get = [dict](const char* key) { return dict ? plist_dict_get_item(dict, key) : nullptr; };
  StatisticsTotals totals;
  totals.userWords = IntValue(get("usertextcount"));
  totals.otherWords = IntValue(get("othertextcount"));
  totals.userCurses = IntValue(get("cursecount"));
  totals.otherCurses = IntValue(get("othercursecount"));
  totals.userSlang = IntValue(get("netspeakcount"));
  totals.otherSlang = IntValue(get("othernetspeakcount"));
  totals.images = IntValue(get("imagecount"));
  totals.links = IntValue(get("linkcount"));
  totals.chats = IntValue(get("chatcount"));
  totals.start = DateValue(get("startDate"));
  return totals;
}

plist_t AsDictionary(const PlistPtr& store) {
  return store && plist_get_node_type(store.get()) == PLIST_DICT ? store.get() : nullptr;
}

}  // namespace

StatisticsTotals LoadStatisticsTotals(const std::string& storePath, const std::string& dataFolder,
                                      Date now) {
  if (!FileExists(storePath)) {
    StatisticsTotals totals;
    totals.chats = 1;
    totals.start = now;
    return totals;
  }
  // A store that cannot be read or parsed counts as one without keys.
  StatisticsTotals totals = StoredTotals(AsDictionary(ReadPlistFile(storePath)));
  totals.chats = Wrapped(totals.chats, 1);
  if (!totals.start) totals.start = FolderCreationDate(dataFolder);
  // The stored "endDate" belongs to the previous chat; this run sets its own.
  return totals;
}

std::optional<StatisticsTotals> StoredStatisticsTotals(const std::string& storePath) {
  PlistPtr store = ReadPlistFile(storePath);
  plist_t dict = AsDictionary(store);
  if (!dict) return std::nullopt;
  StatisticsTotals totals = StoredTotals(dict);
  totals.end = DateValue(plist_dict_get_item(dict, "endDate"));
  return totals;
}

std::optional<WordSet> LoadWordList(const std::string& path) {
  PlistPtr list = ReadPlistFile(path);
  if (!list || plist_get_node_type(list.get()) != PLIST_ARRAY) return std::nullopt;
  WordSet words;
  uint32_t n = plist_array_get_size(list.get());
  words.reserve(n);
  for (uint32_t i = 0; i < n; ++i) {
    plist_t item = plist_array_get_item(list.get(), i);
    if (plist_get_node_type(item) != PLIST_STRING) continue;  // could never equal a word
    char* s = nullptr;
    plist_get_string_val(item, &s);
    if (s) words.insert(ToUtf16(s));
    std::free(s);
  }
  return words;
}

PlistPtr StatisticsStore(const StatisticsTotals& t) {
  PlistPtr dict(plist_new_dict());
  auto count = [&](const char* key, int32_t v) {
    // Negative (wrapped) counts are kept as the signed values they are.
    plist_dict_set_item(dict.get(), key, plist_new_uint(uint64_t(int64_t(v))));
  };
  count("usertextcount", t.userWords);
  count("othertextcount", t.otherWords);
  count("cursecount", t.userCurses);
  count("netspeakcount", t.userSlang);
  count("imagecount", t.images);
  count("linkcount", t.links);
  count("chatcount", t.chats);
  count("othercursecount", t.otherCurses);
  count("othernetspeakcount", t.otherSlang);
  // The keys are built in this order and building stops at the first value
  // that is missing: no start date leaves out both dates.
  if (!t.start) return dict;
  plist_dict_set_item(dict.get(), "startDate", NewDate(*t.start));
  if (!t.end) return dict;
  plist_dict_set_item(dict.get(), "endDate", NewDate(*t.end));
  return dict;
}

}  // namespace gab
