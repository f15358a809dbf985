#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace gab {

// A user-supplied line format ("bookmarkEntry", "imageEntry") filled with
// string arguments.  Only "%@" (the next argument), "%N$@" (argument N,
// counted from 1) and "%%" are directives; everything else, including any
// other "%" sequence and a directive whose argument does not exist, is copied
// as it stands.  So no preference value can make the program misbehave.
std::u16string FormatWithObjects(std::u16string_view format,
                                 const std::vector<std::u16string>& args);

}  // namespace gab
