#include "archive/object.h"

#include <gtest/gtest.h>

#include "platform/text.h"

namespace gab {
namespace {

std::shared_ptr<String> Str(std::u16string s) {
  return std::make_shared<String>(std::move(s));
}

std::shared_ptr<URL> Url(std::u16string rel, std::shared_ptr<URL> base = nullptr) {
  auto u = std::make_shared<URL>();
  u->relative = std::move(rel);
  u->base = std::move(base);
  return u;
}

// RFC 3986 section 5.4 examples against its base URL.
TEST(UrlTest, ResolvesReferencesAsRfc3986) {
  auto base = Url(u"http://a/b/c/d;p?q");
  struct Case {
    const char16_t* ref;
    const char16_t* want;
  } cases[] = {
      {u"g:h", u"g:h"},
      {u"g", u"http://a/b/c/g"},
      {u"./g", u"http://a/b/c/g"},
      {u"g/", u"http://a/b/c/g/"},
      {u"/g", u"http://a/g"},
      {u"//g", u"http://g"},
      {u"?y", u"http://a/b/c/d;p?y"},
      {u"#s", u"http://a/b/c/d;p?q#s"},
      {u"", u"http://a/b/c/d;p?q"},
      {u".", u"http://a/b/c/"},
      {u"./", u"http://a/b/c/"},
      {u"..", u"http://a/b/"},
      {u"../../../g", u"http://a/g"},
      {u"/./g", u"http://a/g"},
      {u"g.", u"http://a/b/c/g."},
      {u"g/../h", u"http://a/b/c/h"},
      {u"g?y/./x", u"http://a/b/c/g?y/./x"},
      {u"g#s/../x", u"http://a/b/c/g#s/../x"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ToUtf8(Url(c.ref, base)->AbsoluteString()), ToUtf8(c.want)) << ToUtf8(c.ref);
  }
  EXPECT_EQ(Url(u"page.html", Url(u"http://host"))->AbsoluteString(), u"http://host/page.html");
  EXPECT_EQ(Url(u"no base at all")->AbsoluteString(), u"no base at all");
  // A base that is itself relative to another base.
  EXPECT_EQ(Url(u"x", Url(u"d/", Url(u"http://h/a/")))->AbsoluteString(), u"http://h/a/d/x");
}

TEST(ColorTest, ConvertsToDeviceRgbWhereTheSpaceAllows) {
  auto make = [](int space, std::vector<double> comps) {
    auto c = std::make_shared<Color>();
    c->space = space;
    c->components = std::move(comps);
    return c;
  };
  auto named = make(Color::kNamed, {});
  named->equivalent = make(Color::kCalibratedWhite, {0.5, 1});
  auto namedNoEquivalent = make(Color::kNamed, {});
  struct Case {
    std::shared_ptr<Color> color;
    bool ok;
    double r, g, b;
  } cases[] = {
      {make(Color::kCalibratedRGB, {0.1, 0.2, 0.3}), true, 0.1, 0.2, 0.3},
      {make(Color::kDeviceRGB, {1, 0, 0.5, 1}), true, 1, 0, 0.5},
      {make(Color::kDeviceWhite, {0.25}), true, 0.25, 0.25, 0.25},
      {named, true, 0.5, 0.5, 0.5},
      {namedNoEquivalent, false, 0, 0, 0},
      {make(Color::kDeviceCMYK, {0, 0, 0, 1, 1}), false, 0, 0, 0},
      {make(Color::kPattern, {}), false, 0, 0, 0},
      {make(Color::kDeviceRGB, {1}), false, 0, 0, 0},  // too few components
  };
  for (const auto& c : cases) {
    double r = -1, g = -1, b = -1;
    ASSERT_EQ(c.color->ToDeviceRGB(r, g, b), c.ok) << c.color->space;
    if (c.ok) {
      EXPECT_DOUBLE_EQ(r, c.r);
      EXPECT_DOUBLE_EQ(g, c.g);
      EXPECT_DOUBLE_EQ(b, c.b);
    }
  }
}

TEST(AttributedStringTest, RunsMergeOnlyForTheSameDictionaryObject) {
  auto bold = std::make_shared<Dictionary>();
  bold->entries.emplace_back(Str(u"NSFont"), Str(u"bold"));
  auto boldTwin = std::make_shared<Dictionary>(*bold);  // equal but not the same object

  AttributedString s;
  s.Append(u"ab", bold);
  s.Append(u"", nullptr);  // nothing to append, no run
  s.Append(u"cd", bold);
  s.Append(u"ef", boldTwin);
  s.Append(u"g", nullptr);
  ASSERT_EQ(s.runs.size(), 3u);
  EXPECT_EQ(s.runs[0].length, 4u);
  EXPECT_EQ(s.runs[1].length, 2u);
  EXPECT_EQ(s.runs[2].length, 1u);

  size_t start = 99;
  ASSERT_NE(s.RunAt(5, &start), nullptr);
  EXPECT_EQ(start, 4u);
  EXPECT_EQ(s.RunAt(7, &start), nullptr);
  EXPECT_EQ(As<String>(s.AttributeAt(3, u"NSFont"))->value, u"bold");
  EXPECT_EQ(s.AttributeAt(6, u"NSFont"), nullptr);
  EXPECT_EQ(s.AttributeAt(0, u"NSLink"), nullptr);

  AttributedString t;
  t.Append(u"x", bold);
  t.Append(s);  // "x" and "abcd" share `bold`
  EXPECT_EQ(t.text, u"xabcdefg");
  ASSERT_EQ(t.runs.size(), 3u);
  EXPECT_EQ(t.runs[0].length, 5u);
  t.Append(t);  // appending itself
  EXPECT_EQ(t.text, u"xabcdefgxabcdefg");
}

TEST(DescriptionTest, CollectionsPrintAsOldStylePropertyLists) {
  auto inner = std::make_shared<Array>();
  inner->items = {Number::Integer(2), Number::Real(0.5)};
  auto dict = std::make_shared<Dictionary>();
  dict->entries.emplace_back(Str(u"b"), Str(u"two words"));
  dict->entries.emplace_back(Str(u"a"), Number::Bool(true));
  auto data = std::make_shared<Data>(std::string("\x01\x02\x03\x04\xff", 5));
  Array a;
  a.items = {Str(u"AIM"), Str(u""), inner, dict, data, nullptr, Str(u"q\"\u00e9")};
  EXPECT_EQ(ToUtf8(a.Description()),
            "(\n"
            "    AIM,\n"
            "    \"\",\n"
            "        (\n"
            "        2,\n"
            "        0.5\n"
            "    ),\n"
            "        {\n"
            "        a = 1;\n"
            "        b = \"two words\";\n"
            "    },\n"
            "    <01020304 ff>,\n"
            "    <null>,\n"
            "    \"q\\\"\\U00e9\"\n"
            ")");
  EXPECT_EQ(Number::Integer(-7)->Description(), u"-7");
  EXPECT_EQ(Number::Real(-2.5)->IntegerValue(), -2);
  EXPECT_EQ(Number::Real(1e300)->IntegerValue(), INT64_MAX);
}

// Shared subtrees make descriptions exponential; the description stops.
TEST(DescriptionTest, SharedSubtreesDoNotExplode) {
  auto leaf = std::make_shared<Array>();
  leaf->items = {std::make_shared<String>(u"x")};
  std::shared_ptr<Array> level = leaf;
  for (int k = 0; k < 40; ++k) {
    auto up = std::make_shared<Array>();
    up->items = {level, level};
    level = up;
  }
  std::u16string d = level->Description();
  EXPECT_NE(d.find(u"..."), std::u16string::npos);
  EXPECT_LT(d.size(), 512u << 20);
}

}  // namespace
}  // namespace gab
