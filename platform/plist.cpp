#include "platform/plist.h"

#include <algorithm>
#include <cctype>
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

// libplist parses XML without recursing but frees (and writes) the tree it
// built recursively, so deep nesting would overflow the stack: the nesting
// is bounded on the text first, counting the way libplist reads it
// (comments, processing instructions and declarations skipped) and never
// below what libplist would build.
constexpr size_t kMaxXmlDepth = 64;

}  // namespace

bool XmlPlistNestingWithin(std::string_view xml, std::string* why) {
  std::vector<bool> open;  // true: a dictionary
  for (size_t at = xml.find('<'); at != std::string_view::npos; at = xml.find('<', at + 1)) {
    std::string_view tag = xml.substr(at);
    auto skipTo = [&](std::string_view end) {
      size_t e = xml.find(end, at + 2);
      at = e == std::string_view::npos ? xml.size() : e;
    };
    if (tag.starts_with("<!--")) {
      skipTo("-->");
    } else if (tag.starts_with("<?")) {
      skipTo("?>");
    } else if (tag.starts_with("<!")) {
      char quote = 0;
      for (at += 2; at < xml.size(); ++at) {
        char c = xml[at];
        if (quote) {
          if (c == quote) quote = 0;
        } else if (c == '"' || c == '\'') {
          quote = c;
        } else if (c == '[') {
          if (why) *why = "XML property list with an internal document type subset";
          return false;
        } else if (c == '>') {
          break;
        }
      }
    } else if (tag.starts_with("</")) {
      for (bool dict : {false, true}) {
        std::string_view name = dict ? "</dict" : "</array";
        if (tag.starts_with(name) && tag.size() > name.size() &&
            (tag[name.size()] == '>' ||
             std::isspace(static_cast<unsigned char>(tag[name.size()]))) &&
            !open.empty() && open.back() == dict) {
          open.pop_back();
        }
      }
    } else {
      for (bool dict : {false, true}) {
        std::string_view name = dict ? "<dict" : "<array";
        if (!tag.starts_with(name)) continue;
        std::string_view rest = tag.substr(name.size());
        if (rest.starts_with("/>") || rest.starts_with(" />")) continue;
        open.push_back(dict);
        if (open.size() > kMaxXmlDepth) {
          if (why) *why = "XML property list nested too deeply";
          return false;
        }
      }
    }
  }
  return true;
}

PlistPtr ParsePlist(std::string_view bytes) {
  if (bytes.empty() || bytes.size() > 0x7fffffff) return nullptr;
  if (!bytes.starts_with("bplist") && !XmlPlistNestingWithin(bytes)) return nullptr;
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
