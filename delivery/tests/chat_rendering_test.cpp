// The three renderings of whole transcripts built with the object model.
#include <gtest/gtest.h>

#include "delivery/rendering.h"
#include "delivery/tests/literal_html.h"
#include "delivery/tests/rendering_helpers.h"
#include "platform/text.h"
#include "transcript/chat_log.h"

namespace gab {
namespace {

using namespace testing;

std::shared_ptr<ICLPInstantMessage> Message(std::optional<std::u16string> speaker,
                                            AttributedString text) {
  auto m = std::make_shared<ICLPInstantMessage>();
  if (speaker) {
    m->speaker = std::make_shared<ICLPPresentity>();
    m->speaker->protocol = u"Jabber";
    m->speaker->name = *speaker;
  }
  m->string = std::make_shared<AttributedString>(std::move(text));
  return m;
}

AttributedString Text(std::u16string t, std::shared_ptr<Dictionary> d = nullptr) {
  AttributedString s;
  s.Append(t, d);
  return s;
}

const std::string kBold = "<font face=\"Helvetica-Bold\" point-size=\"12\">";
const std::string kFooter =
    "<br><hr><i>Sent by <a href=\"https://gabfolio.example.org/\">Gabfolio</a>.</i>";
const std::string kHead = "<html><head><title>Gabfolio log</title></head><body>";

TEST(ChatRendering, ThreeRenderingsOfSmallTranscripts) {
  auto red = Dict({{kColorAttribute, Rgb(Color::kCalibratedRGB, {1.0, 0.0, 0.0})}});
  auto status = Message(std::nullopt, Text(u"Anna went away"));
  auto empty = Message(u"Anna", Text(u""));
  struct Case {
    const char* name;
    std::vector<std::shared_ptr<ICLPInstantMessage>> messages;
    std::string plain, rich, html;
  } cases[] = {
      {"no messages",
       {},
       "Sent by Gabfolio ( https://gabfolio.example.org/ )",
       kFooter,
       kHead + kFooter + "</body></html>"},
      {"status lines and empty texts are left out",
       {status, empty},
       "Sent by Gabfolio ( https://gabfolio.example.org/ )",
       kFooter,
       kHead + kFooter + "</body></html>"},
      {"the first line follows the header directly",
       {Message(u"Anna", Text(u"hi <b>you</b> & me")), status, Message(u"Ben", Text(u"yo"))},
       "Sent by Gabfolio ( https://gabfolio.example.org/ )Anna: hi <b>you</b> & me\nBen: yo\n",
       "Anna: hi <b>you</b> & me\n\n<br>\nBen: yo\n\n<br>\n" + kFooter,
       kHead + kBold + "Anna</font>: hi <b>you</b> & me\n\n<br>\n" + kBold +
           "Ben</font>: yo\n\n<br>\n" + kFooter + "</body></html>"},
      {"a run ending the text closes before the footer",
       {Message(u"Anna", Text(u"red", red))},
       "Sent by Gabfolio ( https://gabfolio.example.org/ )Anna: red\n",
       "Anna: red\n\n<br>\n" + kFooter,
       kHead + kBold + "Anna</font>: <font color=\"#ff0000\">red</font>\n\n<br>\n" + kFooter +
           "</body></html>"},
      {"an unpaired surrogate becomes a question mark",
       {Message(u"Anna", Text(u"a\xD800z \U0001F600"))},
       "Sent by Gabfolio ( https://gabfolio.example.org/ )Anna: a?z \xF0\x9F\x98\x80\n",
       "Anna: a?z \xF0\x9F\x98\x80\n\n<br>\n" + kFooter,
       kHead + kBold + "Anna</font>: a?z \xF0\x9F\x98\x80\n\n<br>\n" + kFooter + "</body></html>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto log = ICLPChatLog::FromParts(u"Anna", c.messages);
    EXPECT_EQ(ToUtf8(PlainChatLog(*log)), c.plain);
    EXPECT_EQ(ToUtf8(RichChatLog(*log).text), c.rich);
    EXPECT_EQ(HTMLChatLog(*log), c.html);
    // Pure: the same again, nothing changed.
    EXPECT_EQ(HTMLChatLog(*log), c.html);
    EXPECT_EQ(ToUtf8(PlainChatLog(*log)), c.plain);
  }
}

TEST(ChatRendering, RichTextKeepsTheMessagesAttributes) {
  auto link = Dict({{kLinkAttribute, Str(u"http://x.example/")}});
  AttributedString text;
  text.Append(u"see ", nullptr);
  text.Append(u"this", link);
  auto log = ICLPChatLog::FromParts(u"Anna", {Message(u"Anna", text)});
  AttributedString rich = RichChatLog(*log);
  size_t start = 0;
  auto* run = rich.RunAt(std::u16string(u"Anna: see ").size(), &start);
  ASSERT_NE(run, nullptr);
  EXPECT_EQ(run->attributes, link);
  EXPECT_EQ(run->length, 4u);
  // Separators and the footer carry no attributes.
  EXPECT_EQ(rich.AttributeAt(rich.Length() - 1, kLinkAttribute), nullptr);
}

TEST(ChatRendering, LargeTranscriptMatchesTheLiteralAlgorithm) {
  std::mt19937 rng(42);
  std::vector<std::shared_ptr<ICLPInstantMessage>> messages;
  for (int i = 0; i < 4000; ++i)
    messages.push_back(Message(i % 2 ? u"Anna" : u"Ben", RandomAttributedString(rng, 3)));
  auto log = ICLPChatLog::FromParts(u"Anna", messages);
  EXPECT_TRUE(HTMLChatLog(*log) == ToUtf8(LiteralHTMLDocument(RichChatLog(*log))));
}

}  // namespace
}  // namespace gab
