#pragma once
#include <plist/plist.h>

#include <memory>
#include <string>
#include <string_view>

namespace gab {

struct PlistFree {
  void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
// Owns a libplist node tree.
using PlistPtr = std::unique_ptr<void, PlistFree>;

// Parses an XML or binary property list; null when the bytes are not one,
// or XML nested deeper than any of ours (see XmlPlistNestingWithin).
PlistPtr ParsePlist(std::string_view bytes);

// libplist builds an XML tree without recursing but frees and writes it
// recursively: false (the reason in `why`) when `xml` nests dictionaries
// and arrays deeper than 64, or declares an internal document type subset.
bool XmlPlistNestingWithin(std::string_view xml, std::string* why = nullptr);

// Reads and parses a property-list file; null when missing or unparsable.
// `exists` (optional) tells the two apart.
PlistPtr ReadPlistFile(const std::string& path, bool* exists = nullptr);

// XML text with dictionary keys sorted and dates in whole seconds.
std::string PlistToXml(plist_t node);

// Writes a store atomically as XML (sorted keys, whole-second dates).
bool WritePlistFile(const std::string& path, plist_t node, unsigned mode = 0644,
                    std::string* error = nullptr);

}  // namespace gab
