#pragma once
// Attributed texts for the rendering tests and benchmarks, made with the
// object model directly.

#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "archive/object.h"

namespace gab::testing {

inline ObjectPtr Str(std::u16string v) {
  return std::make_shared<String>(std::move(v));
}

inline std::shared_ptr<Dictionary> Dict(std::vector<std::pair<std::u16string_view, ObjectPtr>> kv) {
  auto d = std::make_shared<Dictionary>();
  for (auto& [k, v] : kv) d->entries.emplace_back(Str(std::u16string(k)), std::move(v));
  return d;
}

inline ObjectPtr Rgb(int space, std::vector<double> components) {
  auto c = std::make_shared<Color>();
  c->space = space;
  c->components = std::move(components);
  return c;
}

inline ObjectPtr Named() {
  auto c = std::make_shared<Color>();
  c->space = Color::kNamed;
  c->catalogName = u"System";
  c->colorName = u"controlTextColor";
  c->equivalent = std::static_pointer_cast<Color>(Rgb(Color::kCalibratedWhite, {0.0, 1.0}));
  return c;
}

inline ObjectPtr MakeFont(std::u16string name, double size) {
  auto f = std::make_shared<Font>();
  f->name = std::move(name);
  f->pointSize = size;
  return f;
}

inline ObjectPtr Url(std::u16string s) {
  auto u = std::make_shared<URL>();
  u->relative = std::move(s);
  return u;
}

inline ObjectPtr Attachment(std::optional<std::u16string> name) {
  auto a = std::make_shared<TextAttachment>();
  a->fileWrapper = std::make_shared<FileWrapper>();
  a->fileWrapper->regular = true;
  a->fileWrapper->preferredFilename = std::move(name);
  return a;
}

// A text of `runs` runs with attributes drawn from a small pool (so that
// neighbours often share or equal each other), keys in shuffled orders, and
// text holding markup characters, surrogates and attachment characters.
inline AttributedString RandomAttributedString(std::mt19937& rng, int runs) {
  static const std::u16string kPieces[] = {u"a",      u"<",          u">",      u"&", u" ",   u"\n",
                                           u"\uFFFC", u"\U0001F600", u"\xD800", u"é", u"<br>"};
  std::vector<std::pair<std::u16string_view, ObjectPtr>> values = {
      {kLinkAttribute, Str(u"http://x.example/")},
      {kLinkAttribute, Url(u"https://y.example/&")},
      {kFontAttribute, MakeFont(u"Helvetica", 12.0)},
      {kFontAttribute, MakeFont(u"Times-Bold", 9.9)},
      {kColorAttribute, Rgb(Color::kCalibratedRGB, {1.0, 0.0, 1.0})},
      {kColorAttribute, Rgb(Color::kDeviceWhite, {0.5})},
      {kColorAttribute, Named()},
      {kAttachmentAttribute, Attachment(u"pic.png")},
      {kAttachmentAttribute, Attachment(std::nullopt)},
      {u"NSUnderline", Str(u"1")},
  };
  std::vector<std::shared_ptr<Dictionary>> pool = {nullptr};
  for (int i = 0; i < 12; ++i) {
    std::vector<std::pair<std::u16string_view, ObjectPtr>> kv;
    for (const auto& v : values)
      if (rng() % 4 == 0 &&
          std::none_of(kv.begin(), kv.end(), [&](const auto& e) { return e.first == v.first; }))
        kv.push_back(v);
    std::shuffle(kv.begin(), kv.end(), rng);
    pool.push_back(Dict(kv));
  }
  AttributedString s;
  for (int r = 0; r < runs; ++r) {
    std::u16string text;
    int len = 1 + int(rng() % 6);
    for (int i = 0; i < len; ++i) text += kPieces[rng() % std::size(kPieces)];
    auto& d = pool[rng() % pool.size()];
    // Sometimes an equal copy instead of the shared dictionary.
    if (d && rng() % 5 == 0) {
      s.Append(text, std::make_shared<Dictionary>(*d));
    } else {
      s.Append(text, d);
    }
  }
  return s;
}

}  // namespace gab::testing
