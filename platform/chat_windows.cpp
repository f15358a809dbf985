#include "platform/chat_windows.h"

#include <locale.h>
#include <wctype.h>

#include "platform/chat_windows_module.h"
#include "platform/module.h"
#include "platform/text.h"

namespace gab {
namespace {

char32_t NextCodePoint(std::u16string_view s, size_t& i) {
  char16_t c = s[i++];
  if (c >= 0xD800 && c <= 0xDBFF && i < s.size() && s[i] >= 0xDC00 && s[i] <= 0xDFFF)
    return 0x10000 + ((char32_t(c) - 0xD800) << 10) + (s[i++] - 0xDC00);
  return c;
}

char32_t Fold(char32_t c) {
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(0));
  if (utf8) return char32_t(towlower_l(wint_t(c), utf8));
  return c >= 'A' && c <= 'Z' ? c + 32 : c;
}

ChatWindows* installed = nullptr;

}  // namespace

std::optional<std::vector<std::u16string>> QueryX11WindowTitles(const char* display,
                                                                std::string_view windowClass) {
  static const X11Module* module = LoadModuleOrSay<X11Module>(kX11ModuleFile, kX11ModuleEntry,
                                                              "Chat windows cannot be asked for");
  if (!module) return std::nullopt;
  auto titles = module->windowTitles(display, windowClass);
  if (!titles) return std::nullopt;
  std::vector<std::u16string> out;
  out.reserve(titles->size());
  for (const auto& t : *titles) out.push_back(ToUtf16(t));
  return out;
}

ChatWindows& CurrentChatWindows() {
  static X11ChatWindows x11;
  return installed ? *installed : x11;
}

void SetChatWindows(ChatWindows* source) {
  installed = source;
}

bool ChatClientHasWindows() {
  auto titles = CurrentChatWindows().WindowTitles();
  return titles && !titles->empty();
}

bool TitlesEqualIgnoringCase(std::u16string_view a, std::u16string_view b) {
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size())
    if (Fold(NextCodePoint(a, i)) != Fold(NextCodePoint(b, j))) return false;
  return i == a.size() && j == b.size();
}

}  // namespace gab
