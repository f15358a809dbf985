#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include "agent/tests/test_support.h"

namespace gab {
namespace {

namespace fs = std::filesystem;
using namespace test;

constexpr const char* kStart = "*****START***** Activity in log folder, scanning...";
constexpr const char* kFinish = "*****FINISH***** All logs scanned.";

// The real agent, started with the test's home; its output goes to files.
struct Agent {
  pid_t pid = -1;
  std::string out = Home() + "/agent.out";
  std::string err = Home() + "/agent.err";

  explicit Agent(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {GABFOLIO_AGENT_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    pid = fork();
    if (pid == 0) {
      int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(o, 1);
      dup2(e, 2);
      std::vector<char*> cargv;
      for (auto& a : argv) cargv.push_back(a.data());
      cargv.push_back(nullptr);
      execv(cargv[0], cargv.data());
      _exit(127);
    }
  }
  // Waits up to `seconds`; the wait status, or -1 when it is still running.
  int Wait(double seconds = 10) {
    int status = -1;
    WaitFor([&] { return waitpid(pid, &status, WNOHANG) == pid; }, seconds);
    return status;
  }
  std::string Out() const { return Slurp(out); }
  std::string Err() const { return Slurp(err); }
  std::string PidFile() const { return DataDir() + "/pidfile"; }
};

bool Exited0(int status) {
  return status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(AgentProcess, DebugOnlyForExactlyTheOneArgument) {
  struct Case {
    std::vector<std::string> args;
    bool pass;
  };
  const Case cases[] = {
      {{"-debug"}, true},  {{}, false},        {{"-debug", "more"}, false},
      {{"-Debug"}, false}, {{"debug"}, false}, {{"--debug"}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    // Without the transcript folder the watch gives up at once.
    ResetHome(true, false);
    Agent agent(c.args);
    int status = agent.Wait();
    ASSERT_TRUE(Exited0(status)) << status;
    if (c.pass) {
      EXPECT_EQ(agent.Out(), "exited\n");
      EXPECT_EQ(CountOf(agent.Err(), kStart), 1);
      EXPECT_EQ(CountOf(agent.Err(), kFinish), 1);
    } else {
      EXPECT_EQ(agent.Out(), "Unable to attach to log folder.\nexited\n");
      EXPECT_EQ(CountOf(agent.Err(), kStart), 0);
    }
    EXPECT_FALSE(fs::exists(agent.PidFile()));
  }
}

TEST(AgentProcess, PidFileHoldsTheDecimalPidOnly) {
  ResetHome();
  std::ofstream(TranscriptDir() + "/a.chat") << "x";
  std::string parser = WriteScript(
      "parser.sh",
      "cat \"$HOME/Library/Gabfolio/pidfile\" > \"$HOME/pidcopy\"\necho $PPID > \"$HOME/ppid\"");
  WritePrefs({{"parserPath", PrefValue(parser)}});
  Agent agent({"-debug"});
  ASSERT_TRUE(Exited0(agent.Wait()));
  EXPECT_EQ(Slurp(Home() + "/pidcopy"), std::to_string(agent.pid));
  EXPECT_EQ(Slurp(Home() + "/ppid"), std::to_string(agent.pid) + "\n");
  EXPECT_FALSE(fs::exists(agent.PidFile()));
}

TEST(AgentProcess, PidFileIsNeverWrittenThroughALink) {
  ResetHome(true, false);
  std::string target = Home() + "/target";
  std::ofstream(target) << "keep";
  fs::create_symlink(target, DataDir() + "/pidfile");
  Agent agent({});
  ASSERT_TRUE(Exited0(agent.Wait()));
  EXPECT_EQ(Slurp(target), "keep");
}

TEST(AgentProcess, MissingDataFolderIsSaidAndTheAgentRunsOn) {
  ResetHome(false, false);
  Agent agent({"-debug"});
  ASSERT_TRUE(Exited0(agent.Wait()));
  std::string pidPath = DataDir() + "/pidfile";
  EXPECT_EQ(agent.Out(), "The data folder " + DataDir() + " does not exist; no pidfile written.\n" +
                             "pidfile at " + pidPath + " does not exist!\nexited\n");
  EXPECT_EQ(CountOf(agent.Err(), kFinish), 1);
  EXPECT_FALSE(fs::exists(DataDir()));
}

TEST(AgentProcess, WelcomeStepRunsOnceAndIsMarkedWhateverItDid) {
  ResetHome(true, false);
  WritePrefs({{"sendEmails", PrefValue(false)}});
  Agent first({});
  ASSERT_TRUE(Exited0(first.Wait()));
  EXPECT_EQ(ReadPref("sentWelcomeEmail"), std::optional<PrefValue>(true));
  EXPECT_EQ(ReadPref("sendEmails"), std::optional<PrefValue>(false));

  // Second start: the flag is set, so the domain is not written at all.
  struct stat before {
  }, after{};
  ASSERT_EQ(stat(PrefsPath().c_str(), &before), 0);
  Agent second({});
  ASSERT_TRUE(Exited0(second.Wait()));
  ASSERT_EQ(stat(PrefsPath().c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
}

// SIGTERM and SIGQUIT end the agent at once with status 0 and no pid file,
// and leave a running parser alone.
TEST(AgentProcess, TerminationSignalsDuringAPass) {
  for (int sig : {SIGTERM, SIGQUIT}) {
    SCOPED_TRACE(strsignal(sig));
    ResetHome();
    std::ofstream(TranscriptDir() + "/a.chat") << "x";
    std::string parser = WriteScript("parser.sh", "echo $$ > \"$HOME/parser.pid\"\nexec sleep 20");
    WritePrefs({{"parserPath", PrefValue(parser)}});
    Agent agent({"-debug"});
    ASSERT_TRUE(WaitFor([] { return !Slurp(Home() + "/parser.pid").empty(); }, 10));
    ASSERT_TRUE(fs::exists(agent.PidFile()));
    kill(agent.pid, sig);
    int status = agent.Wait();
    EXPECT_TRUE(Exited0(status)) << status;
    EXPECT_FALSE(fs::exists(agent.PidFile()));
    EXPECT_EQ(agent.Out(), "");
    pid_t parserPid = std::stoi(Slurp(Home() + "/parser.pid"));
    EXPECT_EQ(kill(parserPid, 0), 0) << "the parser was killed";
    kill(parserPid, SIGKILL);
    waitpid(parserPid, nullptr, 0);
  }
}

TEST(AgentProcess, SignalsWhileWatching) {
  struct Case {
    int sig;
    bool removePidFileFirst;
  };
  for (auto c : {Case{SIGTERM, false}, Case{SIGTERM, true}, Case{SIGINT, false}}) {
    SCOPED_TRACE(::testing::Message()
                 << strsignal(c.sig) << (c.removePidFileFirst ? " no pidfile" : ""));
    ResetHome();
    Agent agent({});
    // The welcome flag is stored after the handlers are installed.
    ASSERT_TRUE(WaitFor([] { return BoolValue(ReadPref("sentWelcomeEmail")); }, 10));
    ASSERT_TRUE(fs::exists(agent.PidFile()));
    if (c.removePidFileFirst) fs::remove(agent.PidFile());
    kill(agent.pid, c.sig);
    int status = agent.Wait();
    if (c.sig == SIGINT) {
      // Default action: the process dies of the signal and the file stays.
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
      EXPECT_TRUE(fs::exists(agent.PidFile()));
      continue;
    }
    EXPECT_TRUE(Exited0(status)) << status;
    EXPECT_FALSE(fs::exists(agent.PidFile()));
    EXPECT_EQ(agent.Out(),
              c.removePidFileFirst ? "pidfile at " + agent.PidFile() + " does not exist!\n" : "");
  }
}

TEST(AgentProcess, WatchRunsAPassSoonAfterAFileArrives) {
  ResetHome();
  std::string parser = WriteScript("parser.sh", "echo run >> \"$HOME/runs\"");
  WritePrefs({{"parserPath", PrefValue(parser)}});
  Agent agent({});
  ASSERT_TRUE(WaitFor([] { return BoolValue(ReadPref("sentWelcomeEmail")); }, 10));
  usleep(300 * 1000);  // the watch is registered right after
  EXPECT_EQ(Slurp(Home() + "/runs"), "");
  std::ofstream(TranscriptDir() + "/new.chat") << "x";
  EXPECT_TRUE(WaitFor([] { return !Slurp(Home() + "/runs").empty(); }, 3));
  // A write into the file is no folder change: no further pass.
  std::ofstream(TranscriptDir() + "/new.chat", std::ios::app) << "more";
  usleep(1500 * 1000);
  EXPECT_EQ(Slurp(Home() + "/runs"), "run\n");
  EXPECT_EQ(CountOf(agent.Err(), kStart), 1);
  kill(agent.pid, SIGTERM);
  EXPECT_TRUE(Exited0(agent.Wait()));
}

}  // namespace
}  // namespace gab
