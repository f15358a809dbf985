#pragma once
// Text pieces shared by the links pages and the gallery.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace gab {

// Replaces every occurrence of `placeholder` in `page`, literally and
// case-sensitively, scanning the page once (the inserted text is not
// rescanned).
void ReplaceAll(std::string& page, std::string_view placeholder, std::string_view with);

// "<li><a href=\"%@\">%@</a><span class=\"numb\">(%d)</span></li>" and its
// active form "<li class=\"active\">...".
void AppendNavigationItem(std::string& out, bool active, std::string_view href,
                          std::string_view label, int64_t count);

// A template in the data folder, or nothing when missing or unreadable.
std::optional<std::string> ReadTemplate(std::string_view name);

// %d of a count as NSString formats an int.
std::string CountText(int64_t count);

}  // namespace gab
