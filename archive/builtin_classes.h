#pragma once
// The Foundation and AppKit classes both decoders interpret themselves; any
// other class is kept opaque unless a substitution names it.

#include <cstdint>
#include <optional>
#include <string_view>

namespace gab::archive_detail {

enum class Handler : uint8_t {
  kUnresolved,
  kOpaque,
  kFactory,
  kString,
  kNumber,
  kArray,
  kDictionary,
  kDate,
  kData,
  kURL,
  kAttributedString,
  kFont,
  kColor,
  kTextAttachment,
  kFileWrapper,
};

// The handler of a built-in class name.  NSValue appears only in
// typedstreams: keyed archives store numbers inline.
inline std::optional<Handler> BuiltInHandler(std::string_view name, bool typedstream) {
  struct BuiltIn {
    std::string_view name;
    Handler handler;
  };
  static constexpr BuiltIn kBuiltIns[] = {
      {"NSString", Handler::kString},
      {"NSMutableString", Handler::kString},
      {"NSNumber", Handler::kNumber},
      {"NSArray", Handler::kArray},
      {"NSMutableArray", Handler::kArray},
      {"NSDictionary", Handler::kDictionary},
      {"NSMutableDictionary", Handler::kDictionary},
      {"NSDate", Handler::kDate},
      {"NSData", Handler::kData},
      {"NSMutableData", Handler::kData},
      {"NSURL", Handler::kURL},
      {"NSAttributedString", Handler::kAttributedString},
      {"NSMutableAttributedString", Handler::kAttributedString},
      {"NSFont", Handler::kFont},
      {"NSColor", Handler::kColor},
      {"NSTextAttachment", Handler::kTextAttachment},
      {"NSFileWrapper", Handler::kFileWrapper},
  };
  if (typedstream && name == "NSValue") return Handler::kNumber;
  for (const BuiltIn& b : kBuiltIns)
    if (b.name == name) return b.handler;
  return std::nullopt;
}

}  // namespace gab::archive_detail
