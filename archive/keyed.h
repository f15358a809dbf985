#pragma once
#include <string_view>

#include "archive/coder.h"

namespace gab {

// Decodes an NSKeyedArchiver archive (binary or XML plist) and returns the
// object under `$top`/`topKey`.
DecodeResult DecodeKeyedArchive(std::string_view bytes, const ClassSubstitutions& classes = {},
                                std::string_view topKey = "root");

}  // namespace gab
