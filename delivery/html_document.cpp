#include <climits>
#include <cmath>
#include <cstdio>
#include <utility>

#include "delivery/rendering.h"
#include "platform/text.h"

namespace gab {

namespace {

bool SameValue(const ObjectPtr& a, const ObjectPtr& b);

bool SameDictionary(const Dictionary* a, const Dictionary* b) {
  if (a == b) return true;
  size_t na = a ? a->entries.size() : 0, nb = b ? b->entries.size() : 0;
  if (na == 0 || nb == 0) return na == nb;
  if (na != nb) return false;
  // Both ways, so that a repeated key cannot hide a missing one.
  for (auto [x, y] : {std::pair{a, b}, std::pair{b, a}}) {
    for (const auto& [key, value] : x->entries) {
      auto* k = dynamic_cast<const String*>(key.get());
      if (!k || !SameValue(value, y->Get(k->value))) return false;
    }
  }
  return true;
}

// isEqual: for the values attributes hold.  Attachments and anything
// unknown are equal only to themselves.
bool SameValue(const ObjectPtr& a, const ObjectPtr& b) {
  if (a == b) return true;
  if (!a || !b) return false;
  if (auto sa = As<String>(a), sb = As<String>(b); sa && sb) return sa->value == sb->value;
  if (auto ua = As<URL>(a), ub = As<URL>(b); ua && ub)
    return ua->AbsoluteString() == ub->AbsoluteString();
  if (auto fa = As<Font>(a), fb = As<Font>(b); fa && fb)
    return fa->name == fb->name && fa->pointSize == fb->pointSize;
  if (auto ca = As<Color>(a), cb = As<Color>(b); ca && cb)
    return ca->space == cb->space && ca->components == cb->components &&
           ca->catalogName == cb->catalogName && ca->colorName == cb->colorName &&
           SameValue(ca->equivalent, cb->equivalent);
  if (auto na = As<Number>(a), nb = As<Number>(b); na && nb)
    return na->type == nb->type && na->i == nb->i && na->d == nb->d;
  return false;
}

// (int)value as the original arithmetic did, kept defined for values no int
// holds.
int Truncated(double v, int limit = INT_MAX) {
  if (std::isnan(v)) return 0;
  if (v >= double(limit)) return limit;
  if (v <= -double(limit)) return -limit;
  return int(v);
}

std::u16string Ascii(const char* s) {
  return std::u16string(s, s + std::char_traits<char>::length(s));
}

std::optional<std::u16string> ColorTag(const ObjectPtr& value) {
  auto color = As<Color>(value);
  // Catalogue colours stand for whatever the system draws them with; they
  // get no tag, like patterns and other spaces without a device RGB form.
  if (!color || color->space == Color::kNamed) return std::nullopt;
  double r, g, b;
  if (!color->ToDeviceRGB(r, g, b)) return std::nullopt;
  // Truncating before scaling is how the product always did it: only a full
  // component shows, so there are eight colours in all.
  auto channel = [](double c) { return unsigned(Truncated(c, INT_MAX / 255) * 255); };
  char buf[64];
  std::snprintf(buf, sizeof buf, "<font color=\"#%02x%02x%02x\">", channel(r), channel(g),
                channel(b));
  return Ascii(buf);
}

std::optional<std::u16string> FontTag(const ObjectPtr& value) {
  auto font = As<Font>(value);
  if (!font) return std::nullopt;
  return u"<font face=\"" + font->name + u"\" point-size=\"" +
         Ascii(std::to_string(Truncated(font->pointSize)).c_str()) + u"\">";
}

}  // namespace

void InsertStringAndTrackIndices(std::u16string& document, std::vector<int32_t>& indices,
                                 std::u16string_view text, int32_t which, int32_t count) {
  if (which < 0 || size_t(which) >= indices.size() || count > int32_t(indices.size())) return;
  int32_t at = indices[size_t(which)];
  if (at < 0 || size_t(at) > document.size()) return;
  document.insert(size_t(at), text);
  for (int32_t i = which; i < count; ++i) indices[size_t(i)] += int32_t(text.size());
}

namespace rendering {

std::vector<EffectiveRun> EffectiveRuns(const AttributedString& text) {
  std::vector<EffectiveRun> out;
  size_t n = text.text.size(), pos = 0;
  auto add = [&](size_t length, const Dictionary* attributes) {
    if (length == 0) return;
    if (!out.empty() && SameDictionary(out.back().attributes, attributes)) {
      out.back().length += length;
    } else {
      out.push_back(EffectiveRun{pos, length, attributes});
    }
    pos += length;
  };
  for (const auto& run : text.runs) {
    if (pos >= n) break;
    add(std::min<size_t>(run.length, n - pos), run.attributes.get());
  }
  add(n - pos, nullptr);
  return out;
}

RunMarkup MarkupFor(const Dictionary* attributes) {
  RunMarkup m;
  if (!attributes) return m;
  if (auto link = attributes->Get(kLinkAttribute))
    m.tags.emplace_back(u"<a href=\"" + link->Description() + u"\">", u"</a>");
  if (auto tag = FontTag(attributes->Get(kFontAttribute))) m.tags.emplace_back(*tag, u"</font>");
  if (auto tag = ColorTag(attributes->Get(kColorAttribute))) m.tags.emplace_back(*tag, u"</font>");
  if (auto value = attributes->Get(kAttachmentAttribute)) {
    auto attachment = As<TextAttachment>(value);
    if (attachment && attachment->fileWrapper && attachment->fileWrapper->preferredFilename) {
      m.attachmentLabel = u"[" + *attachment->fileWrapper->preferredFilename + u"]";
    } else {
      m.attachmentLabel = u"[attached item]";
    }
  }
  return m;
}

std::u16string HTMLDocument(const AttributedString& rich) {
  const std::u16string& text = rich.text;
  std::u16string doc;
  doc.reserve(kHTMLHead.size() + text.size() + text.size() / 4 + kHTMLTail.size());
  doc += kHTMLHead;
  std::vector<std::u16string> closing;
  for (const EffectiveRun& run : EffectiveRuns(rich)) {
    for (const auto& c : closing) doc += c;
    closing.clear();
    RunMarkup markup = MarkupFor(run.attributes);
    for (auto& [open, close] : markup.tags) {
      doc += open;
      closing.push_back(std::move(close));
    }
    size_t from = run.location;
    if (markup.attachmentLabel) {
      doc += *markup.attachmentLabel;
      doc += u' ';  // stands for the attachment character
      ++from;
    }
    doc.append(text, from, run.location + run.length - from);
  }
  for (const auto& c : closing) doc += c;
  doc += kHTMLTail;
  return doc;
}

}  // namespace rendering

}  // namespace gab
