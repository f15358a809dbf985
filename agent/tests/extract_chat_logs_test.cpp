#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "agent/agent.h"
#include "platform/files.h"
#include "testing/run_process.h"
#include "testing/temp_home.h"
#include "transcript/process_flags.h"

namespace gab {
namespace {

namespace fs = std::filesystem;
using namespace testing;

std::string Home() {
  return ProcessHome().path();
}
std::string Slurp(const std::string& path) {
  return ReadWholeFile(path).value_or("");
}
std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> out;
  std::stringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

constexpr const char* kStart = "*****START***** Activity in log folder, scanning...";
constexpr const char* kFinish = "*****FINISH***** All logs scanned.";

void Touch(const std::string& path) {
  std::ofstream(path) << "x";
}

// Runs one pass with the given limit and returns what it logged.
std::string Pass(int limit = kParserTimeLimit) {
  ::testing::internal::CaptureStderr();
  internal::ExtractChatLogs(limit);
  return ::testing::internal::GetCapturedStderr();
}

TEST(ProcessingPass, OneParserRunPerEntryWithItsOwnPathAsOnlyArgument) {
  ProcessHome().Reset();
  // The parser records its arguments and environment.
  std::string parser = ProcessHome().WriteScript(
      "parser.sh", "printf '%s|%s|%s\\n' \"$0\" \"$#\" \"$HOME\" >> \"$HOME/runs\"");
  for (const char* name : {"a.chat", "b.ichat", "c.txt"})
    Touch(ProcessHome().transcripts() + "/" + name);
  fs::create_directories(ProcessHome().transcripts() + "/Old");
  Touch(ProcessHome().transcripts() + "/Old/d.chat");
  Touch(ProcessHome().transcripts() + "/Old/e.chat");
  WritePrefs({{"parserPath", PrefValue(parser)}});

  std::string log = Pass();
  auto runs = Lines(Slurp(Home() + "/runs"));
  ASSERT_EQ(runs.size(), 6u) << log;
  for (const auto& run : runs) EXPECT_EQ(run, parser + "|0|" + Home());
  ASSERT_EQ(CountOf(log, kStart), 1);
  ASSERT_EQ(CountOf(log, kFinish), 1);
  EXPECT_LT(log.find(kStart), log.find(kFinish));
  // The gate before the scan and before each of the six entries.
  EXPECT_EQ(CountOf(log, "error chances remain, reset code"), 7);
}

TEST(ProcessingPass, EmptyOrMissingFolderRunsNothingButFinishes) {
  for (bool folder : {true, false}) {
    SCOPED_TRACE(folder ? "empty folder" : "no folder");
    ProcessHome().Reset(true, folder);
    std::string parser = ProcessHome().WriteScript("parser.sh", "echo run >> \"$HOME/runs\"");
    WritePrefs({{"parserPath", PrefValue(parser)}});
    std::string log = Pass();
    EXPECT_EQ(Slurp(Home() + "/runs"), "");
    EXPECT_EQ(CountOf(log, kStart), 1);
    EXPECT_EQ(CountOf(log, kFinish), 1);
  }
}

TEST(ProcessingPass, ParserThatCannotStartIsSkippedQuietly) {
  const std::optional<std::string> paths[] = {std::nullopt, std::string("/etc/hostname")};
  for (const auto& path : paths) {
    SCOPED_TRACE(path.value_or("(absent)"));
    ProcessHome().Reset();
    Touch(ProcessHome().transcripts() + "/a.chat");
    Touch(ProcessHome().transcripts() + "/b.chat");
    if (path)
      WritePrefs({{"parserPath", PrefValue(*path)}});
    else
      WritePrefs({});
    ::testing::internal::CaptureStdout();
    std::string log = Pass();
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "");
    EXPECT_EQ(CountOf(log, kFinish), 1) << log;
    EXPECT_EQ(ReadPref("reportThis"), std::nullopt);
  }
}

// A parser that outlives the limit is killed and reported; once the error
// chances are used up, the stored code stops the scan.
TEST(ProcessingPass, TimeOutKillsTheParserAndReports) {
  struct Case {
    int emailFails;
    size_t runs;
    int errorStatusAfter;
    bool finishLine;
  };
  const Case cases[] = {
      {0, 2, 0, true},
      {3, 1, 4, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << "emailFails " << c.emailFails);
    ProcessHome().Reset();
    Touch(ProcessHome().transcripts() + "/a.chat");
    Touch(ProcessHome().transcripts() + "/b.chat");
    std::string parser =
        ProcessHome().WriteScript("slow.sh", "echo $$ >> \"$HOME/runs\"\nexec sleep 30");
    WritePrefs(
        {{"parserPath", PrefValue(parser)}, {"emailFails", PrefValue(int64_t(c.emailFails))}});
    std::string log = Pass(1);
    auto pids = Lines(Slurp(Home() + "/runs"));
    ASSERT_EQ(pids.size(), c.runs) << log;
    for (const auto& pid : pids) {
      // Killed and collected: the process is gone, not a zombie.
      EXPECT_NE(kill(std::stoi(pid), 0), 0) << pid;
    }
    EXPECT_EQ(CountOf(log, "Log processing timed out after 1 seconds."), int(c.runs));
    EXPECT_EQ(StringValue(ReadPref("reportThis")), "timeout");
    EXPECT_EQ(IntValue(ReadPref("errorStatus")), c.errorStatusAfter);
    EXPECT_EQ(IntValue(ReadPref("emailFails")), c.emailFails);
    EXPECT_EQ(CountOf(log, kFinish), c.finishLine ? 1 : 0);
  }
}

TEST(ProcessingPass, StopsAtOnceWhenKeepRunningIsCleared) {
  ProcessHome().Reset();
  for (const char* name : {"a", "b", "c"}) Touch(ProcessHome().transcripts() + "/" + name);
  std::string parser =
      ProcessHome().WriteScript("parser.sh", "echo run >> \"$HOME/runs\"\nsleep 0.3");
  WritePrefs({{"parserPath", PrefValue(parser)}});
  std::thread clearer([] {
    WaitFor([] { return !Slurp(Home() + "/runs").empty(); }, 10);
    keepRunning = 0;
  });
  std::string log = Pass();
  clearer.join();
  keepRunning = 1;
  EXPECT_EQ(Lines(Slurp(Home() + "/runs")).size(), 1u);
  EXPECT_EQ(CountOf(log, kFinish), 0);
}

TEST(ProcessingPass, UsedUpErrorChancesWithTimeoutCodeDoNothing) {
  ProcessHome().Reset();
  Touch(ProcessHome().transcripts() + "/a.chat");
  std::string parser = ProcessHome().WriteScript("parser.sh", "echo run >> \"$HOME/runs\"");
  WritePrefs({{"parserPath", PrefValue(parser)},
              {"errorStatus", PrefValue(int64_t(4))},
              {"emailFails", PrefValue(int64_t(3))}});
  std::string log = Pass();
  EXPECT_EQ(log, "");
  EXPECT_EQ(Slurp(Home() + "/runs"), "");
}

}  // namespace
}  // namespace gab
