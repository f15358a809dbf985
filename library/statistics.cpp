// Running chat statistics: each finished chat adds its figures to the totals
// in talkpulse.plist, and stats.html is made again from its template.
#include "library/statistics.h"

#include <cmath>
#include <cstdio>
#include <string_view>
#include <utility>

#include "library/gathering.h"
#include "library/log_generator.h"
#include "platform/contacts.h"
#include "platform/data_folder.h"
#include "platform/files.h"
#include "platform/home.h"
#include "transcript/chat_log.h"

namespace gab {
namespace {

constexpr const char* kStoreName = "talkpulse.plist";
constexpr const char* kCursesName = "curses.plist";
constexpr const char* kSlangName = "netspeak.plist";
constexpr const char* kTemplateName = "statstemplate.html";
constexpr const char* kPageName = "stats.html";

int32_t Sum(int32_t a, int32_t b) {
  return int32_t(uint32_t(a) + uint32_t(b));
}

// Replaces every occurrence in one pass over the text.
void ReplaceAll(std::string& text, std::string_view key, std::string_view value) {
  size_t at = text.find(key);
  if (at == std::string::npos) return;
  std::string out;
  out.reserve(text.size());
  size_t from = 0;
  for (; at != std::string::npos; at = text.find(key, from)) {
    out.append(text, from, at - from);
    out.append(value);
    from = at + key.size();
  }
  out.append(text, from, std::string::npos);
  text = std::move(out);
}

}  // namespace

std::string FormatFixed(double value, int decimals) {
  if (std::isnan(value)) return "nan";
  char buf[64];
  int n = std::snprintf(buf, sizeof buf, "%.*f", decimals, value);
  if (n < 0) return {};
  if (size_t(n) < sizeof buf) return std::string(buf, size_t(n));
  std::string big(size_t(n) + 1, '\0');  // very large values print in full
  std::snprintf(big.data(), big.size(), "%.*f", decimals, value);
  big.resize(size_t(n));
  return big;
}

std::string FillStatisticsTemplate(std::string page, const StatisticsTotals& t) {
  // Averages are single precision; the bar widths take the single-precision
  // count times 300.0 in double over the single-precision whole.
  const float U = float(t.userWords), O = float(t.otherWords), C = float(t.chats);
  const float I = float(t.images), L = float(t.links);
  const float CU = float(t.userCurses), CO = float(t.otherCurses), NU = float(t.userSlang);
  const float words = U + O;
  auto average = [](float part, float whole) { return FormatFixed(double(part / whole), 1); };
  auto bar = [](float part, float whole) {
    return FormatFixed(double(part) * 300.0 / double(whole), 0);
  };
  auto integer = [](int32_t v) { return std::to_string(v); };
  auto date = [](const std::optional<Date>& d) {
    return d ? FormatDate(*d, "%B %e, %Y", DayPadding::kBlank) : std::string();
  };
  const int days = t.start && t.end ? CalendarDaysBetween(*t.start, *t.end) : 0;
  const std::string perDay = days == 0 ? "0.0" : average(C, float(days));

  const std::pair<std::string_view, std::string> values[] = {
      {"____USERTOTAL", integer(t.userWords)},
      {"____OTHERTOTAL", integer(t.otherWords)},
      {"____SUMTOTAL", integer(Sum(t.userWords, t.otherWords))},
      {"____USERWORDAVG", average(U, C)},
      {"____OTHERWORDAVG", average(O, C)},
      {"____SUMWORDAVG", average(words, C)},
      {"____CHATRATIOSIZE", bar(U, words)},
      {"____CHATIMAGEAVG", average(I, C)},
      {"____CHATLINKAVG", average(L, C)},
      {"____CHATIMAGETOTAL", integer(t.images)},
      {"____CHATLINKTOTAL", integer(t.links)},
      {"____USERCURSETOTAL", integer(t.userCurses)},
      {"____OTHERCURSETOTAL", integer(t.otherCurses)},
      {"____SUMCURSETOTAL", integer(Sum(t.userCurses, t.otherCurses))},
      {"____CURSERATIOSIZE", bar(CU, U)},
      {"____CURSERECRATIOSIZE", bar(CO, O)},
      {"____NETSPEAKTOTAL", integer(t.userSlang)},
      {"____NETSPEAKOTHERTOTAL", integer(t.otherSlang)},
      {"____NETSPEAKSUMTOTAL", integer(Sum(t.userSlang, t.otherSlang))},
      {"____NETSPEAKRATIOSIZE", bar(NU, U)},
      {"____DATE1", date(t.start)},
      {"____DATE2", date(t.end)},
      {"____AVGCHATSPERDAY", perDay},
  };
  for (const auto& [key, value] : values) ReplaceAll(page, key, value);
  return page;
}

void UpdateStatistics(const ICLPChatLog* transcript) {
  Contacts::Hold contacts;
  const std::string folder = DataFolder();
  const std::string storePath = folder + "/" + kStoreName;
  const Date now = Date::Now();

  StatisticsTotals totals = LoadStatisticsTotals(storePath, folder, now);
  // A missing or broken list leaves no set, and then every word counts.
  const std::optional<WordSet> curses = LoadWordList(folder + "/" + kCursesName);
  const std::optional<WordSet> slang = LoadWordList(folder + "/" + kSlangName);

  ChatFigures chat;
  if (transcript) {
    // One pass over the messages gives the six counts in their order: user
    // and other words, curses, slang.
    const ICLPChatLog::WordCounts words =
        transcript->CountWords(curses ? &*curses : nullptr, slang ? &*slang : nullptr);
    chat.userWords = words.userWords;
    chat.otherWords = words.otherWords;
    chat.userCurses = words.userCurses;
    chat.otherCurses = words.otherCurses;
    chat.userSlang = words.userSlang;
    chat.otherSlang = words.otherSlang;
    for (const ImageEntry& entry : GatheredImages(*transcript))
      chat.images = Sum(chat.images, int32_t(entry.images.size()));
    for (const LinkEntry& entry : GatheredURLs(*transcript))
      chat.links = Sum(chat.links, int32_t(entry.urls.size()));
    totals.end = transcript->LastMessageDate();  // none for a chat without messages
  } else {
    totals.end = now;
  }
  totals.Add(chat);

  // Write failures are not reported: the next chat writes both files again.
  PlistPtr store = StatisticsStore(totals);
  WriteStoreIntoDataFolder(kStoreName, PlistToXml(store.get()));

  std::optional<std::string> page = ReadWholeFile(folder + "/" + kTemplateName);
  if (!page) return;
  WriteLibraryPage(kPageName, FillStatisticsTemplate(std::move(*page), totals));
}

void BackdateStatistics(Date earliest) {
  const std::string folder = DataFolder();
  const std::string storePath = folder + "/" + kStoreName;
  std::optional<StatisticsTotals> totals = StoredStatisticsTotals(storePath);
  if (!totals || (totals->start && totals->start->time <= earliest.time)) return;
  totals->start = earliest;
  PlistPtr store = StatisticsStore(*totals);
  WriteStoreIntoDataFolder(kStoreName, PlistToXml(store.get()));
  std::optional<std::string> page = ReadWholeFile(folder + "/" + kTemplateName);
  if (page) WriteLibraryPage(kPageName, FillStatisticsTemplate(std::move(*page), *totals));
}

}  // namespace gab
