// End to end from transcript files: the same chat archived as iChat 2
// (typedstream, both byte orders) and iChat 3 (keyed archive) is loaded and
// gathered into the same stores, pages and newest images.
#include <gtest/gtest.h>

#include "archive/testing/fixture_writer.h"
#include "library/log_generator.h"
#include "library/tests/store_pages.h"
#include "transcript/chat_log.h"

namespace gab {
namespace {

using fixtures::Format;
using testing::ExpectGolden;
using testing::LibraryHome;
using testing::TestTemplate;

fixtures::Transcript Chat() {
  fixtures::Speaker ann{u"Jabber", u"ann"}, bob{u"Jabber", u"bob smith"};
  Date t = Date::FromUnix(1110312462);  // 2005-03-08 15:07:42 in New York
  auto run = [](std::u16string text) { return fixtures::TextRun(std::move(text)); };
  auto link = [&](std::u16string text, std::u16string url, bool asURL) {
    fixtures::TextRun r(std::move(text));
    r.link = fixtures::Link(std::move(url), asURL);
    return r;
  };
  auto picture = [&](std::u16string name, std::string bytes) {
    fixtures::TextRun r(u"");
    r.attachment = fixtures::Attachment(std::move(name), std::move(bytes));
    return r;
  };
  fixtures::Transcript chat;
  chat.service = u"Jabber";
  chat.participants = {bob};
  chat.messages = {
      {ann, t, {run(u"hi, see "), link(u"this", u"http://a.example/", true)}},
      {std::nullopt, Date{t.time + 30}, {run(u"bob smith is away")}},
      {bob,
       Date{t.time + 60},
       {link(u"that", u"http://b.example/?q=1", false), run(u" and "),
        link(u"old", u"http://c.example/", true)}},
      {bob, Date{t.time + 120}, {picture(u"notes.pdf", "%PDF-1.4 not really")}},
      {ann,
       Date{t.time - 86400 * 40},
       {run(u"from January "), link(u"j", u"http://jan.example/", true)}},
  };
  return chat;
}

TEST(ArchivedTranscripts, EveryFormatGivesTheSameLibrary) {
  struct {
    const char* name;
    Format format;
    const char* extension;
  } cases[] = {{"iChat 2, big-endian", Format::kTypedstreamBigEndian, "chat"},
               {"iChat 2, little-endian", Format::kTypedstreamLittleEndian, "chat"},
               {"iChat 3", Format::kKeyed, "ichat"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LibraryHome home;
    home.Put("linktemplate.html", TestTemplate("____LINKS"));
    home.Put("imagetemplate.html", TestTemplate("____IMAGES"));
    std::string path = home.path() + "/bob smith on 2005-03-08 at 15.07." + c.extension;
    std::ofstream(path, std::ios::binary) << fixtures::WriteTranscript(Chat(), c.format);
    std::string why;
    auto chat = ICLPChatLog::InitWithFilePath(path);
    ASSERT_TRUE(chat) << "the transcript did not load";
    GenerateLinkFiles(chat.get());
    GenerateImageFiles(chat.get());
    ExpectGolden(home.Get("gatheredURLs.plist"), "archived_links_store.plist");
    ExpectGolden(home.Get("Links.html"), "archived_links_All.html");
    ExpectGolden(home.Get("bob smith.html"), "archived_links_bob.html");
    ExpectGolden(home.Get("gatheredImages.plist"), "archived_images_store.plist");
    ExpectGolden(home.Get("bob smith-images.html"), "archived_images_bob.html");
    EXPECT_EQ(home.Get("Images/notes-bob smith-2005-03-08 15:09:42 -0500.pdf"),
              "%PDF-1.4 not really");
    EXPECT_EQ(home.Get("Images/topimages/01.pdf"), "%PDF-1.4 not really");
  }
}

}  // namespace
}  // namespace gab
