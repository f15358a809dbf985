#pragma once
#include <string_view>

#include "archive/coder.h"

namespace gab {

// Decodes an NSArchiver typedstream ("typedstream" big-endian or
// "streamtyped" little-endian) holding exactly one root object.
DecodeResult DecodeTypedstream(std::string_view bytes, const ClassSubstitutions& classes = {});

}  // namespace gab
