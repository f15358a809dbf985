// Transcripts written to disk in both formats and loaded back by path.

#include <gtest/gtest.h>

#include "archive/testing/fixture_writer.h"
#include "platform/text.h"
#include "testing/temp_home.h"
#include "transcript/chat_log.h"

namespace gab {
namespace {

namespace fx = fixtures;

const std::string kBook = "Library/Application Support/AddressBook/";

// Times and flags wider than a byte, in the archives' byte order.
Date At(double seconds) {
  return Date{1.1e8 + 0.25 + seconds};
}

fx::TextRun Run(std::u16string text) {
  return fx::TextRun(std::move(text));
}

fx::TextRun LinkRun(std::u16string text, std::u16string target, bool asURL) {
  fx::TextRun r(std::move(text));
  r.link = fx::Link(std::move(target), asURL);
  return r;
}

// Bob Stone (AIM buddy1) talks with the user (AIM annalee, the me card) and
// Carl on the local network; one status line, one message without text, and
// one whose sender is no presentity and whose text is a plain string.
fx::Transcript Sample() {
  fx::Speaker bob{u"AIM", u"buddy1"}, me{u"AIM", u"annalee"}, carl{u"SubNet", u"carl@mac"};
  fx::Transcript t;
  t.participants = {bob, carl};
  fx::Message m1{bob,
                 At(100),
                 {Run(u"hi "), LinkRun(u"example", u"http://example.org/", true), Run(u" and "),
                  LinkRun(u"x", u"http://s.example/", false)}};
  m1.flags = 70000;
  fx::TextRun picture(u"");
  picture.attachment = fx::Attachment(u"a.png", "PNGDATA");
  fx::TextRun styled(u"look ");
  styled.fontName = u"Helvetica";
  styled.rgb = std::array<double, 3>{1, 0, 0};
  fx::Message m2{me, At(200), {styled, picture}};
  fx::TextRun grey(u"buddy1 went away");
  grey.white = 0.5;
  fx::Message status{std::nullopt, At(300), {grey}};
  fx::Message noText{bob, At(400), {}, true, 0xFFFFFFFF};
  fx::Message m5{carl, At(500), {Run(u"lol  lol\nlol")}};
  fx::Message plain{fx::Speaker{u"AIM", u"someone", true}, At(600), {Run(u"plain words")}};
  plain.plainText = true;
  t.messages = {m1, m2, status, noText, m5, plain};
  return t;
}

struct FormatCase {
  const char* label;
  fx::Format format;
  const char* extension;
};

void PrintTo(const FormatCase& c, std::ostream* os) {
  *os << c.label;
}

const FormatCase kFormats[] = {
    {"PowerPCTypedstream", fx::Format::kTypedstreamBigEndian, "chat"},
    {"IntelTypedstream", fx::Format::kTypedstreamLittleEndian, "chat"},
    {"KeyedArchive", fx::Format::kKeyed, "ichat"},
};

class ChatLogFile : public ::testing::TestWithParam<FormatCase> {
 protected:
  ChatLogFile() : home_("anna") {
    home_.Write(kBook + "Me.vcf", "BEGIN:VCARD\nN:Lee;Anna\nX-AIM:annalee\nEND:VCARD\n");
    home_.Write(kBook + "Contacts.vcf", "BEGIN:VCARD\nN:Stone;Bob\nX-AIM:buddy1\nEND:VCARD\n");
  }
  std::string Write(const std::string& name, const fx::Transcript& t) {
    home_.Write(name, fx::WriteTranscript(t, GetParam().format));
    return home_.path() + "/" + name;
  }
  testing::TempHome home_;
};

TEST_P(ChatLogFile, LoadsAndAnswersEveryQuery) {
  std::string path =
      Write(std::string("Bob Stone on 2005-03-01 at 10.15.") + GetParam().extension, Sample());
  std::string why;
  auto log = ICLPChatLog::InitWithFilePath(path, &why);
  ASSERT_TRUE(log) << why;
  EXPECT_EQ(log->loadError(), "");
  EXPECT_EQ(log->firstOtherPartyName(), u"Bob Stone");
  EXPECT_EQ(log->NumberOfSpeakers(), 3);
  EXPECT_TRUE(log->NameInSpeakerList(u"buddy1"));
  EXPECT_TRUE(log->NameInSpeakerList(u"carl@mac"));
  EXPECT_FALSE(log->NameInSpeakerList(u"Bob Stone"));
  EXPECT_EQ(log->LastMessageDate(), At(600));
  EXPECT_NE(log->description(), u"");

  const auto& m = log->Messages();
  ASSERT_EQ(m.size(), 6u);
  const std::optional<std::u16string> speakers[] = {u"Bob Stone", u"Anna Lee", std::nullopt,
                                                    u"Bob Stone", u"carl",     std::nullopt};
  const std::optional<std::u16string> raw[] = {u"buddy1", u"annalee",  std::nullopt,
                                               u"buddy1", u"carl@mac", std::nullopt};
  const bool status[] = {false, false, true, true, false, true};
  const std::u16string plain[] = {u"Bob Stone: hi example and x\n", u"Anna Lee: look \uFFFC\n",
                                  u": buddy1 went away\n",          u"",
                                  u"carl: lol  lol\nlol\n",         u": plain words\n"};
  for (size_t i = 0; i < m.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(m[i]->Speaker(), speakers[i]);
    EXPECT_EQ(m[i]->rawSpeaker(), raw[i]);
    EXPECT_EQ(m[i]->TimeStamp(), At(100.0 * double(i + 1)));
    EXPECT_EQ(m[i]->isStatusMessage(), status[i]);
    EXPECT_EQ(m[i]->PlainString(), plain[i]);
  }
  EXPECT_EQ(m[0]->mystery, 70000u);
  EXPECT_EQ(m[3]->mystery, 0xFFFFFFFFu);
  EXPECT_TRUE(As<Color>(m[2]->string->AttributeAt(0, kColorAttribute)));
  EXPECT_EQ(m[0]->speaker->Protocol(), u"AIM");
  // One archived participant is one object, wherever it appears.
  EXPECT_EQ(m[0]->speaker, m[3]->speaker);
  EXPECT_EQ(m[0]->speaker, log->Participants()[0]);

  auto links = m[0]->allURLs();
  ASSERT_TRUE(links);
  EXPECT_EQ(links->speaker, u"Bob Stone");
  EXPECT_EQ(links->time, At(100));
  EXPECT_EQ(links->urls,
            (std::vector<std::u16string>{u"http://example.org/", u"http://s.example/"}));
  EXPECT_FALSE(m[2]->allURLs());

  auto images = m[1]->allImages();
  ASSERT_TRUE(images);
  ASSERT_EQ(images->images.size(), 1u);
  EXPECT_EQ(images->images[0]->preferredFilename, u"a.png");
  EXPECT_EQ(images->images[0]->contents, "PNGDATA");
  EXPECT_TRUE(m[0]->allImages()->images.empty());

  auto rich = m[1]->LoggedString();
  EXPECT_EQ(rich.text, u"Anna Lee: look \uFFFC\n\n");
  auto font = As<Font>(rich.AttributeAt(10, kFontAttribute));
  ASSERT_TRUE(font);
  EXPECT_EQ(font->name, u"Helvetica");
  EXPECT_TRUE(As<Color>(rich.AttributeAt(10, kColorAttribute)));
}

struct NameCase {
  const char* label;
  std::string fileName;  // "$" stands for the extension of the format
  std::optional<std::u16string> party;
};

TEST_P(ChatLogFile, PartyFromTheFileName) {
  const NameCase cases[] = {
      {"date and time", "Anna on 2005-03-01 at 10.15.$", u"Anna"},
      {"last on counts", "Bob on Tuesday on 2005-03-01.$", u"Bob on Tuesday"},
      {"empty party", " on 2005.$", u""},
      {"no on", "notes.$", std::nullopt},
      {"on without spaces", "Anna_on_2005.$", std::nullopt},
      {"upper case extension", "Anna on 2005.CHAT", std::nullopt},
      {"other extension", "Anna on 2005.txt", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    std::string name = c.fileName;
    if (size_t d = name.find('$'); d != std::string::npos) name.replace(d, 1, GetParam().extension);
    auto log = ICLPChatLog::InitWithFilePath(Write(name, Sample()));
    ASSERT_EQ(bool(log), bool(c.party));
    if (log) {
      EXPECT_EQ(log->firstOtherPartyName(), *c.party);
    }
  }
}

TEST_P(ChatLogFile, TruncatedArchivesYieldNothing) {
  std::string bytes = fx::WriteTranscript(Sample(), GetParam().format);
  for (size_t keep : {size_t(0), bytes.size() / 2, bytes.size() - 1}) {
    SCOPED_TRACE(keep);
    home_.Write(std::string("Bob on 2005.") + GetParam().extension, bytes.substr(0, keep));
    std::string why;
    EXPECT_FALSE(
        ICLPChatLog::InitWithFilePath(home_.path() + "/Bob on 2005." + GetParam().extension, &why));
    EXPECT_NE(why, "");
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, ChatLogFile, ::testing::ValuesIn(kFormats),
                         [](const auto& info) { return std::string(info.param.label); });

// The extension alone picks the decoder; a file plainly of the other kind,
// empty or of neither kind says so, and what its name should end in.
TEST(ChatLogFile, ExtensionChoosesTheDecoderNotTheContents) {
  struct Case {
    const char* name;
    std::string bytes;
    const char* why;
  };
  const Case cases[] = {
      {"Anna on 2005.ichat", fx::WriteTranscript(Sample(), fx::Format::kTypedstreamBigEndian),
       "this is an iChat 2 transcript (a typedstream); its name must end in .chat, not .ichat"},
      {"Anna on 2005.ichat", fx::WriteTranscript(Sample(), fx::Format::kTypedstreamLittleEndian),
       "this is an iChat 2 transcript"},
      {"Anna on 2005.chat", fx::WriteTranscript(Sample(), fx::Format::kKeyed),
       "this is an iChat 3 transcript (a binary property list); its name must end in .ichat, "
       "not .chat"},
      {"Anna on 2005.chat", "", "the file is empty"},
      {"Anna on 2005.ichat", "", "the file is empty"},
      {"Anna on 2005.ichat", "<?xml version=\"1.0\"?>", "not an iChat transcript"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    testing::TempHome home;
    home.Write(c.name, c.bytes);
    std::string why;
    EXPECT_FALSE(ICLPChatLog::InitWithFilePath(home.path() + "/" + c.name, &why));
    EXPECT_EQ(why.rfind(c.why, 0), 0u) << why;
  }
}

// An unpaired surrogate in a message loads: the text keeps its UTF-16 units,
// so the attribute runs still cover it, and prints as "?".
TEST(ChatLogFile, UnpairedSurrogateInMessageText) {
  fx::Transcript t;
  fx::Speaker bob{u"AIM", u"buddy1"};
  t.participants = {bob};
  t.messages.push_back(
      {bob, Date{100}, {fx::TextRun(u"a\u00E9"), LinkRun(u"b", u"http://example.org/", true)}});
  // The writer stores non-ASCII text as UTF-16: é becomes a lone high surrogate.
  std::string bytes = fx::WriteTranscript(t, fx::Format::kKeyed);
  size_t at = bytes.find(std::string("\x63\x00\x61\x00\xE9\x00\x62", 7));
  ASSERT_NE(at, std::string::npos);
  bytes.replace(at + 3, 2, std::string("\xD8\x00", 2));
  ICLPChatLog log;
  ASSERT_TRUE(log.LoadiChat3Data(bytes)) << log.loadError();
  ASSERT_EQ(log.Messages().size(), 1u);
  EXPECT_EQ(log.Messages()[0]->string->text, std::u16string(u"a\xD800") + u"b");
  EXPECT_NE(ToUtf8(log.Messages()[0]->PlainString()).find("a?b"), std::string::npos)
      << ToUtf8(log.Messages()[0]->PlainString());
}

// Roots of the wrong shape, archived as NSArchiver would.
TEST(ChatLogFile, RootOfTheWrongShapeYieldsNothing) {
  testing::TempHome home;
  auto str = [](std::u16string s) { return std::make_shared<String>(std::move(s)); };
  auto array = [](std::vector<ObjectPtr> items) {
    auto a = std::make_shared<Array>();
    a->items = std::move(items);
    return a;
  };
  struct Case {
    const char* label;
    ObjectPtr root;
    const char* reason;
  } cases[] = {
      {"not an array", str(u"AIM"), "not an array"},
      {"three elements", array({str(u"AIM"), str(u""), array({})}), "fewer than 4"},
      {"messages not an array", array({str(u"AIM"), str(u""), str(u"x"), array({})}), "element 2"},
      {"participants not an array", array({str(u"AIM"), str(u""), array({}), Number::Integer(1)}),
       "element 3"},
      {"message of another class", array({str(u"AIM"), str(u""), array({str(u"m")}), array({})}),
       "message 0"},
      {"participant of another class",
       array({str(u"AIM"), str(u""), array({}), array({Number::Integer(2)})}), "participant 0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    ICLPChatLog log;
    EXPECT_FALSE(log.LoadiChat2Data(fx::WriteTypedstreamObject(c.root, true)));
    EXPECT_NE(log.loadError().find(c.reason), std::string::npos) << log.loadError();
    EXPECT_TRUE(log.Messages().empty());
    EXPECT_FALSE(log.loadedArray());
  }
  // Four elements with empty lists is a transcript with nothing said.
  ICLPChatLog empty;
  EXPECT_TRUE(empty.LoadiChat2Data(
      fx::WriteTypedstreamObject(array({str(u"AIM"), str(u""), array({}), array({})}), false)));
  EXPECT_EQ(empty.NumberOfSpeakers(), 1);
  EXPECT_EQ(empty.loadError(), "");
}

}  // namespace
}  // namespace gab
