#include "library/chat_html.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "platform/image_size.h"
#include "platform/text.h"
#include "transcript/instant_message.h"

namespace gab {

// The look of the library's templates, and what the reading pages add.
const char* const kReadingStyle = R"css(
:root {
  --bg: #f5f6f8; --surface: #ffffff; --ink: #1d2330; --muted: #687085;
  --accent: #2f6fed; --accent-soft: #e7efff; --border: #e2e5eb; --mark: #fff0a8;
  --radius: 12px; --sidebar: 250px;
  color-scheme: light dark;
}
@media (prefers-color-scheme: dark) {
  :root {
    --bg: #13151a; --surface: #1c1f26; --ink: #e7e9ee; --muted: #9aa2b1;
    --accent: #7ea6ff; --accent-soft: #22304f; --border: #2b2f39; --mark: #5a4d12;
  }
}
* { box-sizing: border-box; }
html { -webkit-text-size-adjust: 100%; }
body {
  margin: 0; background: var(--bg); color: var(--ink);
  font: 15px/1.5 system-ui, -apple-system, "Segoe UI", Roboto, "Helvetica Neue", Arial, sans-serif;
}
a { color: var(--accent); text-decoration: none; }
a:hover { text-decoration: underline; }
.shell { display: grid; grid-template-columns: var(--sidebar) minmax(0, 1fr); min-height: 100vh; }
.sidebar {
  background: var(--surface); border-right: 1px solid var(--border);
  padding: 24px 16px; position: sticky; top: 0; height: 100vh; overflow-y: auto;
}
.brand { display: block; font-weight: 700; font-size: 18px; color: var(--ink); margin: 0 8px 4px; }
.sections { display: flex; gap: 4px; margin: 12px 4px 14px; }
.sections a {
  flex: 1; text-align: center; padding: 6px 4px; border-radius: 999px;
  border: 1px solid var(--border); color: var(--muted); font-size: 12px;
}
.sections a.here { background: var(--accent); border-color: var(--accent); color: #fff; }
form.box { display: flex; gap: 6px; margin: 0 4px 20px; }
form.box input {
  flex: 1; min-width: 0; padding: 6px 10px; border: 1px solid var(--border); border-radius: 8px;
  background: var(--bg); color: var(--ink); font: inherit; font-size: 14px;
}
button, form.find select, form.find input {
  font: inherit; font-size: 14px; padding: 6px 10px; border-radius: 8px;
  border: 1px solid var(--border); background: var(--surface); color: var(--ink);
}
button { background: var(--accent); border-color: var(--accent); color: #fff; cursor: pointer; }
.sidebar h2 {
  font-size: 11px; letter-spacing: .08em; text-transform: uppercase; color: var(--muted);
  margin: 0 8px 8px;
}
ul.nav { list-style: none; margin: 0; padding: 0; }
ul.nav li { display: flex; align-items: center; gap: 8px; border-radius: 8px; }
ul.nav li a {
  flex: 1; min-width: 0; padding: 7px 8px; color: var(--ink);
  overflow: hidden; text-overflow: ellipsis; white-space: nowrap;
}
ul.nav li:hover { background: var(--bg); }
ul.nav li.active { background: var(--accent-soft); }
ul.nav li.active a { color: var(--accent); font-weight: 600; }
.numb { color: var(--muted); font-size: 12px; padding-right: 8px; font-variant-numeric: tabular-nums; }
main { padding: 32px clamp(16px, 4vw, 48px) 64px; max-width: 1100px; }
main > header h1 { margin: 0 0 4px; font-size: 28px; overflow-wrap: anywhere; }
main > header p { margin: 0 0 24px; color: var(--muted); }
.card, ul.list, ol.hits {
  background: var(--surface); border: 1px solid var(--border); border-radius: var(--radius);
}
table.people { width: 100%; border-collapse: collapse; overflow: hidden; }
table.people th, table.people td { text-align: left; padding: 9px 14px; border-top: 1px solid var(--border); }
table.people th { border-top: 0; font-size: 12px; color: var(--muted); text-transform: uppercase; letter-spacing: .06em; }
table.people td.n { font-variant-numeric: tabular-nums; color: var(--muted); }
.tag { font-size: 11px; color: var(--muted); border: 1px solid var(--border); border-radius: 999px; padding: 1px 7px; margin-left: 6px; }
ul.list, ol.hits { list-style: none; margin: 0; padding: 0; overflow: hidden; }
ul.list li, ol.hits li { padding: 10px 14px; border-top: 1px solid var(--border); }
ul.list li:first-child, ol.hits li:first-child { border-top: 0; }
.meta { color: var(--muted); font-size: 13px; }
.line { margin: 2px 0 0; overflow-wrap: anywhere; }
mark { background: var(--mark); color: inherit; border-radius: 3px; padding: 0 1px; }
form.find { display: flex; flex-wrap: wrap; gap: 8px; align-items: end; margin: 0 0 20px; }
form.find label { display: flex; flex-direction: column; font-size: 12px; color: var(--muted); gap: 2px; }
form.find label.q { flex: 1 1 260px; }
.pages { margin: 16px 0; display: flex; gap: 16px; }
.chat { background: var(--surface); border: 1px solid var(--border); border-radius: var(--radius); padding: 6px 0; }
.day { margin: 14px 18px 6px; font-size: 12px; letter-spacing: .06em; text-transform: uppercase; color: var(--muted); }
.m {
  display: grid; grid-template-columns: 72px 140px minmax(0, 1fr); gap: 10px;
  padding: 3px 18px; scroll-margin-top: 40vh;
  content-visibility: auto; contain-intrinsic-size: auto 28px;
}
.m time { color: var(--muted); font-size: 12px; padding-top: 2px; font-variant-numeric: tabular-nums; }
.m .who { font-weight: 600; overflow: hidden; text-overflow: ellipsis; white-space: nowrap; }
.m.me .who { color: var(--accent); }
.m .x { overflow-wrap: anywhere; }
.m.status { color: var(--muted); font-size: 13px; font-style: italic; }
.m:target { background: var(--mark); box-shadow: inset 4px 0 0 var(--accent); }
.m img { display: block; max-width: min(100%, 420px); height: auto; margin: 4px 0; border-radius: 6px; }
a.file { display: inline-block; border: 1px solid var(--border); border-radius: 8px; padding: 2px 10px; margin: 2px 0; }
@media (max-width: 720px) {
  .shell { grid-template-columns: 1fr; }
  .sidebar {
    position: static; height: auto; border-right: 0; border-bottom: 1px solid var(--border);
    padding: 16px 12px 8px;
  }
  ul.nav { display: flex; gap: 6px; overflow-x: auto; padding-bottom: 8px; }
  ul.nav li { flex: none; border: 1px solid var(--border); border-radius: 999px; }
  ul.nav li a { padding: 5px 4px 5px 12px; }
  main { padding: 20px 14px 48px; }
  .m { grid-template-columns: 56px minmax(0, 1fr); }
  .m .x { grid-column: 1 / -1; }
}
)css";

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

void AppendAttachment(std::string& out, const FileWrapper* file, const AttachmentHref& link,
                      size_t k) {
  std::string name = file && file->preferredFilename ? ToUtf8(*file->preferredFilename)
                                                     : std::string("attachment");
  if (!file || !file->IsRegularFile()) {
    out += "<span class=\"file\">";
    AppendEscaped(out, name);
    out += "</span>";
    return;
  }
  std::string href = link(k, *file);
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
  return MessageBodyHtml(text, [&](size_t k, const FileWrapper&) {
    return std::string(attachmentHref) + std::to_string(k);
  });
}

std::string MessageBodyHtml(const AttributedString& text, const AttachmentHref& href) {
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
      AppendAttachment(out, file->fileWrapper.get(), href, k++);
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

std::u16string SearchableText(const ICLPInstantMessage& message) {
  if (!message.string) return {};
  const AttributedString& s = *message.string;
  std::u16string out;
  out.reserve(s.text.size());
  for (size_t i = 0; i < s.text.size(); ++i) {
    char16_t c = s.text[i];
    if (c == u'\uFFFC') {
      auto attachment = As<TextAttachment>(s.AttributeAt(i, kAttachmentAttribute));
      if (attachment && attachment->fileWrapper && attachment->fileWrapper->preferredFilename) {
        out += u' ';
        out += *attachment->fileWrapper->preferredFilename;
        out += u' ';
      } else {
        out += u' ';
      }
    } else if (c < 0x20 || c == 0x7F) {
      out += c == u'\n' ? u'\n' : u' ';
    } else {
      out += c;
    }
  }
  return out;
}

std::string FirstLine(const std::u16string& text, size_t units) {
  size_t end = text.find(u'\n');
  if (end == std::u16string::npos) end = text.size();
  bool cut = end > units;
  std::u16string line = text.substr(0, std::min(end, units));
  if (!line.empty() && line.back() >= 0xD800 && line.back() < 0xDC00) line.pop_back();
  while (!line.empty() && (line.back() == u' ' || line.back() == u'\t')) line.pop_back();
  if (cut) line += u"\u2026";
  return ToUtf8(line);
}

void AppendChatMessages(std::string& out, const std::vector<ChatMessage>& messages) {
  std::string lastDay;
  for (const ChatMessage& m : messages) {
    std::string when = FormatDate(m.time, "%Y-%m-%d%I:%M %p");
    if (when.compare(0, 10, lastDay) != 0) {
      lastDay = when.substr(0, 10);
      out += "<div class=\"day\">" + Escaped(FormatDate(m.time, "%A, %B %e, %Y")) + "</div>\n";
    }
    static const char* kSides[] = {"me", "them", "status"};
    out += std::string("<div class=\"m ") + kSides[m.side] + "\" id=\"m" +
           std::to_string(m.position) + "\"><time>";
    if (when.size() > 10) out.append(when, 10);
    out += "</time>";
    if (m.side != ChatMessage::kStatus) {
      out += "<span class=\"who\">";
      AppendEscaped(out, m.speaker);
      out += "</span>";
    }
    out += "<div class=\"x\">" + m.html + "</div></div>\n";
  }
}

}  // namespace gab
