#pragma once
// The interface of the X11 module (xcb), loaded by QueryX11WindowTitles.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace gab {

struct X11Module {
  // The UTF-8 titles of the windows of class `windowClass` (see
  // QueryX11WindowTitles); nothing when the query failed.
  std::optional<std::vector<std::string>> (*windowTitles)(const char* display,
                                                          std::string_view windowClass);
};
inline constexpr const char* kX11ModuleFile = "gabfolio-x11.so";
inline constexpr const char* kX11ModuleEntry = "gabfolio_x11_module";

}  // namespace gab
