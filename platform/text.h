#pragma once
#include <string>
#include <string_view>

namespace gab {

// Text in the transcript library is UTF-16 (std::u16string) wherever length,
// index or per-unit work matters, as NSString's is.  Files, logs and the
// preferences use UTF-8.

// UTF-16 to UTF-8; lossy: an unpaired surrogate becomes "?".
std::string ToUtf8(std::u16string_view text);

// UTF-8 to UTF-16; an invalid byte sequence becomes U+FFFD.
std::u16string ToUtf16(std::string_view utf8);

// True when the bytes are well-formed UTF-8.
bool IsValidUtf8(std::string_view bytes);

}  // namespace gab
