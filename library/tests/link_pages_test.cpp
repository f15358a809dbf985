#include <gtest/gtest.h>

#include "library/log_generator.h"
#include "library/tests/store_pages.h"
#include "transcript/chat_log.h"

namespace gab {
namespace {

using testing::ExpectGolden;
using testing::LibraryHome;
using testing::LinkRec;
using testing::LinkStoreXml;
using testing::Speakers;
using testing::TestTemplate;

constexpr const char* k41 = "http://example.com/a/very/long/path/x.htm";  // 41 units
constexpr const char* k40 = "http://example.com/a/very/long/path/x.ht";   // 40 units

struct PagesCase {
  const char* name;
  Speakers<LinkRec> store;
  // page file in the data folder -> golden file
  std::vector<std::pair<std::string, std::string>> pages;
};

// GoogleTest names a case by this instead of dumping the struct's bytes.
void PrintTo(const PagesCase& c, std::ostream* os) {
  *os << c.name;
}

class LinkPagesGolden : public ::testing::TestWithParam<PagesCase> {};

TEST_P(LinkPagesGolden, RebuildsEveryPageFromTheStore) {
  const PagesCase& c = GetParam();
  LibraryHome home;
  home.Put("linktemplate.html", TestTemplate("____LINKS"));
  std::string store = LinkStoreXml(c.store);
  home.Put("gatheredURLs.plist", store);
  GenerateLinkFiles(nullptr);
  for (const auto& [page, golden] : c.pages) ExpectGolden(home.Get(page), golden);
  EXPECT_EQ(home.Get("gatheredURLs.plist"), store) << "a rebuild must not touch the store";
}

INSTANTIATE_TEST_SUITE_P(Stores, LinkPagesGolden,
                         ::testing::Values(
                             // Two months for Ann (the first section closed, the last one open),
                             // one for Bob; on the All page March holds Ann's links, then Bob's.
                             PagesCase{
                                 "two_speakers_two_months",
                                 {{"Ann",
                                   {{"2005-03-08T20:07:42Z", k41},
                                    {"2005-03-01T14:00:00Z", k40},
                                    {"2005-02-27T03:30:00Z", "http://b.org/"}}},
                                  {"Bob", {{"2005-03-20T12:00:00Z", "https://c.net/?q=1&r=2"}}}},
                                 {{"Ann.html", "links_two_months_Ann.html"},
                                  {"Bob.html", "links_two_months_Bob.html"},
                                  {"Links.html", "links_two_months_All.html"}}},
                             // March 2005 followed by March 2004: one section, headed March 2005;
                             // the All page keeps the 2004 link under March 2005 too.
                             PagesCase{"same_month_number_other_year",
                                       {{"Ann",
                                         {{"2005-03-08T20:07:42Z", "http://new.example/"},
                                          {"2004-03-02T20:07:42Z", "http://old.example/"}}}},
                                       {{"Ann.html", "links_month_number_Ann.html"},
                                        {"Links.html", "links_month_number_All.html"}}},
                             // Out of date order in the file: the pages show newest first.
                             PagesCase{"out_of_order_store",
                                       {{"Ann",
                                         {{"2005-01-05T17:00:00Z", "http://jan.example/"},
                                          {"2005-03-05T17:00:00Z", "http://mar.example/"},
                                          {"2005-02-05T17:00:00Z", "http://feb.example/"}}}},
                                       {{"Ann.html", "links_sorted_Ann.html"},
                                        {"Links.html", "links_sorted_All.html"}}}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(LinkPages, CompressedLinkKeepsFortyUnitsAndCutsLongerOnes) {
  struct {
    std::u16string in, out;
  } cases[] = {
      {u"", u""},
      {u"http://example.com/a/very/long/path/x.ht", u"http://example.com/a/very/long/path/x.ht"},
      {u"http://example.com/a/very/long/path/x.htm",
       u"http://example.com/a . . . very/long/path/x.htm"},
      // UTF-16 units are counted, so a surrogate pair is two.
      {std::u16string(19, u'a') + u"\U0001F600" + std::u16string(30, u'b'),
       std::u16string(19, u'a') + u"\xD83D . . . " + std::u16string(20, u'b')},
  };
  for (const auto& c : cases) {
    auto got = CompressedLinkForList(c.in);
    EXPECT_EQ(got, c.out);
    if (c.in.size() > 40) {
      EXPECT_EQ(got.size(), 47u);
    }
  }
}

TEST(LinkPages, FunkyEscapingKeepsOnlyLettersAndDigits) {
  struct {
    std::u16string in, out;
  } cases[] = {
      {u"bob smith", u"bob%20smith"},
      {u"x-y_z@q", u"x%2Dy%5Fz%40q"},
      {u"\u00e9", u"%E9"},
      {u"%", u"%25"},
      // Above 0xFF the first digit comes from the whole shifted value:
      // 0x3A9 >> 4 = 0x3A, + '0' = 0x6A, + 7 = 0x71 ('q').
      {u"\u03a9", u"%q9"},
      // 0x20AC >> 4 = 0x20A, + '0' + 7 = 0x241.
      {u"\u20ac", u"%\u0241C"},
  };
  for (const auto& c : cases) EXPECT_EQ(stringWithFunkyURLStuffInserted(c.in), c.out);
}

TEST(LinkPages, HostileSpeakerNamesNeverEscapeOrReplaceSuppliedFiles) {
  LibraryHome home;
  const std::string tmpl = TestTemplate("____LINKS");
  home.Put("linktemplate.html", tmpl);
  home.Put("imagetemplate.html", "keep me");
  std::string store = LinkStoreXml({{"../x", {{"2005-03-08T20:07:42Z", "http://1/"}}},
                                    {"a/b", {{"2005-03-08T20:07:42Z", "http://2/"}}},
                                    {"linktemplate", {{"2005-03-08T20:07:42Z", "http://3/"}}},
                                    {"imagetemplate", {{"2005-03-08T20:07:42Z", "http://4/"}}},
                                    {"gatheredURLs.plist", {{"2005-03-08T20:07:42Z", "http://5/"}}},
                                    {"bob smith", {{"2005-03-08T20:07:42Z", "http://6/"}}},
                                    {"..", {{"2005-03-08T20:07:42Z", "http://7/"}}}});
  home.Put("gatheredURLs.plist", store);
  GenerateLinkFiles(nullptr);
  EXPECT_EQ(home.Get("linktemplate.html"), tmpl);
  EXPECT_EQ(home.Get("imagetemplate.html"), "keep me");
  EXPECT_EQ(home.Get("gatheredURLs.plist"), store);
  std::vector<std::string> expected = {
      "Library/Gabfolio/...html",  // ".." + ".html" is an ordinary name
      "Library/Gabfolio/Links.html",
      "Library/Gabfolio/bob smith.html",
      "Library/Gabfolio/gatheredURLs.plist",
      "Library/Gabfolio/gatheredURLs.plist.html",
      "Library/Gabfolio/imagetemplate.html",
      "Library/Gabfolio/linktemplate.html",
  };
  EXPECT_EQ(home.AllFiles(), expected);
  // Every speaker is still listed, with its escaped href.
  auto all = home.Get("Links.html");
  ASSERT_TRUE(all);
  EXPECT_NE(
      all->find("<li><a href=\"%2E%2E%2Fx.html\">../x</a><span class=\"numb\">(1)</span></li>"),
      std::string::npos);
  EXPECT_NE(all->find("href=\"a%2Fb.html\""), std::string::npos);
}

TEST(LinkPages, UnparsableOrMissingStoreWithoutTranscript) {
  for (bool present : {false, true}) {
    SCOPED_TRACE(present ? "unparsable store" : "missing store");
    LibraryHome home;
    home.Put("linktemplate.html", TestTemplate("____LINKS"));
    if (present) home.Put("gatheredURLs.plist", "<plist><array><dict>");
    GenerateLinkFiles(nullptr);
    EXPECT_EQ(home.Get("Links.html"),
              "<title>Links</title>\n<ul class=\"nav\"><li class=\"active\"><a "
              "href=\"Links.html\">All</a><span class=\"numb\">(0)</span></li></ul>\n</ul>\n");
    if (present) {
      EXPECT_EQ(home.Get("gatheredURLs.plist"), "<plist><array><dict>");
    }
  }
}

TEST(LinkPages, MissingTemplateWritesNoPageAndReportsNothing) {
  LibraryHome home;
  home.Put("gatheredURLs.plist", LinkStoreXml({{"Ann", {{"2005-03-08T20:07:42Z", "http://a/"}}}}));
  ::testing::internal::CaptureStderr();
  GenerateLinkFiles(nullptr);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_FALSE(home.Has("Ann.html"));
  EXPECT_FALSE(home.Has("Links.html"));
}

TEST(LinkPages, ReplacesEveryPlaceholderOccurrenceInOrderWithoutEscaping) {
  LibraryHome home;
  home.Put("linktemplate.html", "____NAME|____NAME|____name|____CONTENTS|____LINKS|____LINKS");
  home.Put("gatheredURLs.plist",
           LinkStoreXml({{"<i>____LINKS", {{"2005-03-08T20:07:42Z", "http://a/?x=<"}}}}));
  GenerateLinkFiles(nullptr);
  auto page = home.Get("<i>____LINKS.html");
  ASSERT_TRUE(page);
  // The name goes in first, so the placeholder inside it is replaced by the
  // sections; the link items (inserted last) keep the name as it is.
  EXPECT_EQ(page->substr(0, 23), "<i>\n<h3>March 2005</h3>");
  EXPECT_NE(page->find("|____name|"), std::string::npos);
  EXPECT_NE(page->find("<a href=\"http://a/?x=<\" target=\"_blank\">http://a/?x=<</a> -- <i>"),
            std::string::npos);
}

class LinkStoreSave : public ::testing::Test {
 protected:
  LibraryHome home;
  std::unique_ptr<ICLPChatLog> empty = ICLPChatLog::FromParts(u"Ann", {});
};

TEST_F(LinkStoreSave, FailedWriteIsReportedAsPermissions) {
  home.Put("linktemplate.html", TestTemplate("____LINKS"));
  // A folder where the store should be: reading finds no store, and the
  // atomic rename over it fails (even for root).
  std::filesystem::create_directory(home.data() + "/gatheredURLs.plist");
  ::testing::internal::CaptureStderr();
  GenerateLinkFiles(empty.get());
  std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Link file failed to write to path: "), std::string::npos) << log;
}

TEST_F(LinkStoreSave, TranscriptRewritesTheStoreSortedAndBuildsPages) {
  home.Put("linktemplate.html", TestTemplate("____LINKS"));
  home.Put("gatheredURLs.plist", LinkStoreXml({{"Ann",
                                                {{"2005-01-05T17:00:00Z", "http://jan/"},
                                                 {"2005-03-05T17:00:00Z", "http://mar/"}}}}));
  GenerateLinkFiles(empty.get());
  auto store = home.Get("gatheredURLs.plist");
  ASSERT_TRUE(store);
  EXPECT_LT(store->find("http://mar/"), store->find("http://jan/"));
  EXPECT_TRUE(home.Has("Ann.html"));
  EXPECT_TRUE(home.Has("Links.html"));
}

}  // namespace
}  // namespace gab
