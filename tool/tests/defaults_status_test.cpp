#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/preferences.h"
#include "testing/run_process.h"
#include "testing/temp_home.h"

namespace gab {
namespace {

namespace fs = std::filesystem;

class ToolTest : public ::testing::Test {
 protected:
  testing::Result Run(std::vector<std::string> args) {
    args.insert(args.begin(), testing::kTool);
    return testing::RunProgram(args);
  }
  std::optional<PrefValue> Pref(const std::string& key) {
    return Preferences(home_ + "/Library/Preferences/com.tidewrack.gabfolio.plist")
        .CopyAppValue(key);
  }
  testing::TempHome home;
  const std::string home_ = home.path();
};

TEST_F(ToolTest, DefaultsWriteReadDelete) {
  struct Step {
    std::vector<std::string> args;
    int status;
    std::string out;
  };
  const Step steps[] = {
      {{"defaults", "read"}, 0, ""},
      {{"defaults", "read", "emailFails"}, 1, ""},
      {{"defaults", "write", "emailFails", "-int", "3"}, 0, ""},
      {{"defaults", "write", "sendEmails", "-bool", "YES"}, 0, ""},
      {{"defaults", "write", "handleURLs", "-bool", "false"}, 0, ""},
      {{"defaults", "write", "parserPath", "/usr/bin/gabfolio-parser"}, 0, ""},
      {{"defaults", "write", "emailServer", "-string", "-smtp-"}, 0, ""},
      {{"defaults", "write", "emailPort", "-int", "25x"}, 2, ""},
      {{"defaults", "write", "sendEmails", "-bool", "maybe"}, 2, ""},
      {{"defaults", "write", "emailPort"}, 2, ""},
      {{"defaults", "read", "emailFails"}, 0, "3\n"},
      {{"defaults", "read", "sendEmails"}, 0, "1\n"},
      {{"defaults", "read"},
       0,
       "emailFails = 3\nemailServer = -smtp-\nhandleURLs = 0\nparserPath = "
       "/usr/bin/gabfolio-parser\nsendEmails = 1\n"},
      {{"defaults", "delete", "handleURLs"}, 0, ""},
      {{"defaults", "delete", "handleURLs"}, 1, ""},
      // The password stays off the screen unless asked for.
      {{"defaults", "write", "emailPassword", "s3cret"}, 0, ""},
      {{"defaults", "read", "emailPassword"}, 0, "********\n"},
      {{"defaults", "read", "--show-secrets", "emailPassword"}, 0, "s3cret\n"},
      {{"defaults", "frobnicate"}, 2, ""},
  };
  for (const auto& s : steps) {
    SCOPED_TRACE(::testing::PrintToString(s.args));
    auto r = Run(s.args);
    EXPECT_EQ(r.status, s.status);
    EXPECT_EQ(r.out, s.out);
  }
  EXPECT_EQ(Pref("emailFails"), std::optional<PrefValue>(int64_t(3)));
  EXPECT_EQ(Pref("sendEmails"), std::optional<PrefValue>(true));
  EXPECT_EQ(Pref("handleURLs"), std::nullopt);
  EXPECT_EQ(Pref("emailPort"), std::nullopt);
}

TEST_F(ToolTest, StatusShowsErrorStateAndWhetherTheAgentRuns) {
  Preferences prefs(home_ + "/Library/Preferences/com.tidewrack.gabfolio.plist");
  prefs.SetAppValue("errorStatus", PrefValue(int64_t(3)));
  prefs.SetAppValue("reportThis", PrefValue(std::string("login rejected")));
  prefs.SetAppValue("emailFails", PrefValue(int64_t(3)));
  ASSERT_TRUE(prefs.AppSynchronize());
  fs::create_directories(home_ + "/Library/Gabfolio");
  std::string pidfile = home_ + "/Library/Gabfolio/pidfile";

  const std::string head =
      "errorStatus: 3 (the mail server rejected the login)\nreportThis:  login rejected\n"
      "emailFails:  3\n";
  auto r = Run({"status"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, head + "agent:       not running\n");

  // A live process that is not the agent (this test) does not count.
  std::ofstream(pidfile) << getpid();
  r = Run({"status"});
  EXPECT_EQ(r.out, head + "agent:       not running (stale pidfile, pid " +
                       std::to_string(getpid()) + ")\n");
}

TEST_F(ToolTest, StatusSeesTheRunningAgent) {
  fs::create_directories(home_ + "/Library/Gabfolio");
  fs::create_directories(home_ + "/Documents/iChats");
  testing::Process agent({testing::kAgent});
  testing::WaitFor([&] { return fs::exists(home_ + "/Library/Gabfolio/pidfile"); }, 4);
  auto r = Run({"status"});
  agent.Signal(SIGTERM);
  EXPECT_NE(r.out.find("agent:       running (pid " + std::to_string(agent.pid()) + ")\n"),
            std::string::npos)
      << r.out;
}

}  // namespace
}  // namespace gab
