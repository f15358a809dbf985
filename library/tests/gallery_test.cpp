#include <gtest/gtest.h>
#include <unistd.h>

#include "library/log_generator.h"
#include "library/tests/store_pages.h"

namespace gab {
namespace {

using testing::ExpectGolden;
using testing::ImageRec;
using testing::ImageStoreXml;
using testing::LibraryHome;
using testing::Speakers;
using testing::TestTemplate;

struct GalleryCase {
  const char* name;
  Speakers<ImageRec> store;
  std::vector<std::pair<std::string, std::string>> pages;
};

// GoogleTest names a case by this instead of dumping the struct's bytes.
void PrintTo(const GalleryCase& c, std::ostream* os) {
  *os << c.name;
}

class GalleryGolden : public ::testing::TestWithParam<GalleryCase> {};

TEST_P(GalleryGolden, RebuildsEveryPageFromTheStore) {
  const GalleryCase& c = GetParam();
  LibraryHome home;
  home.Put("imagetemplate.html", TestTemplate("____IMAGES"));
  std::string store = ImageStoreXml(c.store);
  home.Put("gatheredImages.plist", store);
  GenerateImageFiles(nullptr);
  for (const auto& [page, golden] : c.pages) ExpectGolden(home.Get(page), golden);
  EXPECT_EQ(home.Get("gatheredImages.plist"), store);
}

INSTANTIATE_TEST_SUITE_P(
    Stores, GalleryGolden,
    ::testing::Values(
        // Ann: six March cells (row break after the fifth; a PDF, a "PDF" that
        // is not one, a square, a landscape and a portrait image), then one in
        // February.  Bob: March 2005 and then March 2004, which shares the
        // March 2005 table because only the month number is compared.
        GalleryCase{"rows_and_months",
                    {{"Ann",
                      {{"2005-03-09T12:00:00Z", "Images/doc-Ann-T.pdf", 0, 0},
                       {"2005-03-08T12:00:00Z", "Images/scan-Ann-T.PDF", 600, 800},
                       {"2005-03-07T12:00:00Z", "Images/sq-Ann-T.png", 90, 90},
                       {"2005-03-06T12:00:00Z", "Images/wide-Ann-T.jpg", 640, 480},
                       {"2005-03-05T12:00:00Z", "Images/tall-Ann-T.jpg", 480, 640},
                       {"2005-03-04T12:00:00Z", "Images/Ann-T.image", 10, 5},
                       {"2005-02-04T12:00:00Z", "Images/feb-Ann-T.gif", 1, 1}}},
                     {"Bob",
                      {{"2005-03-20T12:00:00Z", "Images/b1-Bob-T.png", 5, 10},
                       {"2004-03-20T12:00:00Z", "Images/b0-Bob-T.png", 50, 10}}}},
                    {{"Ann-images.html", "gallery_rows_Ann.html"},
                     {"Bob-images.html", "gallery_rows_Bob.html"},
                     {"Images.html", "gallery_rows_All.html"}}},
        // Without a transcript the gallery uses the store's order as it is:
        // January, March, February become three sections in that order.
        GalleryCase{"store_order_kept",
                    {{"Ann",
                      {{"2005-01-05T17:00:00Z", "Images/jan-Ann-T.png", 2, 1},
                       {"2005-03-05T17:00:00Z", "Images/mar-Ann-T.png", 2, 1},
                       {"2005-02-05T17:00:00Z", "Images/feb-Ann-T.png", 2, 1}}}},
                    {{"Ann-images.html", "gallery_unsorted_Ann.html"},
                     {"Images.html", "gallery_unsorted_All.html"}}},
        // Exactly five cells: the row break, then the closing.
        GalleryCase{"five_cells",
                    {{"Cy",
                      {{"2005-03-05T17:00:00Z", "Images/1.png", 2, 1},
                       {"2005-03-04T17:00:00Z", "Images/2.png", 2, 1},
                       {"2005-03-03T17:00:00Z", "Images/3.png", 2, 1},
                       {"2005-03-02T17:00:00Z", "Images/4.png", 2, 1},
                       {"2005-03-01T17:00:00Z", "Images/5.png", 2, 1}}}},
                    {{"Images.html", "gallery_five_All.html"}}}),
    [](const auto& info) { return std::string(info.param.name); });

std::vector<std::string> TopImages(const LibraryHome& home) {
  std::vector<std::string> out;
  for (const auto& f : home.AllFiles()) {
    const std::string prefix = "Library/Gabfolio/Images/topimages/";
    if (f.rfind(prefix, 0) == 0)
      out.push_back(f.substr(prefix.size()) + "=" + *home.Get(f.substr(17)));
  }
  return out;
}

TEST(Gallery, NewestImagesAreTheThreeNewestNumberedFromTheOldest) {
  struct {
    const char* name;
    Speakers<ImageRec> store;
    std::vector<std::string> expected;  // file=contents
  } cases[] = {
      {"five images over two speakers",
       {{"Ann",
         {{"2005-03-09T00:00:00Z", "Images/a9.png", 1, 1},
          {"2005-03-05T00:00:00Z", "Images/a5.jpg", 1, 1},
          {"2005-03-01T00:00:00Z", "Images/a1.png", 1, 1}}},
        {"Bob",
         {{"2005-03-07T00:00:00Z", "Images/b7.pdf", 1, 1},
          {"2005-03-03T00:00:00Z", "Images/b3", 1, 1}}}},
       {"01.jpg=a5.jpg", "02.pdf=b7.pdf", "03.png=a9.png"}},
      {"fewer than three",
       {{"Ann",
         {{"2005-03-09T00:00:00Z", "Images/a9.png", 1, 1},
          {"2005-03-05T00:00:00Z", "Images/a5.jpg", 1, 1}}}},
       {"01.jpg=a5.jpg", "02.png=a9.png"}},
      {"equal dates count once, the later record wins",
       {{"Ann", {{"2005-03-09T00:00:00Z", "Images/a9.png", 1, 1}}},
        {"Bob", {{"2005-03-09T00:00:00Z", "Images/b9.gif", 1, 1}}}},
       {"01.gif=b9.gif"}},
      {"only Images/<name> is copied",
       {{"Ann",
         {{"2005-03-09T00:00:00Z", "Images/../secret.txt", 1, 1},
          {"2005-03-08T00:00:00Z", "../secret.txt", 1, 1},
          {"2005-03-07T00:00:00Z", "Images/link.png", 1, 1},
          {"2005-03-06T00:00:00Z", "Images/topimages", 1, 1}}}},
       {}},
      {"no store", {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LibraryHome home;
    home.Put("imagetemplate.html", TestTemplate("____IMAGES"));
    for (const char* f : {"a9.png", "a5.jpg", "a1.png", "b7.pdf", "b3", "b9.gif"})
      home.Put(std::string("Images/") + f, f);
    home.Put("secret.txt", "secret");
    ASSERT_EQ(
        symlink((home.data() + "/secret.txt").c_str(), (home.data() + "/Images/link.png").c_str()),
        0);
    home.Put("Images/topimages/04.png", "stale");
    if (!c.store.empty()) home.Put("gatheredImages.plist", ImageStoreXml(c.store));
    GenerateImageFiles(nullptr);
    EXPECT_EQ(TopImages(home), c.expected);
  }
}

TEST(Gallery, MissingTemplateWritesNoPageButRebuildsNewestImages) {
  LibraryHome home;
  home.Put("Images/a.png", "A");
  home.Put("gatheredImages.plist",
           ImageStoreXml({{"Ann", {{"2005-03-09T00:00:00Z", "Images/a.png", 1, 1}}}}));
  GenerateImageFiles(nullptr);
  EXPECT_FALSE(home.Has("Ann-images.html"));
  EXPECT_FALSE(home.Has("Images.html"));
  EXPECT_EQ(home.Get("Images/topimages/01.png"), "A");
}

TEST(Gallery, TopImagesLinkIsRemovedNotFollowed) {
  LibraryHome home;
  std::filesystem::create_directories(home.path() + "/elsewhere");
  std::ofstream(home.path() + "/elsewhere/keep.txt") << "keep";
  ASSERT_EQ(
      symlink((home.path() + "/elsewhere").c_str(), (home.data() + "/Images/topimages").c_str()),
      0);
  GenerateImageFiles(nullptr);
  EXPECT_EQ(ReadWholeFile(home.path() + "/elsewhere/keep.txt"), "keep");
  EXPECT_TRUE(std::filesystem::is_directory(
      std::filesystem::symlink_status(home.data() + "/Images/topimages")));
}

TEST(Gallery, UnreadableStoreGivesTheEmptyAllPage) {
  for (const char* bytes : {"", "garbage", "<plist><dict/></plist>"}) {
    SCOPED_TRACE(bytes);
    LibraryHome home;
    home.Put("imagetemplate.html", TestTemplate("____IMAGES"));
    home.Put("gatheredImages.plist", bytes);
    GenerateImageFiles(nullptr);
    EXPECT_EQ(home.Get("Images.html"),
              "<title>Images</title>\n<ul class=\"nav\"><li class=\"active\"><a "
              "href=\"Images.html\">All</a><span class=\"numb\">(0)</span></li></ul>\n"
              "</tr></table></ul>\n");
    EXPECT_EQ(home.Get("gatheredImages.plist"), bytes);
  }
}

TEST(Gallery, HostileSpeakerNamesNeverEscapeOrReplaceSuppliedFiles) {
  LibraryHome home;
  const std::string tmpl = TestTemplate("____IMAGES");
  home.Put("imagetemplate.html", tmpl);
  auto one = [](const char* f) { return std::vector<ImageRec>{{"2005-03-09T00:00:00Z", f, 1, 1}}; };
  home.Put("gatheredImages.plist", ImageStoreXml({{"../x", one("Images/1.png")},
                                                  {"a/b", one("Images/2.png")},
                                                  {"image", one("Images/3.png")},
                                                  {"statstemplate.html", one("Images/4.png")}}));
  GenerateImageFiles(nullptr);
  EXPECT_EQ(home.Get("imagetemplate.html"), tmpl)
      << "\"image\" + \"template.html\" is not our name";
  std::vector<std::string> expected = {
      "Library/Gabfolio/Images.html",
      "Library/Gabfolio/gatheredImages.plist",
      "Library/Gabfolio/image-images.html",
      "Library/Gabfolio/imagetemplate.html",
      "Library/Gabfolio/statstemplate.html-images.html",
  };
  EXPECT_EQ(home.AllFiles(), expected);
}

}  // namespace
}  // namespace gab
