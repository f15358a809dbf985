#include "library/chat_html.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "platform/image_size.h"
#include "platform/text.h"

namespace gab {

void AppendEscaped(std::string& out, std::string_view text) {
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
}

std::string Escaped(std::string_view text) {
  std::string out;
  AppendEscaped(out, text);
  return out;
}

std::string QueryValue(std::string_view text) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '.' || c == '_' || c == '~') {
      out += char(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

bool IsSafeLink(std::u16string_view url) {
  size_t colon = url.find(u':');
  if (colon == std::u16string_view::npos) return false;
  std::string scheme;
  for (char16_t c : url.substr(0, colon)) {
    if (c >= u'A' && c <= u'Z') c = char16_t(c - u'A' + u'a');
    if (c > 0x7F) return false;
    scheme += char(c);
  }
  // Nothing a browser would strip or stop at may hide in the rest.
  for (char16_t c : url)
    if (c <= 0x20 || c == 0x7F) return false;
  if (scheme == "mailto") return url.size() > colon + 1;
  return (scheme == "http" || scheme == "https") && url.substr(colon + 1, 2) == u"//" &&
         url.size() > colon + 3;
}

std::vector<std::shared_ptr<FileWrapper>> Attachments(const AttributedString& text) {
  std::vector<std::shared_ptr<FileWrapper>> out;
  size_t start = 0;
  for (const auto& run : text.runs) {
    size_t end = std::min(text.text.size(), start + run.length);
    auto attachment =
        run.attributes ? As<TextAttachment>(run.attributes->Get(kAttachmentAttribute)) : nullptr;
    for (size_t i = start; attachment && i < end; ++i)
      if (text.text[i] == u'\uFFFC') out.push_back(attachment->fileWrapper);
    start = end;
  }
  return out;
}

std::string InlineImageType(std::string_view b) {
  auto starts = [&](std::string_view magic) { return b.substr(0, magic.size()) == magic; };
  if (starts("\x89PNG\r\n\x1a\n")) return "image/png";
  if (starts("\xFF\xD8\xFF")) return "image/jpeg";
  if (starts("GIF87a") || starts("GIF89a")) return "image/gif";
  if (starts("RIFF") && b.size() >= 12 && b.substr(8, 4) == "WEBP") return "image/webp";
  if (starts("BM")) return "image/bmp";
  return "";
}

namespace {

bool Has(std::u16string_view name, std::u16string_view part) {
  return name.find(part) != std::u16string_view::npos;
}

// The CSS of a run's font and colour; "" for the default look.
std::string RunStyle(const Dictionary* attributes) {
  std::string css;
  if (!attributes) return css;
  if (auto font = As<Font>(attributes->Get(kFontAttribute))) {
    const std::u16string& n = font->name;
    if (Has(n, u"Bold") || Has(n, u"Black") || Has(n, u"Heavy")) css += "font-weight:bold;";
    if (Has(n, u"Italic") || Has(n, u"Oblique")) css += "font-style:italic;";
    // Sizes relative to iChat's 12-point default, within reason.
    double size = font->pointSize;
    if (std::isfinite(size) && size > 0 && std::fabs(size - 12) > 0.25) {
      char buf[48];
      std::snprintf(buf, sizeof buf, "font-size:%.2fem;", std::clamp(size / 12, 0.6, 3.0));
      css += buf;
    }
  }
  if (auto color = As<Color>(attributes->Get(kColorAttribute))) {
    double r = 0, g = 0, b = 0;
    // Black is the archive's default text colour: the page's own ink reads
    // better in a dark scheme.
    if (color->ToDeviceRGB(r, g, b) && std::isfinite(r + g + b) && r + g + b > 0.06) {
      auto byte = [](double v) { return int(std::lround(std::clamp(v, 0.0, 1.0) * 255)); };
      char buf[24];
      std::snprintf(buf, sizeof buf, "color:#%02x%02x%02x;", byte(r), byte(g), byte(b));
      css += buf;
    }
  }
  return css;
}

std::u16string LinkTarget(const Dictionary* attributes) {
  if (!attributes) return {};
  ObjectPtr link = attributes->Get(kLinkAttribute);
  if (auto url = As<URL>(link)) return url->AbsoluteString();
  if (auto s = As<String>(link)) return s->value;
  return {};
}

// "12 KB" and the like.
std::string SizeText(size_t bytes) {
  char buf[32];
  if (bytes < 1024)
    std::snprintf(buf, sizeof buf, "%zu bytes", bytes);
  else if (bytes < 1024 * 1024)
    std::snprintf(buf, sizeof buf, "%.0f KB", double(bytes) / 1024.0);
  else
    std::snprintf(buf, sizeof buf, "%.1f MB", double(bytes) / (1024.0 * 1024.0));
  return buf;
}

void AppendAttachment(std::string& out, const FileWrapper* file, const std::string& href) {
  std::string name = file && file->preferredFilename ? ToUtf8(*file->preferredFilename)
                                                     : std::string("attachment");
  if (!file || !file->IsRegularFile()) {
    out += "<span class=\"file\">";
    AppendEscaped(out, name);
    out += "</span>";
    return;
  }
  if (!InlineImageType(file->contents).empty()) {
    // The size keeps the page from jumping while images load.
    PixelSize px = ImagePixelSize(file->contents);
    out += "<a href=\"" + Escaped(href) + "\" target=\"_blank\"><img src=\"" + Escaped(href) +
           "\" alt=\"";
    AppendEscaped(out, name);
    out += "\"";
    if (px.width > 0 && px.height > 0)
      out += " width=\"" + std::to_string(px.width) + "\" height=\"" + std::to_string(px.height) +
             "\"";
    out += " loading=\"lazy\"></a>";
  } else {
    out += "<a class=\"file\" href=\"" + Escaped(href) + "\" download=\"";
    AppendEscaped(out, name);
    out += "\">";
    AppendEscaped(out, name);
    out += " <span class=\"meta\">(" + SizeText(file->contents.size()) + ")</span></a>";
  }
}

}  // namespace

void AppendTextHtml(std::string& out, std::string_view utf8) {
  size_t from = 0;
  for (size_t nl; (nl = utf8.find('\n', from)) != std::string_view::npos; from = nl + 1) {
    AppendEscaped(out, utf8.substr(from, nl - from));
    out += "<br>";
  }
  AppendEscaped(out, utf8.substr(from));
}

std::string MessageBodyHtml(const AttributedString& text, std::string_view attachmentHref) {
  const std::u16string& s = text.text;
  std::string out;
  bool plain = true;
  size_t start = 0, k = 0;
  auto piece = [&](size_t from, size_t to, const Dictionary* attributes) {
    if (from >= to) return;
    auto file = attributes ? As<TextAttachment>(attributes->Get(kAttachmentAttribute)) : nullptr;
    std::string css = RunStyle(attributes);
    std::u16string link = LinkTarget(attributes);
    // An attachment makes its own link; links do not nest.
    bool linked = !file && !link.empty() && IsSafeLink(link);
    plain = plain && !linked && css.empty();
    if (linked) {
      out += "<a href=\"";
      AppendEscaped(out, ToUtf8(link));
      out += "\" rel=\"noopener noreferrer nofollow\" target=\"_blank\">";
    }
    if (!css.empty()) out += "<span style=\"" + css + "\">";
    size_t rest = from;
    for (size_t i = from; i < to; ++i) {
      if (s[i] != u'\uFFFC' || !file) continue;
      AppendTextHtml(out, ToUtf8(std::u16string_view(s).substr(rest, i - rest)));
      AppendAttachment(out, file->fileWrapper.get(),
                       std::string(attachmentHref) + std::to_string(k++));
      plain = false;
      rest = i + 1;
    }
    AppendTextHtml(out, ToUtf8(std::u16string_view(s).substr(rest, to - rest)));
    if (!css.empty()) out += "</span>";
    if (linked) out += "</a>";
  };
  for (const auto& run : text.runs) {
    size_t end = std::min(s.size(), start + run.length);
    piece(start, end, run.attributes.get());
    start = end;
  }
  piece(start, s.size(), nullptr);  // text the runs do not cover
  return plain ? std::string() : out;
}

}  // namespace gab
