#include "parser/record.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "parser/run_lock.h"
#include "platform/transcript_files.h"

namespace gab::parser {
namespace {

namespace fs = std::filesystem;

fs::path TempDir(const char* tag) {
  fs::path p =
      fs::temp_directory_path() / (std::string("parser-") + tag + "-" + std::to_string(getpid()));
  fs::remove_all(p);
  fs::create_directories(p);
  return p;
}

TEST(RecordTest, RoundTripsEveryStateAndOddNames) {
  fs::path dir = TempDir("record");
  Record r;
  r.mailRetryAfter = 1732350000;
  r.transcripts["Anna on 2005-03-08 at 15.07.ichat"] = {120, 1732350000123456789, 14, State::kDone,
                                                        ""};
  r.transcripts["sub/Bo & <Co> on x.chat"] = {5, 1, 0, State::kWaiting, "the chat is still open"};
  r.transcripts["Ünï \"q\" on y.ichat"] = {0, 0, 3, State::kMailPending, "mail failed: 550 <no>"};
  r.transcripts["z on z.chat"] = {7, 7, 0, State::kUnreadable, "truncated archive"};
  std::string path = (dir / "processed.plist").string();
  ASSERT_TRUE(SaveRecord(path, r));
  EXPECT_EQ(LoadRecord(path), r);
  EXPECT_EQ(fs::status(path).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);
  fs::remove_all(dir);
}

TEST(RecordTest, MissingDamagedAndOddEntries) {
  fs::path dir = TempDir("record-bad");
  bool damaged = true;
  EXPECT_TRUE(LoadRecord((dir / "none.plist").string(), &damaged).transcripts.empty());
  EXPECT_FALSE(damaged);

  struct Case {
    const char* text;
    bool damaged;
    size_t entries;
  } cases[] = {
      {"garbage", true, 0},
      {"<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>", true, 0},
      // An entry of another type is skipped; one with an unknown state is
      // kept with its handled count but looked at afresh.
      {"<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>transcripts</key><dict>"
       "<key>a</key><string>x</string>"
       "<key>b</key><dict><key>size</key><integer>4</integer><key>handled</key><integer>2"
       "</integer><key>state</key><string>exploded</string></dict>"
       "</dict></dict></plist>",
       false, 1},
  };
  for (const auto& c : cases) {
    std::string path = (dir / "r.plist").string();
    std::ofstream(path) << c.text;
    Record r = LoadRecord(path, &damaged);
    EXPECT_EQ(damaged, c.damaged) << c.text;
    EXPECT_EQ(r.transcripts.size(), c.entries) << c.text;
    if (c.entries) {
      EXPECT_EQ(r.transcripts.at("b").size, -1);
      EXPECT_EQ(r.transcripts.at("b").handled, 2);
    }
  }
  fs::remove_all(dir);
}

TEST(ScanTest, FindsTranscriptsAtAnyDepthOnly) {
  fs::path dir = TempDir("scan");
  for (const char* f : {"a on x.chat", "b on y.ichat", "notes.txt", "c.CHAT", "d.chat.bak",
                        "i.iChat", "2005/March/e on z.ichat", "2005/f on w.chat"})
    fs::create_directories((dir / f).parent_path()), std::ofstream(dir / f) << "x";
  fs::create_directories(dir / "folder.chat");  // a folder is not a transcript
  fs::create_directories(dir / "elsewhere");
  std::ofstream(dir / "elsewhere/g on v.chat") << "x";
  fs::create_directory_symlink(dir / "elsewhere", dir / "2005/link");
  fs::create_symlink(dir / "elsewhere/g on v.chat", dir / "h on v.chat");

  std::vector<std::string> names;
  std::vector<std::string> miscased;
  for (const auto& t : FindTranscripts(dir.string(), &miscased)) names.push_back(t.relativePath);
  EXPECT_EQ(miscased, (std::vector<std::string>{"c.CHAT", "i.iChat"}));
  EXPECT_EQ(names,
            (std::vector<std::string>{"2005/March/e on z.ichat", "2005/f on w.chat", "a on x.chat",
                                      "b on y.ichat", "elsewhere/g on v.chat"}));
  EXPECT_TRUE(FindTranscripts((dir / "missing").string()).empty());
  fs::remove_all(dir);
}

TEST(RunLockTest, SecondHolderWaitsThenGivesUp) {
  fs::path dir = TempDir("lock");
  std::string path = (dir / "lock").string();
  RunLock first, second;
  ASSERT_TRUE(first.Acquire(path, 0));
  EXPECT_FALSE(second.Acquire(path, 0.1));
  first.Release();
  EXPECT_TRUE(second.Acquire(path, 0));
  EXPECT_FALSE(RunLock().Acquire((dir / "no/such/dir").string(), 0));
  fs::remove_all(dir);
}

}  // namespace
}  // namespace gab::parser
