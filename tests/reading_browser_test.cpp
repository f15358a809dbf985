// Reading and searching the archive as a user does: the demo transcripts and
// generated ones served by `gabfolio view`, searched and read in headless
// Chromium (tests/browser/check_reading.py does the browsing).
#include <gtest/gtest.h>
#include <unistd.h>

#include "testing/run_process.h"
#include "testing/temp_home.h"
#include "tests/fixtures/chats.h"

namespace gab::product {
namespace {

using namespace testing;

TEST(ReadingInBrowser, SearchFindsAndLandsOnTheMessage) {
  if (access("/usr/bin/chromium", X_OK) != 0) GTEST_SKIP() << "chromium is not installed";
  TempHome home;
  ASSERT_EQ(RunProgram({kTool, "setup"}).status, 0);
  ASSERT_EQ(
      RunProgram({GABFOLIO_BINARY_DIR "/tests/gabfolio-demo-transcripts", home.path()}).status, 0);
  const std::string chats = home.transcripts();
  samples::Chat eve;
  eve.party = "Eve";
  eve.start = 1112000000;
  eve.others = {"eve"};
  eve.lines = {{"eve", "AIM", 0, "<script>window.pwned=1</script>", {}, {}},
               {"me", "AIM", 1, "<b>not bold</b> & <i>not italic</i>", {}, {}},
               {"eve",
                "AIM",
                2,
                "Gr\xC3\xBC\xC3\x9F"
                "e aus Z\xC3\xBCrich, caf\xC3\xA9?",
                {},
                {}}};
  samples::WriteChat(chats, eve);
  // A long chat: the hit is far down, so landing on it means scrolling.
  samples::Chat zoe = samples::TypicalChat("Zo\xC3\xAB", 1113000000, 400, true);
  zoe.lines[300].text = "look, the quokka smiles";
  samples::WriteChat(chats, zoe);
  for (int i = 0; i < 20; ++i)
    samples::WriteChat(chats, samples::TypicalChat("friend" + std::to_string(i % 5),
                                                   1100000000 + i * 86400.0, 30, i % 2));

  const char* shots = std::getenv("GABFOLIO_SCREENSHOTS");
  std::vector<std::string> argv = {"/usr/bin/python3",
                                   GABFOLIO_SOURCE_DIR "/tests/browser/check_reading.py", kTool,
                                   home.path()};
  if (shots) argv.insert(argv.end(), {"--screenshots", shots});
  Result r = RunProgram(argv, {}, std::nullopt, 240);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("\nOK\n"), std::string::npos) << r.out << r.err;
}

}  // namespace
}  // namespace gab::product
