#include "platform/text.h"

namespace gab {

static void AppendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += char(c);
  } else if (c < 0x800) {
    out += char(0xC0 | (c >> 6));
    out += char(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += char(0xE0 | (c >> 12));
    out += char(0x80 | ((c >> 6) & 0x3F));
    out += char(0x80 | (c & 0x3F));
  } else {
    out += char(0xF0 | (c >> 18));
    out += char(0x80 | ((c >> 12) & 0x3F));
    out += char(0x80 | ((c >> 6) & 0x3F));
    out += char(0x80 | (c & 0x3F));
  }
}

std::string ToUtf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char16_t u = text[i];
    if (u >= 0xD800 && u <= 0xDBFF) {
      if (i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
        char32_t c = 0x10000 + ((char32_t(u) - 0xD800) << 10) + (char32_t(text[i + 1]) - 0xDC00);
        AppendUtf8(out, c);
        ++i;
      } else {
        out += '?';
      }
    } else if (u >= 0xDC00 && u <= 0xDFFF) {
      out += '?';
    } else {
      AppendUtf8(out, u);
    }
  }
  return out;
}

// Decodes one code point at i; returns false (and advances one byte) when invalid.
static bool DecodeOne(std::string_view s, size_t& i, char32_t& c) {
  unsigned char b = s[i];
  int len;
  char32_t min;
  if (b < 0x80) {
    c = b;
    ++i;
    return true;
  } else if ((b & 0xE0) == 0xC0) {
    len = 2, c = b & 0x1F, min = 0x80;
  } else if ((b & 0xF0) == 0xE0) {
    len = 3, c = b & 0x0F, min = 0x800;
  } else if ((b & 0xF8) == 0xF0) {
    len = 4, c = b & 0x07, min = 0x10000;
  } else {
    ++i;
    return false;
  }
  if (i + len > s.size()) {
    ++i;
    return false;
  }
  for (int k = 1; k < len; ++k) {
    unsigned char n = s[i + k];
    if ((n & 0xC0) != 0x80) {
      ++i;
      return false;
    }
    c = (c << 6) | (n & 0x3F);
  }
  if (c < min || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
    ++i;
    return false;
  }
  i += len;
  return true;
}

std::u16string ToUtf16(std::string_view utf8) {
  std::u16string out;
  out.reserve(utf8.size());
  size_t i = 0;
  while (i < utf8.size()) {
    char32_t c;
    if (!DecodeOne(utf8, i, c)) c = 0xFFFD;
    if (c >= 0x10000) {
      c -= 0x10000;
      out += char16_t(0xD800 + (c >> 10));
      out += char16_t(0xDC00 + (c & 0x3FF));
    } else {
      out += char16_t(c);
    }
  }
  return out;
}

bool IsValidUtf8(std::string_view bytes) {
  size_t i = 0;
  while (i < bytes.size()) {
    char32_t c;
    if (!DecodeOne(bytes, i, c)) return false;
  }
  return true;
}

}  // namespace gab
