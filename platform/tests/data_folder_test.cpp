#include "platform/data_folder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "platform/files.h"
#include "testing/temp_home.h"

namespace gab {
namespace {

using testing::LibraryHome;

TEST(DataFolder, NamesAreOnePlainComponent) {
  struct {
    std::string name;
    bool plain;
  } cases[] = {
      {"Ann.html", true},
      {"bob smith.html", true},
      {"...html", true},
      {"x-2005-03-08 15:07:42 -0500.image", true},
      {"", false},
      {".", false},
      {"..", false},
      {"a/b.html", false},
      {"../x.html", false},
      {std::string("a\0b", 3), false},
      {std::string(255, 'x'), true},
      {std::string(256, 'x'), false},
  };
  for (const auto& c : cases) EXPECT_EQ(IsPlainFileName(c.name), c.plain) << c.name;
}

TEST(DataFolder, WritesOnlyPlainUnprotectedNamesInside) {
  LibraryHome home;
  home.Put("linktemplate.html", "template");
  home.Put("Images/pdf.png", "icon");
  struct Case {
    const char* subfolder;
    std::string name;
    bool written;
  };
  const Case cases[] = {
      {"", "Ann.html", true},
      {"Images", "photo-Ann-T.jpg", true},
      {"Images", "pdf.png", false},
      {"Images", "topimages", false},
      {"", "../escape.html", false},
      {"", "..", false},
      {"Images", "a/b.jpg", false},
      {"..", "x.html", false},
      {"Images/topimages", "x.html", false},
  };
  std::vector<Case> all(std::begin(cases), std::end(cases));
  // The templates and stores in the data folder are never overwritten this way.
  for (const char* name :
       {"linktemplate.html", "imagetemplate.html", "statstemplate.html", "gatheredURLs.plist",
        "gatheredImages.plist", "talkpulse.plist", "curses.plist", "netspeak.plist", "pidfile",
        // a speaker named "stats", "Links" or "Images" gets no page of that name
        "stats.html", "Links.html", "Images.html"})
    all.push_back({"", name, false});
  for (const auto& c : all) {
    ::testing::internal::CaptureStderr();
    bool ok = WriteIntoDataFolder(c.subfolder, c.name, "new");
    std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(ok, c.written) << c.name;
    if (!c.written && std::string(c.subfolder).find('/') == std::string::npos &&
        std::string(c.subfolder) != "..") {
      EXPECT_NE(log, "") << "a refusal leaves one log line: " << c.name;
    }
  }
  EXPECT_EQ(home.Get("linktemplate.html"), "template");
  EXPECT_EQ(home.Get("Images/pdf.png"), "icon");
  EXPECT_EQ(home.Get("Ann.html"), "new");
  EXPECT_FALSE(FileExists(home.path() + "/Library/escape.html"));
  EXPECT_TRUE(WriteStoreIntoDataFolder("gatheredURLs.plist", "store"));
  EXPECT_FALSE(WriteStoreIntoDataFolder("linktemplate.html", "store"));
  EXPECT_TRUE(WriteLibraryPage("stats.html", "page"));
  EXPECT_FALSE(WriteLibraryPage("Ann.html", "page"));
  EXPECT_EQ(home.Get("linktemplate.html"), "template");
}

TEST(DataFolder, TopImagesCopiesOnlyStoredImages) {
  LibraryHome home;
  home.Put("Images/a.png", "A");
  home.Put("secret", "S");
  symlink((home.data() + "/secret").c_str(), (home.data() + "/Images/link.png").c_str());
  ResetTopImagesFolder();
  struct {
    std::string source, dest;
    bool copied;
  } cases[] = {
      {"Images/a.png", "01.png", true},
      {"Images/../secret", "02.", false},
      {"secret", "03.", false},
      {"Images/link.png", "04.png", false},
      {"Images/missing.png", "05.png", false},
      {"Images/a.png", "../06.png", false},
      {"Images/", "07.", false},
      {"Images/topimages", "08.", false},
  };
  for (const auto& c : cases) EXPECT_EQ(CopyIntoTopImages(c.source, c.dest), c.copied) << c.source;
  EXPECT_EQ(home.Get("Images/topimages/01.png"), "A");
  EXPECT_FALSE(home.Has("Images/06.png"));
}

TEST(DataFolder, ResetRemovesNestedContentsWithoutFollowingLinks) {
  LibraryHome home;
  home.Put("outside/keep", "K");
  home.Put("Images/topimages/01.png", "old");
  home.Put("Images/topimages/deep/er/x", "x");
  symlink((home.data() + "/outside").c_str(), (home.data() + "/Images/topimages/dirlink").c_str());
  ResetTopImagesFolder();
  EXPECT_EQ(home.Get("outside/keep"), "K");
  std::vector<std::string> left;
  for (auto& e : std::filesystem::directory_iterator(home.data() + "/Images/topimages"))
    left.push_back(e.path().string());
  EXPECT_TRUE(left.empty());
}

}  // namespace
}  // namespace gab
