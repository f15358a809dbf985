#include "library/stores.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "library/log_generator.h"
#include "platform/data_folder.h"
#include "platform/home.h"
#include "platform/image_size.h"
#include "platform/text.h"

namespace gab {
namespace {

constexpr double kNoDate = -std::numeric_limits<double>::infinity();

std::string StringOf(plist_t node) {
  if (!node || plist_get_node_type(node) != PLIST_STRING) return {};
  char* s = nullptr;
  plist_get_string_val(node, &s);
  std::string out = s ? s : "";
  std::free(s);
  return out;
}

// Calls f for every item of an array (nothing for a non-array).
template <class F>
void ForEachItem(plist_t array, F&& f) {
  if (!array || plist_get_node_type(array) != PLIST_ARRAY) return;
  plist_array_iter it = nullptr;
  plist_array_new_iter(array, &it);
  for (;;) {
    plist_t item = nullptr;
    plist_array_next_item(array, it, &item);
    if (!item) break;
    f(item);
  }
  std::free(it);
}

bool IsString(plist_t node) {
  return node && plist_get_node_type(node) == PLIST_STRING;
}

double DateOf(plist_t record) {
  if (!record || plist_get_node_type(record) != PLIST_DICT) return kNoDate;
  plist_t d = plist_dict_get_item(record, "date");
  if (!d || plist_get_node_type(d) != PLIST_DATE) return kNoDate;
  int32_t sec = 0, usec = 0;
  plist_get_date_val(d, &sec, &usec);
  return double(sec) + usec / 1e6;
}

int CompareRecords(plist_t a, plist_t b) {
  double da = DateOf(a), db = DateOf(b);
  if (db < da) return kOrderedAscending;
  if (db > da) return kOrderedDescending;
  return kOrderedSame;
}

int CompareMonthLabels(std::u16string_view a, std::u16string_view b) {
  auto da = ParseMonthYear(ToUtf8(a)), db = ParseMonthYear(ToUtf8(b));
  double x = da ? da->time : kNoDate, y = db ? db->time : kNoDate;
  return x < y ? kOrderedAscending : x > y ? kOrderedDescending : kOrderedSame;
}

// Text as a store holds it: a property-list string ends at a NUL, so a NUL
// inside a name or link becomes U+FFFD and two names stay two.
std::string StoreText(std::u16string_view text) {
  std::u16string copy(text);
  for (char16_t& c : copy)
    if (c == 0) c = 0xFFFD;
  return ToUtf8(copy);
}

plist_t NewDate(Date d) {
  double sec = std::floor(d.time);
  sec = std::clamp(sec, double(INT32_MIN), double(INT32_MAX));
  return plist_new_date(int32_t(sec), int32_t((d.time - std::floor(d.time)) * 1e6));
}

// The speaker's list, created at the end of the store when absent.
plist_t ListForSpeaker(plist_t store, std::u16string_view speaker, const char* listKey) {
  if (plist_t list = FindSpeakerList(speaker, store, listKey)) return list;
  plist_t record = plist_new_dict();
  plist_dict_set_item(record, "speaker", plist_new_string(StoreText(speaker).c_str()));
  plist_dict_set_item(record, listKey, plist_new_array());
  plist_array_append_item(store, record);
  return plist_dict_get_item(record, listKey);
}

}  // namespace

std::string LinkStorePath() {
  return DataFolder() + "/" + kLinkStoreName;
}
std::string ImageStorePath() {
  return DataFolder() + "/" + kImageStoreName;
}

PlistPtr LoadStore(const std::string& path) {
  bool exists = false;
  PlistPtr root = ReadPlistFile(path, &exists);
  if (!exists) return PlistPtr(plist_new_array());
  if (!root || plist_get_node_type(root.get()) != PLIST_ARRAY) return nullptr;
  return root;
}

int compareLinkDictionaries(plist_t a, plist_t b, void*) {
  return CompareRecords(a, b);
}
int compareImageDictionaries(plist_t a, plist_t b, void*) {
  return CompareRecords(a, b);
}
int compareLinkDateString(std::u16string_view a, std::u16string_view b) {
  return CompareMonthLabels(a, b);
}
int compareImageDateString(std::u16string_view a, std::u16string_view b) {
  return CompareMonthLabels(a, b);
}

plist_t FindSpeakerList(std::u16string_view speaker, plist_t store, const char* listKey) {
  if (!store || plist_get_node_type(store) != PLIST_ARRAY) return nullptr;
  std::string name = StoreText(speaker);
  plist_t found = nullptr;
  ForEachItem(store, [&](plist_t record) {
    if (found || plist_get_node_type(record) != PLIST_DICT) return;
    plist_t s = plist_dict_get_item(record, "speaker");
    if (!IsString(s) || StringOf(s) != name) return;
    plist_t list = plist_dict_get_item(record, listKey);
    if (list && plist_get_node_type(list) == PLIST_ARRAY) found = list;
  });
  return found;
}

plist_t FindSpeakerArray(std::u16string_view speaker, plist_t store) {
  return FindSpeakerList(speaker, store, "urls");
}

plist_t FindImagesArray(std::u16string_view speaker, plist_t store) {
  return FindSpeakerList(speaker, store, "filenames");
}

void SortEveryList(plist_t store, const char* listKey) {
  ForEachItem(store, [&](plist_t record) {
    if (plist_get_node_type(record) != PLIST_DICT) return;
    plist_t list = plist_dict_get_item(record, listKey);
    if (!list || plist_get_node_type(list) != PLIST_ARRAY) return;
    std::vector<std::pair<double, plist_t>> items;
    items.reserve(plist_array_get_size(list));
    bool sorted = true;
    ForEachItem(list, [&](plist_t item) {
      items.emplace_back(DateOf(item), item);
      if (items.size() > 1 && items[items.size() - 2].first < items.back().first) sorted = false;
    });
    if (sorted) return;
    // Keys are computed once; the order is that of compare*Dictionaries.
    std::stable_sort(items.begin(), items.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    plist_t fresh = plist_new_array();
    for (auto& [date, item] : items) plist_array_append_item(fresh, plist_copy(item));
    plist_dict_set_item(record, listKey, fresh);
  });
}

void MergeLinkEntries(plist_t store, const std::vector<LinkEntry>& entries) {
  for (const auto& entry : entries) {
    if (entry.urls.empty() || !entry.time) continue;
    plist_t list = ListForSpeaker(store, entry.speaker, "urls");
    for (const auto& url : entry.urls) {
      plist_t record = plist_new_dict();
      plist_dict_set_item(record, "date", NewDate(*entry.time));
      plist_dict_set_item(record, "linkurl", plist_new_string(StoreText(url).c_str()));
      plist_array_append_item(list, record);
    }
  }
}

void MergeImageEntries(plist_t store, const std::vector<ImageEntry>& entries) {
  PixelSize size;  // a wrapper that is not a file keeps the size before it
  for (const auto& entry : entries) {
    if (entry.images.empty() || !entry.time) continue;
    plist_t list = ListForSpeaker(store, entry.speaker, "filenames");
    std::u16string time = ToUtf16(DefaultDescription(*entry.time));
    for (const auto& wrapper : entry.images) {
      if (!wrapper) continue;
      if (wrapper->IsRegularFile()) size = ImagePixelSize(wrapper->contents);
      std::u16string name;
      if (!wrapper->preferredFilename) {
        name = entry.speaker + u"-" + time + u".image";
      } else {
        const std::u16string& pf = *wrapper->preferredFilename;
        name = DeletingPathExtension(pf) + u"-" + entry.speaker + u"-" + time + u"." +
               PathExtension(pf);
      }
      std::string name8 = StoreText(name);
      if (wrapper->IsRegularFile()) WriteIntoDataFolder("Images", name8, wrapper->contents);
      plist_t record = plist_new_dict();
      plist_dict_set_item(record, "date", NewDate(*entry.time));
      plist_dict_set_item(record, "filename", plist_new_string(("Images/" + name8).c_str()));
      plist_dict_set_item(record, "width", plist_new_uint(uint64_t(size.width)));
      plist_dict_set_item(record, "height", plist_new_uint(uint64_t(size.height)));
      plist_array_append_item(list, record);
    }
  }
}

std::vector<SpeakerLinks> ReadLinkSpeakers(plist_t store) {
  std::vector<SpeakerLinks> out;
  ForEachItem(store, [&](plist_t record) {
    if (plist_get_node_type(record) != PLIST_DICT) return;
    plist_t s = plist_dict_get_item(record, "speaker");
    plist_t list = plist_dict_get_item(record, "urls");
    if (!IsString(s) || !list || plist_get_node_type(list) != PLIST_ARRAY) return;
    SpeakerLinks speaker{ToUtf16(StringOf(s)), {}};
    speaker.links.reserve(plist_array_get_size(list));
    ForEachItem(list, [&](plist_t item) {
      double date = DateOf(item);
      plist_t url =
          plist_get_node_type(item) == PLIST_DICT ? plist_dict_get_item(item, "linkurl") : nullptr;
      if (date == kNoDate || !IsString(url)) return;
      speaker.links.push_back({Date{date}, ToUtf16(StringOf(url))});
    });
    out.push_back(std::move(speaker));
  });
  return out;
}

std::vector<SpeakerImages> ReadImageSpeakers(plist_t store) {
  std::vector<SpeakerImages> out;
  if (!store || plist_get_node_type(store) != PLIST_ARRAY) return out;
  auto integer = [](plist_t node) -> int64_t {
    if (!node) return 0;
    if (plist_get_node_type(node) == PLIST_UINT) {
      uint64_t v = 0;
      plist_get_uint_val(node, &v);
      return int64_t(v);
    }
    if (plist_get_node_type(node) == PLIST_REAL) {
      double v = 0;
      plist_get_real_val(node, &v);
      return std::isfinite(v) ? int64_t(std::clamp(v, -9e18, 9e18)) : 0;
    }
    return 0;
  };
  ForEachItem(store, [&](plist_t record) {
    if (plist_get_node_type(record) != PLIST_DICT) return;
    plist_t s = plist_dict_get_item(record, "speaker");
    plist_t list = plist_dict_get_item(record, "filenames");
    if (!IsString(s) || !list || plist_get_node_type(list) != PLIST_ARRAY) return;
    SpeakerImages speaker{ToUtf16(StringOf(s)), {}};
    speaker.images.reserve(plist_array_get_size(list));
    ForEachItem(list, [&](plist_t item) {
      double date = DateOf(item);
      if (date == kNoDate) return;
      plist_t file = plist_dict_get_item(item, "filename");
      if (!IsString(file)) return;
      speaker.images.push_back({Date{date}, ToUtf16(StringOf(file)),
                                integer(plist_dict_get_item(item, "width")),
                                integer(plist_dict_get_item(item, "height"))});
    });
    out.push_back(std::move(speaker));
  });
  return out;
}

std::u16string PathExtension(std::u16string_view path) {
  size_t slash = path.rfind(u'/');
  std::u16string_view last = slash == std::u16string_view::npos ? path : path.substr(slash + 1);
  size_t dot = last.rfind(u'.');
  if (dot == std::u16string_view::npos || dot == 0) return {};
  return std::u16string(last.substr(dot + 1));
}

std::u16string DeletingPathExtension(std::u16string_view path) {
  std::u16string ext = PathExtension(path);
  if (ext.empty()) return std::u16string(path);
  return std::u16string(path.substr(0, path.size() - ext.size() - 1));
}

}  // namespace gab
