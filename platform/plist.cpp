#include "platform/plist.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "platform/files.h"

namespace gab {
namespace {

// A deep copy with sorted dictionary keys and dates cut to whole seconds, so
// the stores we write are stable and diffable.
plist_t Canonical(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_DICT: {
      std::vector<std::pair<std::string, plist_t>> items;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(node, it, &key, &value);
        if (!value) {
          std::free(key);
          break;
        }
        items.emplace_back(key ? key : "", value);
        std::free(key);
      }
      std::free(it);
      std::sort(items.begin(), items.end(),
                [](const auto& a, const auto& b) { return a.first < b.first; });
      plist_t out = plist_new_dict();
      for (auto& [k, v] : items) plist_dict_set_item(out, k.c_str(), Canonical(v));
      return out;
    }
    case PLIST_ARRAY: {
      plist_t out = plist_new_array();
      uint32_t n = plist_array_get_size(node);
      for (uint32_t i = 0; i < n; ++i)
        plist_array_append_item(out, Canonical(plist_array_get_item(node, i)));
      return out;
    }
    case PLIST_DATE: {
      int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      if (usec < 0) --sec;  // floor
      return plist_new_date(sec, 0);
    }
    default:
      return plist_copy(node);
  }
}

}  // namespace

PlistPtr ParsePlist(std::string_view bytes) {
  if (bytes.empty() || bytes.size() > 0x7fffffff) return nullptr;
  plist_t root = nullptr;
  plist_from_memory(bytes.data(), uint32_t(bytes.size()), &root);
  return PlistPtr(root);
}

PlistPtr ReadPlistFile(const std::string& path, bool* exists) {
  auto data = ReadWholeFile(path);
  if (exists) *exists = data.has_value();
  if (!data) return nullptr;
  return ParsePlist(*data);
}

std::string PlistToXml(plist_t node) {
  PlistPtr copy(Canonical(node));
  char* xml = nullptr;
  uint32_t len = 0;
  plist_to_xml(static_cast<plist_t>(copy.get()), &xml, &len);
  std::string out(xml ? xml : "", len);
  plist_to_xml_free(xml);
  return out;
}

bool WritePlistFile(const std::string& path, plist_t node, unsigned mode, std::string* error) {
  return WriteFileAtomically(path, PlistToXml(node), mode_t(mode), error);
}

}  // namespace gab
