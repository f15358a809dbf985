#include "transcript/instant_message.h"

#include <gtest/gtest.h>

#include "testing/temp_home.h"
#include "testing/transcripts.h"

namespace gab {
namespace {

using testing::Message;
using testing::Participant;

// ---- Word counts ----

TEST(WordCount, Scanner) {
  struct Case {
    const char* label;
    std::u16string text;
    bool withSet;  // the set {lol, brb}
    int32_t expected;
  };
  const Case cases[] = {// After the first word the scanner skips the second space; then only
                        // a space ends a word, so "lol\nlol" is one word.
                        {"LineFeedDoesNotSplitInSet", u"lol  lol\nlol", true, 1},
                        {"LineFeedDoesNotSplitAll", u"lol  lol\nlol", false, 2},
                        {"OnlySpaces", u"     ", false, 0},
                        {"OnlyLineEnds", u"\n\r\n\t\u2028\u0085", false, 0},
                        {"LeadingWhiteSpaceSkipped", u"\n\t lol", true, 1},
                        {"TrailingLineFeedStaysInWord", u"lol\n", true, 0},
                        {"TabBeforeSpaceStaysInWord", u"lol\t lol", true, 1},
                        {"PunctuationKept", u"lol, lol! lol", true, 1},
                        {"CaseKept", u"LOL Lol lol", true, 1},
                        {"NoBreakSpaceJoins", u"lol\u00A0lol", false, 1},
                        {"NoBreakSpaceSkippedBeforeWord", u"a \u00A0\u3000lol", true, 1},
                        {"ManyWords", u"brb lol  brb   x lol", true, 4},
                        {"SurrogatesInWords", u"\U0001F600 lol \U0001F600", false, 3}};
  const WordSet set = {u"lol", u"brb"};
  for (const Case& c : cases) {
    auto m = Message(Participant(u"AIM", u"bob"), c.text);
    EXPECT_EQ(m->wordCountInSet(c.withSet ? &set : nullptr), c.expected) << c.label;
  }
}

TEST(WordCount, NothingWithoutSpeakerOrText) {
  EXPECT_EQ(Message(nullptr, u"lol lol")->wordCountInSet(nullptr), 0);
  EXPECT_EQ(Message(Participant(u"AIM", u"bob"), nullptr)->wordCountInSet(nullptr), 0);
  // A speaker without a name still counts here; the transcript's sums skip it.
  EXPECT_EQ(Message(Participant(u"AIM", std::nullopt), u"a b")->wordCountInSet(nullptr), 2);
}

// ---- Status, plain and styled lines ----

TEST(InstantMessage, StatusAndPlainString) {
  testing::TempHome home("anna");
  struct Case {
    const char* label;
    std::shared_ptr<ICLPInstantMessage> m;
    bool status;
    std::u16string plain;
  } cases[] = {
      {"normal", Message(Participant(u"Jabber", u"Anna"), u"hi"), false, u"Anna: hi\n"},
      {"empty text", Message(Participant(u"Jabber", u"Anna"), u""), true, u"Anna: \n"},
      {"no text", Message(Participant(u"Jabber", u"Anna"), nullptr), true, u""},
      {"no speaker", Message(nullptr, u"Anna went away"), true, u": Anna went away\n"},
      {"resolved name", Message(Participant(u"SubNet", u" myself "), u"a\nb"), false,
       u"anna: a\nb\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(c.m->isStatusMessage(), c.status);
    EXPECT_EQ(c.m->PlainString(), c.plain);
  }
}

TEST(InstantMessage, LoggedStringKeepsTheTextsAttributes) {
  auto red = std::make_shared<Dictionary>();
  red->entries.emplace_back(std::make_shared<String>(u"NSColor"), std::make_shared<Color>());
  auto text = std::make_shared<AttributedString>();
  text->Append(u"plain ", nullptr);
  text->Append(u"red", red);
  auto m = Message(Participant(u"Jabber", u"Bob"), text);
  AttributedString line = m->LoggedString();
  EXPECT_EQ(line.text, u"Bob: plain red\n\n");
  EXPECT_EQ(Message(nullptr, text)->LoggedString().Length(), 0u);
  EXPECT_EQ(Message(Participant(u"Jabber", u"Bob"), nullptr)->LoggedString().text, u"Bob: \n\n");
  auto font = As<Font>(line.AttributeAt(0, kFontAttribute));
  ASSERT_TRUE(font);
  EXPECT_EQ(font->name, u"Helvetica-Bold");
  EXPECT_TRUE(line.AttributeAt(2, kFontAttribute));
  EXPECT_FALSE(line.AttributeAt(3, kFontAttribute));
  for (size_t i : {3, 4, 5, 10, 14, 15}) EXPECT_FALSE(line.AttributeAt(i, kColorAttribute)) << i;
  for (size_t i : {11, 12, 13})
    EXPECT_EQ(line.AttributeAt(i, kColorAttribute), red->Get(kColorAttribute));
}

// ---- Links and attachments ----

// A run of text: its length and which pooled value (if any) it links to.
struct Span {
  uint32_t length;
  int value;  // -1: no attributes; -2: attributes without the key; else index into the pool
};

std::vector<ObjectPtr> LinkPool() {
  auto base = std::make_shared<URL>();
  base->relative = u"http://example.org/dir/";
  auto relative = std::make_shared<URL>();
  relative->relative = u"page.html";
  relative->base = base;
  auto absolute = std::make_shared<URL>();
  absolute->relative = u"http://example.com/";
  return {
      std::make_shared<String>(u"http://a.example/"),  // 0
      std::make_shared<String>(u"http://a.example/"),  // 1: equal to 0, another object
      absolute,                                        // 2
      relative,                                        // 3
      Number::Integer(7),                              // 4: not a link kind
      std::make_shared<String>(u"mailto:b@example"),   // 5
  };
}

std::shared_ptr<AttributedString> Build(const std::vector<Span>& spans,
                                        const std::vector<ObjectPtr>& pool,
                                        std::u16string_view key) {
  auto s = std::make_shared<AttributedString>();
  for (const Span& span : spans) {
    std::shared_ptr<Dictionary> attrs;
    if (span.value != -1) attrs = std::make_shared<Dictionary>();
    if (span.value == -2)
      attrs->entries.emplace_back(std::make_shared<String>(u"NSFont"), std::make_shared<Font>());
    if (span.value >= 0)
      attrs->entries.emplace_back(std::make_shared<String>(std::u16string(key)),
                                  pool[size_t(span.value)]);
    s->Append(std::u16string(span.length, u'x'), attrs);
  }
  return s;
}

TEST(AllURLs, WalkByIdentity) {
  struct Case {
    const char* label;
    std::vector<Span> spans;
    std::vector<std::u16string> expected;
  };
  const Case cases[] = {
      {"NoLinks", {{5, -1}, {3, -2}}, {}},
      {"URLObjectByAbsoluteString", {{4, 2}}, {u"http://example.com/"}},
      {"RelativeURLResolved", {{4, 3}}, {u"http://example.org/dir/page.html"}},
      {"SameObjectAcrossPlainTextOnce", {{3, 0}, {4, -1}, {2, -2}, {3, 0}}, {u"http://a.example/"}},
      {"EqualButDistinctObjectsTwice",
       {{3, 0}, {1, -1}, {3, 1}},
       {u"http://a.example/", u"http://a.example/"}},
      {"OtherKindSkippedButRemembered",
       {{3, 0}, {3, 4}, {3, 0}, {3, 4}, {3, 2}},
       {u"http://a.example/", u"http://a.example/", u"http://example.com/"}},
      {"EmptyRunsIgnored", {{0, 5}, {3, 0}, {0, 5}, {3, 0}}, {u"http://a.example/"}}};
  auto pool = LinkPool();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    auto m = Message(Participant(u"Jabber", u"Bob"), Build(c.spans, pool, kLinkAttribute), Date{5});
    auto entry = m->allURLs();
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->speaker, u"Bob");
    EXPECT_EQ(entry->time, Date{5});
    EXPECT_EQ(entry->urls, c.expected);
  }
}

TEST(AllURLsAndImages, EmptyDictionaryForStatusOrNamelessSender) {
  auto pool = LinkPool();
  auto linked = Build({{3, 0}}, pool, kLinkAttribute);
  struct Case {
    const char* label;
    std::shared_ptr<ICLPInstantMessage> m;
  } cases[] = {
      {"no speaker", Message(nullptr, linked)},
      {"empty text", Message(Participant(u"Jabber", u"Bob"), u"")},
      {"no text", Message(Participant(u"Jabber", u"Bob"), nullptr)},
      {"speaker without name", Message(Participant(u"Jabber", std::nullopt), linked)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_FALSE(c.m->allURLs());
    EXPECT_FALSE(c.m->allImages());
  }
  // Without a time the entry stops before its list.
  auto timeless = Message(Participant(u"Jabber", u"Bob"), linked, std::nullopt);
  ASSERT_TRUE(timeless->allURLs());
  EXPECT_EQ(timeless->allURLs()->time, std::nullopt);
  EXPECT_TRUE(timeless->allURLs()->urls.empty());
}

TEST(AllImages, AttachmentsByIdentityWithFileWrappers) {
  auto wrapper = [](const char16_t* name) {
    auto w = std::make_shared<FileWrapper>();
    w->regular = true;
    w->preferredFilename = name;
    w->contents = "bytes";
    return w;
  };
  auto withFile = std::make_shared<TextAttachment>();
  withFile->fileWrapper = wrapper(u"a.png");
  auto other = std::make_shared<TextAttachment>();
  other->fileWrapper = wrapper(u"b.pdf");
  auto noFile = std::make_shared<TextAttachment>();
  std::vector<ObjectPtr> pool = {withFile, other, noFile, std::make_shared<String>(u"odd")};

  auto m = Message(Participant(u"Jabber", u"Bob"),
                   Build({{1, 0}, {2, -1}, {1, 0}, {1, 2}, {1, 1}, {1, 3}, {1, 1}, {1, 0}}, pool,
                         kAttachmentAttribute));
  auto entry = m->allImages();
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->speaker, u"Bob");
  ASSERT_EQ(entry->images.size(), 4u);
  EXPECT_EQ(entry->images[0], withFile->fileWrapper);
  EXPECT_EQ(entry->images[1], other->fileWrapper);
  EXPECT_EQ(entry->images[2], other->fileWrapper);  // remembered "odd" in between
  EXPECT_EQ(entry->images[3], withFile->fileWrapper);
}

}  // namespace
}  // namespace gab
