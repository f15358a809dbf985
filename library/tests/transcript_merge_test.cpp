// The transcript side: gathering, the merges into both stores, and the text
// logs, with transcripts built in memory.
#include <gtest/gtest.h>

#include "library/gathering.h"
#include "library/log_generator.h"
#include "library/tests/store_pages.h"
#include "platform/image_size.h"
#include "platform/preferences.h"
#include "platform/text.h"
#include "testing/images.h"
#include "testing/run_process.h"
#include "testing/transcripts.h"

namespace gab {
namespace {

using testing::CountOf;
using testing::EncodedImage;
using testing::ExpectGolden;
using testing::FileNamed;
using testing::LibraryHome;
using testing::LinkString;
using testing::March8;
using testing::Said;
using testing::TestTemplate;

std::unique_ptr<ICLPChatLog> LinkChat() {
  auto url = std::make_shared<URL>();
  url->relative = u"http://example.org/page?x=1";
  return ICLPChatLog::FromParts(
      u"Bob",
      {Said(u"Ann", March8(),
            {{u"see "}, {u"this", LinkString(u"http://a.example/")}, {u" and "}, {u"that", url}}),
       Said(u"", March8(1), {{u"Bob went away"}}),  // status line
       Said(u"Bob", March8(2), {{u"no links here"}}),
       Said(u"Bob", March8(-60 * 24 * 10), {{u"old", LinkString(u"http://feb.example/")}}),
       Said(u"Bob", March8(3), {{u"ok", LinkString(u"http://b.example/")}})});
}

TEST(Gathering, OneEntryPerNonStatusMessageInOrder) {
  auto chat = LinkChat();
  auto links = GatheredURLs(*chat);
  ASSERT_EQ(links.size(), 4u);
  EXPECT_EQ(links[0].speaker, u"Ann");
  EXPECT_EQ(links[0].urls,
            (std::vector<std::u16string>{u"http://a.example/", u"http://example.org/page?x=1"}));
  EXPECT_EQ(links[1].speaker, u"Bob");
  EXPECT_TRUE(links[1].urls.empty());
  EXPECT_EQ(GatheredImages(*chat).size(), 4u);
  EXPECT_TRUE(
      GatheredURLs(*ICLPChatLog::FromParts(u"Bob", {Said(u"", March8(), {{u"x"}})})).empty());
}

TEST(TranscriptMerge, LinksGoIntoTheStoreSortedAndOntoThePages) {
  LibraryHome home;
  home.Put("linktemplate.html", TestTemplate("____LINKS"));
  auto chat = LinkChat();
  GenerateLinkFiles(chat.get());
  ExpectGolden(home.Get("gatheredURLs.plist"), "merge_links_store.plist");
  ExpectGolden(home.Get("Bob.html"), "merge_links_Bob.html");
  ExpectGolden(home.Get("Links.html"), "merge_links_All.html");
  // Merging the same chat again stores every link twice.
  GenerateLinkFiles(chat.get());
  EXPECT_EQ(CountOf(home.Get("gatheredURLs.plist").value_or(""), "<key>linkurl</key>"), 8);
}

// A NUL inside a name would end it in the store and merge two people into
// one; it is kept apart as U+FFFD, and found again on the next merge.
TEST(TranscriptMerge, NamesWithNulStayDistinct) {
  LibraryHome home;
  home.Put("linktemplate.html", TestTemplate("____LINKS"));
  const std::u16string nul(u"nul\0name", 8);
  for (int round = 0; round < 2; ++round)
    GenerateLinkFiles(
        ICLPChatLog::FromParts(u"x", {Said(nul, March8(), {{u"a", LinkString(u"http://a/")}}),
                                      Said(u"nul", March8(), {{u"b", LinkString(u"http://b/")}})})
            .get());
  auto store = home.Get("gatheredURLs.plist");
  ASSERT_TRUE(store);
  EXPECT_NE(store->find("<string>nul\xEF\xBF\xBDname</string>"), std::string::npos) << *store;
  EXPECT_EQ(CountOf(*store, "<key>speaker</key>"), 2) << *store;
  EXPECT_EQ(CountOf(*store, "<key>linkurl</key>"), 4) << *store;
}

// A store that does not parse, or is not a list, is reported and kept.
TEST(TranscriptMerge, UnreadableLinkStoreIsReportedAndKept) {
  for (const char* bad :
       {"<?xml version=\"1.0\"?><plist><array><dict>", "<plist><dict/></plist>"}) {
    SCOPED_TRACE(bad);
    Preferences::Shared().SetAppValue("reportThis", std::nullopt);
    LibraryHome home;
    home.Put("linktemplate.html", TestTemplate("____LINKS"));
    home.Put("gatheredURLs.plist", bad);
    ::testing::internal::CaptureStderr();
    GenerateLinkFiles(LinkChat().get());
    std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Link file failed to write to path: " + home.data() + "/gatheredURLs.plist"),
              std::string::npos);
    EXPECT_EQ(Preferences::Shared().String("reportThis"), "permissions");
    EXPECT_EQ(home.Get("gatheredURLs.plist"), bad);
    EXPECT_FALSE(home.Has("Bob.html"));
  }
}

std::unique_ptr<ICLPChatLog> ImageChat() {
  auto dir = FileNamed(u"folder.d", "", /*regular=*/false);
  return ICLPChatLog::FromParts(
      u"Bob",
      {Said(u"Ann", March8(),
            {{u"look"}, {u"\uFFFC", nullptr, FileNamed(u"photo.jpg", EncodedImage(64, 48))}}),
       Said(u"Bob", March8(1),
            {{u"\uFFFC", nullptr, FileNamed(std::nullopt, EncodedImage(30, 70))},
             {u"\uFFFC", nullptr, dir},  // not a file: keeps the size before it
             {u"\uFFFC", nullptr, FileNamed(u"notes.pdf", "not really a pdf")}}),
       Said(u"Bob", March8(2),
            {{u"\uFFFC", nullptr, FileNamed(u"../../escape.png", EncodedImage(8, 8))},
             {u"\uFFFC", nullptr, FileNamed(u"x.png", EncodedImage(8, 8))}}),
       Said(u"a/b", March8(3), {{u"\uFFFC", nullptr, FileNamed(u"y.png", EncodedImage(8, 8))}})});
}

TEST(TranscriptMerge, ImagesAreStoredNamedAndMeasured) {
  LibraryHome home;
  home.Put("imagetemplate.html", TestTemplate("____IMAGES"));
  auto chat = ImageChat();
  GenerateImageFiles(chat.get());
  ExpectGolden(home.Get("gatheredImages.plist"), "merge_images_store.plist");
  ExpectGolden(home.Get("Images.html"), "merge_images_All.html");
  EXPECT_EQ(home.Get("Images/photo-Ann-2005-03-08 15:07:42 -0500.jpg"), EncodedImage(64, 48));
  EXPECT_TRUE(home.Has("Images/Bob-2005-03-08 15:08:42 -0500.image"));
  EXPECT_TRUE(home.Has("Images/notes-Bob-2005-03-08 15:08:42 -0500.pdf"));
  EXPECT_FALSE(home.Has("Images/folder-Bob-2005-03-08 15:08:42 -0500.d"));
  // Newest three: notes.pdf (the last of three equal dates), x.png (after
  // the refused escape.png of the same date) and the image of "a/b", whose
  // stored name is not one component and so is not copied.
  EXPECT_EQ(home.Get("Images/topimages/01.pdf"), "not really a pdf");
  EXPECT_EQ(home.Get("Images/topimages/02.png"), EncodedImage(8, 8));
  EXPECT_FALSE(home.Has("Images/topimages/03.png"));
  // No name from the chat reaches outside the data folder.
  for (const auto& f : home.AllFiles()) EXPECT_EQ(f.rfind("Library/Gabfolio/", 0), 0u) << f;
  EXPECT_FALSE(home.Has("a"));
}

TEST(TextLogs, LinesFollowTheFormatsAndImagesAreCopied) {
  LibraryHome home;
  auto& prefs = Preferences::Shared();
  prefs.SetAppValue("bookmarkEntry",
                    PrefValue(std::string("<a href=\"%1$@\">%2$@</a> %3$@ %4$@ %s%%\n")));
  prefs.SetAppValue("imageEntry", PrefValue(std::string("%@ from %@ at %@\n")));
  home.Put("links.txt", "before\n");
  home.Put("images.txt", "");
  auto links = LinkChat();
  ExtendURLLog(*links, home.data() + "/./links.txt");  // any spelling of the folder
  EXPECT_EQ(
      home.Get("links.txt"),
      "before\n"
      "<a href=\"http://a.example/\">http://a.example/</a> Ann Tue March 8, 03:07PM %s%\n"
      "<a href=\"http://example.org/page?x=1\">http://example.org/page?x=1</a> Ann Tue March 8, "
      "03:07PM %s%\n"
      "<a href=\"http://feb.example/\">http://feb.example/</a> Bob Sat February 26, 03:07PM %s%\n"
      "<a href=\"http://b.example/\">http://b.example/</a> Bob Tue March 8, 03:10PM %s%\n");
  auto images = ImageChat();
  ExtendImageLog(*images, home.data() + "/images.txt");
  auto text = home.Get("images.txt");
  ASSERT_TRUE(text);
  EXPECT_EQ(text->substr(0, text->find('\n') + 1),
            "photo-Ann-TueMar80307PM.jpg from Ann at Tue March 8, 03:07PM\n");
  EXPECT_TRUE(home.Has("Images/photo-Ann-TueMar80307PM.jpg"));
  EXPECT_TRUE(home.Has("Images/Bob-TueMar80308PM.image"));
  for (const auto& f : home.AllFiles()) EXPECT_EQ(f.rfind("Library/Gabfolio/", 0), 0u) << f;
}

TEST(TextLogs, MissingLogOrFormatAddsNothingButImagesAreStillCopied) {
  LibraryHome home;
  auto& prefs = Preferences::Shared();
  prefs.SetAppValue("bookmarkEntry", std::nullopt);
  prefs.SetAppValue("imageEntry", PrefValue(std::string("%@\n")));
  home.Put("links.txt", "kept\n");
  ExtendURLLog(*LinkChat(), home.data() + "/links.txt");
  EXPECT_EQ(home.Get("links.txt"), "kept\n");
  ExtendImageLog(*ImageChat(), home.data() + "/absent.txt");
  EXPECT_FALSE(home.Has("absent.txt"));
  EXPECT_TRUE(home.Has("Images/photo-Ann-TueMar80307PM.jpg"));
  // A log outside the data folder is not touched.
  std::ofstream(home.path() + "/outside.txt") << "x";
  prefs.SetAppValue("bookmarkEntry", PrefValue(std::string("%@\n")));
  ExtendURLLog(*LinkChat(), home.path() + "/outside.txt");
  EXPECT_EQ(ReadWholeFile(home.path() + "/outside.txt"), "x");
}

}  // namespace
}  // namespace gab
