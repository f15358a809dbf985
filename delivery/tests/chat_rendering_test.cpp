// The three renderings of whole transcripts built with the object model.
#include <gtest/gtest.h>

#include "delivery/rendering.h"
#include "delivery/tests/literal_html.h"
#include "delivery/tests/rendering_helpers.h"
#include "platform/text.h"
#include "testing/transcripts.h"

namespace gab {
namespace {

using namespace testing;

const std::string kBold = "<font face=\"Helvetica-Bold\" point-size=\"12\">";
const std::string kFooter =
    "<br><hr><i>Sent by <a href=\"https://gabfolio.example.org/\">Gabfolio</a>.</i>";
const std::string kHead = "<html><head><title>Gabfolio log</title></head><body>";
const std::string kPlainHead = "Sent by Gabfolio ( https://gabfolio.example.org/ )";

TEST(ChatRendering, ThreeRenderingsOfSmallTranscripts) {
  struct Case {
    const char* name;
    std::vector<std::shared_ptr<ICLPInstantMessage>> messages;
    std::string plain, rich, html;
  } cases[] = {
      {"no messages", {}, kPlainHead, kFooter, kHead + kFooter + "</body></html>"},
      {"status lines and empty texts are left out; the first line follows the header",
       {Said(u"Anna", Date{0}, {{u"hi <b>you</b> & me"}}), Said(u"", Date{0}, {{u"away"}}),
        Said(u"Anna", Date{0}, {}), Said(u"Ben", Date{0}, {{u"yo"}})},
       kPlainHead + "Anna: hi <b>you</b> & me\nBen: yo\n",
       "Anna: hi <b>you</b> & me\n\n<br>\nBen: yo\n\n<br>\n" + kFooter,
       kHead + kBold + "Anna</font>: hi <b>you</b> & me\n\n<br>\n" + kBold +
           "Ben</font>: yo\n\n<br>\n" + kFooter + "</body></html>"},
      {"an unpaired surrogate becomes a question mark",
       {Said(u"Anna", Date{0}, {{u"a\xD800z \U0001F600"}})},
       kPlainHead + "Anna: a?z \xF0\x9F\x98\x80\n",
       "Anna: a?z \xF0\x9F\x98\x80\n\n<br>\n" + kFooter,
       kHead + kBold + "Anna</font>: a?z \xF0\x9F\x98\x80\n\n<br>\n" + kFooter + "</body></html>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto log = ICLPChatLog::FromParts(u"Anna", c.messages);
    EXPECT_EQ(ToUtf8(PlainChatLog(*log)), c.plain);
    EXPECT_EQ(ToUtf8(RichChatLog(*log).text), c.rich);
    EXPECT_EQ(HTMLChatLog(*log), c.html);
  }
}

TEST(ChatRendering, RichTextKeepsTheMessagesAttributes) {
  auto log = ICLPChatLog::FromParts(
      u"Anna", {Said(u"Anna", Date{0}, {{u"see "}, {u"this", LinkString(u"http://x.example/")}})});
  AttributedString rich = RichChatLog(*log);
  size_t start = 0;
  auto* run = rich.RunAt(std::u16string(u"Anna: see ").size(), &start);
  ASSERT_NE(run, nullptr);
  EXPECT_EQ(run->length, 4u);
  EXPECT_TRUE(rich.AttributeAt(start, kLinkAttribute));
  // Separators and the footer carry no attributes.
  EXPECT_EQ(rich.AttributeAt(rich.Length() - 1, kLinkAttribute), nullptr);
}

TEST(ChatRendering, LargeTranscriptMatchesTheLiteralAlgorithm) {
  std::mt19937 rng(42);
  std::vector<std::shared_ptr<ICLPInstantMessage>> messages;
  for (int i = 0; i < 4000; ++i)
    messages.push_back(Message(Participant(u"Jabber", i % 2 ? u"Anna" : u"Ben"),
                               std::make_shared<AttributedString>(RandomAttributedString(rng, 3))));
  auto log = ICLPChatLog::FromParts(u"Anna", messages);
  EXPECT_TRUE(HTMLChatLog(*log) == ToUtf8(LiteralHTMLDocument(RichChatLog(*log))));
}

}  // namespace
}  // namespace gab
