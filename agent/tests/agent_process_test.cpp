#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include "platform/files.h"
#include "testing/run_process.h"
#include "testing/temp_home.h"

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

constexpr const char* kStart = "*****START***** Activity in log folder, scanning...";
constexpr const char* kFinish = "*****FINISH***** All logs scanned.";

// The real agent in the process's home.
struct Agent : Process {
  explicit Agent(std::vector<std::string> args) : Process(With(kAgent, std::move(args))) {}
  static std::vector<std::string> With(std::string first, std::vector<std::string> rest) {
    rest.insert(rest.begin(), std::move(first));
    return rest;
  }
  std::string PidFile() const { return ProcessHome().data() + "/pidfile"; }
};

TEST(AgentProcess, DebugOnlyForExactlyTheOneArgument) {
  struct Case {
    std::vector<std::string> args;
    bool pass;
  };
  const Case cases[] = {
      {{"-debug"}, true},
      {{}, false},
      {{"-debug", "more"}, false},
      {{"--debug"}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    // Without the transcript folder the watch gives up at once.
    ProcessHome().Reset(true, false);
    Agent agent(c.args);
    ASSERT_EQ(agent.Wait(), 0);
    if (c.pass) {
      EXPECT_EQ(agent.out(), "exited\n");
      EXPECT_EQ(CountOf(agent.err(), kStart), 1);
      EXPECT_EQ(CountOf(agent.err(), kFinish), 1);
    } else {
      EXPECT_EQ(agent.out(), "Unable to attach to log folder.\nexited\n");
      EXPECT_EQ(CountOf(agent.err(), kStart), 0);
    }
    EXPECT_FALSE(fs::exists(agent.PidFile()));
  }
}

TEST(AgentProcess, PidFileHoldsTheDecimalPidOnly) {
  ProcessHome().Reset();
  std::ofstream(ProcessHome().transcripts() + "/a.chat") << "x";
  std::string parser = ProcessHome().WriteScript(
      "parser.sh",
      "cat \"$HOME/Library/Gabfolio/pidfile\" > \"$HOME/pidcopy\"\necho $PPID > \"$HOME/ppid\"");
  WritePrefs({{"parserPath", PrefValue(parser)}});
  Agent agent({"-debug"});
  ASSERT_EQ(agent.Wait(), 0);
  EXPECT_EQ(Slurp(Home() + "/pidcopy"), std::to_string(agent.pid()));
  EXPECT_EQ(Slurp(Home() + "/ppid"), std::to_string(agent.pid()) + "\n");
  EXPECT_FALSE(fs::exists(agent.PidFile()));
}

TEST(AgentProcess, PidFileIsNeverWrittenThroughALink) {
  ProcessHome().Reset(true, false);
  std::string target = Home() + "/target";
  std::ofstream(target) << "keep";
  fs::create_symlink(target, ProcessHome().data() + "/pidfile");
  Agent agent({});
  ASSERT_EQ(agent.Wait(), 0);
  EXPECT_EQ(Slurp(target), "keep");
}

TEST(AgentProcess, MissingDataFolderIsSaidAndTheAgentRunsOn) {
  ProcessHome().Reset(false, false);
  Agent agent({"-debug"});
  ASSERT_EQ(agent.Wait(), 0);
  std::string pidPath = ProcessHome().data() + "/pidfile";
  EXPECT_EQ(agent.out(), "The data folder " + ProcessHome().data() +
                             " does not exist; no pidfile written.\n" + "pidfile at " + pidPath +
                             " does not exist!\nexited\n");
  EXPECT_EQ(CountOf(agent.err(), kFinish), 1);
  EXPECT_FALSE(fs::exists(ProcessHome().data()));
}

TEST(AgentProcess, WelcomeStepRunsOnceAndIsMarkedWhateverItDid) {
  ProcessHome().Reset(true, false);
  WritePrefs({{"sendEmails", PrefValue(false)}});
  Agent first({});
  ASSERT_EQ(first.Wait(), 0);
  EXPECT_EQ(ReadPref("sentWelcomeEmail"), std::optional<PrefValue>(true));
  EXPECT_EQ(ReadPref("sendEmails"), std::optional<PrefValue>(false));

  // Second start: the flag is set, so the domain is not written at all.
  struct stat before {
  }, after{};
  ASSERT_EQ(stat(PrefsPath().c_str(), &before), 0);
  Agent second({});
  ASSERT_EQ(second.Wait(), 0);
  ASSERT_EQ(stat(PrefsPath().c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
}

// SIGTERM and SIGQUIT end the agent at once with status 0 and no pid file,
// and leave a running parser alone.
TEST(AgentProcess, TerminationSignalsDuringAPass) {
  // The orphaned parser is re-parented to this process, to be reaped here.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  for (int sig : {SIGTERM, SIGQUIT}) {
    SCOPED_TRACE(strsignal(sig));
    ProcessHome().Reset();
    std::ofstream(ProcessHome().transcripts() + "/a.chat") << "x";
    std::string parser =
        ProcessHome().WriteScript("parser.sh", "echo $$ > \"$HOME/parser.pid\"\nexec sleep 20");
    WritePrefs({{"parserPath", PrefValue(parser)}});
    Agent agent({"-debug"});
    ASSERT_TRUE(WaitFor([] { return !Slurp(Home() + "/parser.pid").empty(); }, 10));
    ASSERT_TRUE(fs::exists(agent.PidFile()));
    kill(agent.pid(), sig);
    EXPECT_EQ(agent.Wait(), 0);
    EXPECT_FALSE(fs::exists(agent.PidFile()));
    EXPECT_EQ(agent.out(), "");
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
    ProcessHome().Reset();
    Agent agent({});
    // The welcome flag is stored after the handlers are installed.
    ASSERT_TRUE(WaitFor([] { return BoolValue(ReadPref("sentWelcomeEmail")); }, 10));
    ASSERT_TRUE(fs::exists(agent.PidFile()));
    if (c.removePidFileFirst) fs::remove(agent.PidFile());
    kill(agent.pid(), c.sig);
    auto status = agent.Wait();
    if (c.sig == SIGINT) {
      // Default action: the process dies of the signal and the file stays.
      EXPECT_EQ(status, 128 + SIGINT);
      EXPECT_TRUE(fs::exists(agent.PidFile()));
      continue;
    }
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(fs::exists(agent.PidFile()));
    EXPECT_EQ(agent.out(),
              c.removePidFileFirst ? "pidfile at " + agent.PidFile() + " does not exist!\n" : "");
  }
}

}  // namespace
}  // namespace gab
