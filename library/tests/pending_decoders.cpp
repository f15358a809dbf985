// Weak stand-ins for the archive decoders until they land on this branch;
// the real definitions win when present.  Nothing here decodes.
#include "archive/keyed.h"
#include "archive/typedstream.h"

namespace gab {

__attribute__((weak)) DecodeResult DecodeKeyedArchive(std::string_view, const ClassSubstitutions&,
                                                      std::string_view) {
  return {};
}
__attribute__((weak)) DecodeResult DecodeTypedstream(std::string_view, const ClassSubstitutions&) {
  return {};
}

}  // namespace gab
