#pragma once
// Class-name substitution: an archived class name can be decoded as one of
// the program's own classes (decodeClassName:asClassName: and
// setClass:forClassName:).  The program's class reads its fields through a
// Coder, keyed or sequential, as initWithCoder: does.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "archive/object.h"

namespace gab {

class Coder {
 public:
  virtual ~Coder() = default;
  virtual bool AllowsKeyedCoding() const = 0;

  // Keyed archives.  A missing key decodes as null / 0.
  virtual ObjectPtr DecodeObjectForKey(std::string_view key) = 0;
  virtual int32_t DecodeInt32ForKey(std::string_view key) = 0;

  // Sequential archives: the next group.  DecodeObject reads one "@" group
  // (null for nil); DecodeUnsigned32 one "I" group.  On a type mismatch or
  // truncation they fail (null / nullopt) and the whole decode fails.
  virtual ObjectPtr DecodeObject() = 0;
  virtual std::optional<uint32_t> DecodeUnsigned32() = 0;
};

// Builds the program's object from a coder; returns null to fail the decode.
using ClassFactory = std::function<ObjectPtr(Coder&)>;
// Archived class name -> factory.
using ClassSubstitutions = std::map<std::string, ClassFactory, std::less<>>;

// The outcome of decoding a whole archive: the root or a reason.
struct DecodeResult {
  ObjectPtr root;
  std::string error;  // empty on success
  bool ok() const { return error.empty(); }
};

}  // namespace gab
