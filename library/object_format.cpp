#include "library/object_format.h"

namespace gab {

std::u16string FormatWithObjects(std::u16string_view format,
                                 const std::vector<std::u16string>& args) {
  std::u16string out;
  out.reserve(format.size() + 64);
  size_t next = 0;  // the argument "%@" takes
  for (size_t i = 0; i < format.size(); ++i) {
    char16_t c = format[i];
    if (c != u'%' || i + 1 >= format.size()) {
      out += c;
      continue;
    }
    char16_t d = format[i + 1];
    if (d == u'%') {
      out += u'%';
      ++i;
    } else if (d == u'@') {
      if (next < args.size()) {
        out += args[next++];
        ++i;
      } else {
        out += c;
      }
    } else if (d >= u'1' && d <= u'9') {
      size_t j = i + 1, n = 0;
      while (j < format.size() && format[j] >= u'0' && format[j] <= u'9' && n < 100000)
        n = n * 10 + size_t(format[j++] - u'0');
      if (j + 1 < format.size() && format[j] == u'$' && format[j + 1] == u'@' && n >= 1 &&
          n <= args.size()) {
        out += args[n - 1];
        i = j + 1;
      } else {
        out += c;
      }
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace gab
