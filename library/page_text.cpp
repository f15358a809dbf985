#include "library/page_text.h"

#include "platform/files.h"
#include "platform/home.h"

namespace gab {

void ReplaceAll(std::string& page, std::string_view placeholder, std::string_view with) {
  if (placeholder.empty()) return;
  size_t at = page.find(placeholder);
  if (at == std::string::npos) return;
  std::string out;
  out.reserve(page.size() + with.size());
  size_t from = 0;
  while (at != std::string::npos) {
    out.append(page, from, at - from);
    out.append(with);
    from = at + placeholder.size();
    at = page.find(placeholder, from);
  }
  out.append(page, from, std::string::npos);
  page = std::move(out);
}

std::string CountText(int64_t count) {
  return std::to_string(int32_t(count));
}

void AppendNavigationItem(std::string& out, bool active, std::string_view href,
                          std::string_view label, int64_t count) {
  out += active ? "<li class=\"active\"><a href=\"" : "<li><a href=\"";
  out += href;
  out += "\">";
  out += label;
  out += "</a><span class=\"numb\">(";
  out += CountText(count);
  out += ")</span></li>";
}

std::optional<std::string> ReadTemplate(std::string_view name) {
  return ReadWholeFile(DataFolder() + "/" + std::string(name));
}

}  // namespace gab
