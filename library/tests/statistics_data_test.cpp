// The statistics files the product ships in its data folder.
#include <gtest/gtest.h>

#include <filesystem>

#include "library/log_generator.h"
#include "library/statistics.h"
#include "library/tests/statistics_test_support.h"
#include "platform/files.h"
#include "platform/text.h"

namespace gab {
namespace {

const std::string kData = GABFOLIO_SOURCE_DIR "/data/";

TEST(StatisticsData, WordListsHoldTheCommonFormsAndCases) {
  testing::TempHome home;
  auto curses = LoadWordList(kData + "curses.plist");
  auto slang = LoadWordList(kData + "netspeak.plist");
  ASSERT_TRUE(curses.has_value());
  ASSERT_TRUE(slang.has_value());
  for (const char16_t* w : {u"damn", u"Damn", u"DAMN", u"shit", u"fucking", u"Hell", u"crap"})
    EXPECT_TRUE(curses->count(w)) << ToUtf8(w);
  for (const char16_t* w : {u"lol", u"LOL", u"Lol", u"brb", u"BRB", u"omg", u"OMG", u"ttyl",
                            u"imho", u"IMHO", u"rofl", u"btw"})
    EXPECT_TRUE(slang->count(w)) << ToUtf8(w);
  // Ordinary words must not count.
  for (const char16_t* w : {u"hello", u"the", u"hello,", u""}) {
    EXPECT_FALSE(curses->count(w)) << ToUtf8(w);
    EXPECT_FALSE(slang->count(w)) << ToUtf8(w);
  }
}

TEST(StatisticsData, ShippedTemplateFillsCompletelyAndBlocksScripts) {
  auto page = ReadWholeFile(kData + "statstemplate.html");
  ASSERT_TRUE(page.has_value());
  EXPECT_NE(
      page->find("<meta http-equiv=\"Content-Security-Policy\" content=\"script-src 'none'\">"),
      std::string::npos);
  for (const char* p : testing::kPlaceholders)
    EXPECT_NE(page->find(std::string("____") + p), std::string::npos) << p;

  testing::TempHome home;
  const std::string folder = home.path() + "/Library/Gabfolio";
  std::filesystem::create_directories(folder);
  for (const char* f : {"statstemplate.html", "curses.plist", "netspeak.plist"})
    std::filesystem::copy_file(kData + f, folder + "/" + f);
  auto chat = testing::Chat(
      u"Anna", {{u"me", u"omg hi <script>alert(1)</script>", 1e8}, {u"Anna", u"damn lol", 1e8}});
  UpdateStatistics(chat.get());
  auto out = ReadWholeFile(folder + "/stats.html");
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(out->find("____"), std::string::npos);
  // 3 of 5 words are the user's; one of the other party's 2 is a curse.
  EXPECT_NE(out->find("style=\"width: 180px\""), std::string::npos);
  EXPECT_NE(out->find("calc(300px - 180px)"), std::string::npos);
  EXPECT_NE(out->find("style=\"width: 150px\""), std::string::npos);
}

}  // namespace
}  // namespace gab
