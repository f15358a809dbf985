#pragma once
#include <string>
#include <string_view>
#include <vector>

#include "archive/coder.h"

namespace gab {

// Decodes an NSArchiver typedstream ("typedstream" big-endian or
// "streamtyped" little-endian) holding exactly one root object.
DecodeResult DecodeTypedstream(std::string_view bytes, const ClassSubstitutions& classes = {});

// Every top-level group of a typedstream, for documents that hold several
// values rather than one root object (colour lists, for instance).  Objects
// come back as objects, integers and reals as numbers, strings as strings,
// byte arrays as data and nil as null.
struct TypedstreamValues {
  std::vector<ObjectPtr> values;
  std::string error;  // empty on success
  bool ok() const { return error.empty(); }
};
TypedstreamValues DecodeTypedstreamValues(std::string_view bytes,
                                          const ClassSubstitutions& classes = {});

}  // namespace gab
