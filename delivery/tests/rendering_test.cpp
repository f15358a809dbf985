// The HTML rendering of attributed text: tags, their order, and the
// one-pass rendering against the literal insertion algorithm.
#include "delivery/rendering.h"

#include <gtest/gtest.h>

#include <random>

#include "delivery/tests/literal_html.h"
#include "delivery/tests/rendering_helpers.h"
#include "platform/text.h"

namespace gab {
namespace {

using namespace testing;
using rendering::HTMLDocument;
using rendering::kHTMLHead;
using rendering::kHTMLTail;

TEST(InsertStringAndTrackIndices, ShiftsTheEntryAndThoseAfterIt) {
  struct Step {
    std::u16string text;
    int32_t which;
  };
  struct Case {
    const char* name;
    std::vector<Step> steps;
    std::u16string document;
    std::vector<int32_t> indices;
  } cases[] = {
      {"one insertion", {{u"<", 1}}, u"a<bc", {0, 2, 3, 4}},
      {"same entry keeps call order", {{u"1", 1}, {u"2", 1}}, u"a12bc", {0, 3, 4, 5}},
      {"last entry moves alone", {{u"!", 3}}, u"abc!", {0, 1, 2, 4}},
      {"closing then opening at one entry",
       {{u"</x>", 2}, {u"<y>", 2}},
       u"ab</x><y>c",
       {0, 1, 9, 10}},
      {"out of range does nothing", {{u"z", 4}, {u"z", -1}}, u"abc", {0, 1, 2, 3}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::u16string doc = u"abc";
    std::vector<int32_t> indices = {0, 1, 2, 3};
    for (const auto& s : c.steps) InsertStringAndTrackIndices(doc, indices, s.text, s.which, 4);
    EXPECT_EQ(ToUtf8(doc), ToUtf8(c.document));
    EXPECT_EQ(indices, c.indices);
  }
}

TEST(HTMLRendering, TagsForEachAttribute) {
  struct Case {
    const char* name;
    std::shared_ptr<Dictionary> attributes;
    const char* html;  // the body for the text "xy"
  } cases[] = {
      {"red", Dict({{kColorAttribute, Rgb(Color::kCalibratedRGB, {1.0, 0.0, 0.0})}}),
       "<font color=\"#ff0000\">xy</font>"},
      {"grey truncates to black", Dict({{kColorAttribute, Rgb(Color::kDeviceWhite, {0.5})}}),
       "<font color=\"#000000\">xy</font>"},
      {"components beyond one", Dict({{kColorAttribute, Rgb(Color::kDeviceRGB, {2.0, 0, 0})}}),
       "<font color=\"#1fe0000\">xy</font>"},
      {"catalogue colour has no tag", Dict({{kColorAttribute, Named()}}), "xy"},
      {"short RGB has no tag", Dict({{kColorAttribute, Rgb(Color::kDeviceRGB, {1.0})}}), "xy"},
      {"font size truncated", Dict({{kFontAttribute, MakeFont(u"X", 12.7)}}),
       "<font face=\"X\" point-size=\"12\">xy</font>"},
      {"link as a string", Dict({{kLinkAttribute, Str(u"http://a.example/?q=1&r=<2>")}}),
       "<a href=\"http://a.example/?q=1&r=<2>\">xy</a>"},
      {"link as a URL", Dict({{kLinkAttribute, Url(u"https://b.example/x")}}),
       "<a href=\"https://b.example/x\">xy</a>"},
      {"attachment with a name", Dict({{kAttachmentAttribute, Attachment(u"a.png")}}), "[a.png] y"},
      {"attachment without a wrapper",
       Dict({{kAttachmentAttribute, std::make_shared<TextAttachment>()}}), "[attached item] y"},
      {"unknown keys are ignored", Dict({{u"NSUnderline", Number::Integer(1)}}), "xy"},
      // Whatever order the dictionary holds its keys in.
      {"link, font, colour; closed in the same order",
       Dict({{kColorAttribute, Rgb(Color::kDeviceRGB, {0, 0, 1})},
             {kFontAttribute, MakeFont(u"Helvetica", 12)},
             {kLinkAttribute, Str(u"u")}}),
       "<a href=\"u\"><font face=\"Helvetica\" point-size=\"12\"><font color=\"#0000ff\">xy"
       "</a></font></font>"},
      {"attachment inside a link",
       Dict({{kAttachmentAttribute, Attachment(u"b.gif")}, {kLinkAttribute, Str(u"u")}}),
       "<a href=\"u\">[b.gif] y</a>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AttributedString s;
    s.Append(u"xy", c.attributes);
    std::string expected = ToUtf8(kHTMLHead) + c.html + ToUtf8(kHTMLTail);
    EXPECT_EQ(ToUtf8(HTMLDocument(s)), expected);
    EXPECT_EQ(ToUtf8(LiteralHTMLDocument(s)), expected);
  }
}

TEST(HTMLRendering, RunsAndTheirBoundaries) {
  auto bold = Dict({{kFontAttribute, MakeFont(u"B", 10)}});
  auto sameBold = Dict({{kFontAttribute, MakeFont(u"B", 10)}});  // equal, not identical
  auto link = Dict({{kLinkAttribute, Str(u"L")}});
  struct Case {
    const char* name;
    AttributedString text;
    const char* body;
  };
  auto make = [](std::vector<std::pair<std::u16string, std::shared_ptr<Dictionary>>> parts) {
    AttributedString s;
    for (auto& [t, d] : parts) s.Append(t, d);
    return s;
  };
  AttributedString uncovered;
  uncovered.text = u"abcd";
  uncovered.runs = {{2, bold}};  // the rest has no attributes
  AttributedString overlong;
  overlong.text = u"ab";
  overlong.runs = {{5, bold}};
  Case cases[] = {
      {"closing tags precede the next run", make({{u"ab", bold}, {u"cd", link}}),
       "<font face=\"B\" point-size=\"10\">ab</font><a href=\"L\">cd</a>"},
      {"equal dictionaries form one run", make({{u"ab", bold}, {u"cd", sameBold}}),
       "<font face=\"B\" point-size=\"10\">abcd</font>"},
      {"plain text between", make({{u"a", bold}, {u"<b>&", nullptr}, {u"c", bold}}),
       "<font face=\"B\" point-size=\"10\">a</font><b>&<font face=\"B\" "
       "point-size=\"10\">c</font>"},
      {"empty dictionary counts as none", make({{u"a", nullptr}, {u"b", Dict({})}}), "ab"},
      {"text past the runs", uncovered, "<font face=\"B\" point-size=\"10\">ab</font>cd"},
      {"runs past the text", overlong, "<font face=\"B\" point-size=\"10\">ab</font>"},
      {"empty text", AttributedString(), ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string expected = ToUtf8(kHTMLHead) + c.body + ToUtf8(kHTMLTail);
    EXPECT_EQ(ToUtf8(HTMLDocument(c.text)), expected);
    EXPECT_EQ(ToUtf8(LiteralHTMLDocument(c.text)), expected);
  }
}

TEST(HTMLRendering, OnePassMatchesTheLiteralAlgorithm) {
  std::mt19937 rng(20261123);
  for (int round = 0; round < 3000; ++round) {
    AttributedString s = RandomAttributedString(rng, 1 + round % 40);
    std::u16string expected = LiteralHTMLDocument(s);
    std::u16string got = HTMLDocument(s);
    if (got != expected) {
      ADD_FAILURE() << "round " << round << "\n got: " << ToUtf8(got)
                    << "\nwant: " << ToUtf8(expected);
      return;
    }
  }
}

}  // namespace
}  // namespace gab
