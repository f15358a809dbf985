// gabfolio setup and gabfolio service, run as the user would run them.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/files.h"
#include "platform/preferences.h"
#include "testing/run_process.h"
#include "testing/smtp_server.h"
#include "testing/temp_home.h"

namespace gab::product {
namespace {

namespace fs = std::filesystem;
using namespace testing;

std::string ReadFile(const fs::path& p) {
  return ReadWholeFile(p).value_or("");
}

class SetupTest : public ::testing::Test {
 protected:
  fs::path home() const { return home_.path(); }
  fs::path lib() const { return home() / "Library/Gabfolio"; }
  Preferences Prefs() const {
    return Preferences((home() / "Library/Preferences/com.tidewrack.gabfolio.plist").string());
  }
  Result Tool(std::vector<std::string> args, std::optional<std::string> input = {}) {
    args.insert(args.begin(), kTool);
    return RunProgram(args, {}, input);
  }

  testing::TempHome home_;
};

TEST_F(SetupTest, FreshHomeGetsFoldersFilesAndDefaults) {
  Result r = Tool({"setup"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(fs::is_directory(lib() / "Images"));
  EXPECT_TRUE(fs::is_directory(home() / "Documents/iChats"));
  EXPECT_EQ(ReadFile(lib() / "links.txt"), "");
  EXPECT_EQ(ReadFile(lib() / "images.txt"), "");
  for (auto& e : fs::directory_iterator(GABFOLIO_SOURCE_DIR "/data")) {
    auto ext = e.path().extension();
    if (ext == ".html" || ext == ".plist") {
      EXPECT_EQ(ReadFile(lib() / e.path().filename()), ReadFile(e.path())) << e.path();
    }
  }
  Preferences prefs = Prefs();
  EXPECT_EQ(prefs.String("parserPath"), fs::canonical(kParser).string());
  EXPECT_TRUE(prefs.Bool("handleURLs"));
  EXPECT_TRUE(prefs.Bool("handleImages"));
  ASSERT_TRUE(prefs.CopyAppValue("sendEmails"));
  EXPECT_FALSE(prefs.Bool("sendEmails"));
  EXPECT_EQ(CountOf(prefs.String("bookmarkEntry").value_or(""), "%@"), 4u);
  EXPECT_EQ(CountOf(prefs.String("imageEntry").value_or(""), "%@"), 3u);
  EXPECT_NE(r.out.find("Mail is off"), std::string::npos);
  // No terminal and no server given: mail cannot be configured.
  r = Tool({"setup", "--mail"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("mail needs a server"), std::string::npos);
}

TEST_F(SetupTest, SecondRunKeepsWhatTheUserChangedAndForcePutsItBack) {
  ASSERT_EQ(Tool({"setup"}).status, 0);
  std::string name;
  for (auto& e : fs::directory_iterator(lib()))
    if (e.path().extension() == ".html") name = e.path().filename().string();
  ASSERT_FALSE(name.empty());
  std::string original = ReadFile(lib() / name);
  std::ofstream(lib() / name) << "<html>mine</html>";
  std::ofstream(lib() / "links.txt") << "a line of mine\n";
  {
    Preferences prefs = Prefs();
    prefs.SetAppValue("handleURLs", false);
    prefs.SetAppValue("bookmarkEntry", std::string("%@ %@ %@ %@\n"));
    ASSERT_TRUE(prefs.AppSynchronize());
  }

  Result r = Tool({"setup"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(ReadFile(lib() / name), "<html>mine</html>");
  EXPECT_NE(r.out.find("kept     " + name), std::string::npos) << r.out;
  EXPECT_FALSE(Prefs().Bool("handleURLs"));
  EXPECT_EQ(Prefs().String("bookmarkEntry"), "%@ %@ %@ %@\n");

  r = Tool({"setup", "--force"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(ReadFile(lib() / name), original);
  EXPECT_TRUE(Prefs().Bool("handleURLs"));
  EXPECT_NE(Prefs().String("bookmarkEntry"), "%@ %@ %@ %@\n");
  // The library itself is never reset.
  EXPECT_EQ(ReadFile(lib() / "links.txt"), "a line of mine\n");
}

// Every program answers --version and goes no further: the agent neither
// writes its pid file nor starts watching.
TEST_F(SetupTest, EveryProgramSaysItsVersion) {
  for (const std::string& program : {kTool, kAgent, kParser, kParser + "-worker"}) {
    Result r = RunProgram({program, "--version"}, {}, {}, 10);
    std::string name = fs::path(program).filename().string();
    EXPECT_EQ(r.status, 0) << name << r.err;
    EXPECT_EQ(r.out.rfind(name + " 0.", 0), 0u) << r.out;
    EXPECT_EQ(CountOf(r.out, "\n"), 1) << r.out;
  }
  EXPECT_FALSE(fs::exists(home() / "Library/Gabfolio/pidfile"));
}

// Settings whose test mail failed are kept only when the user says so; no
// login leaves no password behind.
TEST_F(SetupTest, FailedTestMailAsksBeforeKeepingTheSettings) {
  struct Case {
    std::vector<std::string> extra;
    std::optional<std::string> input;
    int status;
    const char* server;                   // afterwards
    std::optional<std::string> password;  // afterwards
  };
  const Case cases[] = {
      {{}, "", 1, "old.example.org", "secret"},
      {{}, "n\n", 1, "old.example.org", "secret"},
      {{}, "y\n", 1, "127.0.0.1", std::nullopt},
      {{"--no-test"}, {}, 0, "127.0.0.1", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input.value_or("(no input)"));
    {
      Preferences prefs = Prefs();
      prefs.SetAppValue("emailServer", std::string("old.example.org"));
      prefs.SetAppValue("emailPassword", std::string("secret"));
      ASSERT_TRUE(prefs.AppSynchronize());
    }
    std::vector<std::string> args = {"setup", "--server", "127.0.0.1",      "--port",
                                     "9",     "--to",     "me@example.org", "--no-login"};
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    Result r = Tool(args, c.input);
    EXPECT_EQ(r.status, c.status) << r.out << r.err;
    Preferences prefs = Prefs();
    EXPECT_EQ(prefs.String("emailServer"), c.server);
    EXPECT_EQ(prefs.String("emailPassword"), c.password);
  }
}

TEST_F(SetupTest, MailOptionsConfigureAndSendATestMessage) {
  if (!HaveAiosmtpd()) GTEST_SKIP() << "python3-aiosmtpd is not installed";
  SmtpServer sink;
  ASSERT_NE(sink.port(), 0);
  Result r = Tool({"setup", "--server", "127.0.0.1", "--port", std::to_string(sink.port()), "--to",
                   "me@example.org", "--from", "gabfolio@example.org", "--no-login"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  ASSERT_TRUE(WaitFor([&] { return sink.MessageCount() == 1; }, 10));
  std::string mail = sink.Message(1, "raw");
  EXPECT_EQ(Header(mail, "Subject"), "[IM] Gabfolio setup test");
  EXPECT_NE(Header(mail, "To").find("me@example.org"), std::string::npos);
  EXPECT_NE(mail.find("multipart/alternative"), std::string::npos);
  Preferences prefs = Prefs();
  EXPECT_TRUE(prefs.Bool("sendEmails"));
  EXPECT_EQ(prefs.String("emailServer"), "127.0.0.1");
  EXPECT_EQ(prefs.Int("emailPort"), sink.port());
  EXPECT_EQ(prefs.Int("emailNeedsUsername"), 0);

  // Server gone: the test fails with the reported reason and status 1.
  sink.Stop();
  r = Tool({"setup", "--mail"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("SMTP unreachable"), std::string::npos) << r.err;
}

TEST_F(SetupTest, ServiceInstallWritesTheUnitForThisAgentAndCallsSystemctl) {
  // A stand-in systemctl records its arguments; the real one is never run.
  fs::path bin = home() / "bin";
  fs::create_directories(bin);
  std::ofstream(bin / "systemctl") << "#!/bin/sh\necho \"$@\" >> \"$HOME/systemctl.log\"\n";
  fs::permissions(bin / "systemctl", fs::perms::owner_all);
  const std::string path = "PATH=" + bin.string() + ":/usr/bin:/bin";
  // A user session: its service manager's socket in the runtime folder.
  fs::create_directories(home() / "run/systemd");
  std::ofstream(home() / "run/systemd/private");
  const std::string session = "XDG_RUNTIME_DIR=" + (home() / "run").string();
  const std::string noSession = "XDG_RUNTIME_DIR=" + home().string();
  const fs::path unit = home() / ".config/systemd/user/gabfolio-agent.service";
  const fs::path entry = home() / ".config/autostart/gabfolio-agent.desktop";
  const std::string agent = fs::canonical(kAgent).string();

  struct Case {
    std::vector<std::string> args;
    std::string env;
    int status;
    const char* says;       // on stdout, or stderr when it fails
    const char* systemctl;  // what systemctl was asked
    bool unitThere, entryThere;
  };
  const Case cases[] = {
      {{"install"},
       session,
       0,
       "The agent runs now",
       "--user daemon-reload\n--user enable --now gabfolio-agent.service\n",
       true,
       false},
      {{"uninstall"},
       session,
       0,
       "the agent no longer starts at login",
       "--user disable --now gabfolio-agent.service\n--user daemon-reload\n",
       false,
       false},
      // No user session: what to do instead, and systemctl is not tried.
      {{"install"}, noSession, 1, "sudo loginctl enable-linger tester", "", false, false},
      {{"install"}, noSession, 1, "gabfolio service install --autostart\n", "", false, false},
      {{"install", "--autostart"},
       noSession,
       0,
       "starts with your next desktop session",
       "",
       false,
       true},
      {{"uninstall"}, noSession, 0, "no longer starts with the desktop", "", false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.says);
    fs::remove(home() / "systemctl.log");
    std::vector<std::string> args = {kTool, "service"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    Result r = RunProgram(args, {path, c.env});
    EXPECT_EQ(r.status, c.status) << r.out << r.err;
    EXPECT_NE((c.status ? r.err : r.out).find(c.says), std::string::npos) << r.out << r.err;
    EXPECT_EQ(ReadFile(home() / "systemctl.log"), c.systemctl);
    EXPECT_EQ(fs::exists(unit), c.unitThere);
    EXPECT_EQ(fs::exists(entry), c.entryThere);
    if (c.unitThere) {
      EXPECT_NE(ReadFile(unit).find("ExecStart=" + agent + "\n"), std::string::npos);
    }
    if (c.entryThere) {
      EXPECT_NE(ReadFile(entry).find("\nExec=" + agent + "\n"), std::string::npos);
    }
  }

  // systemctl failing is an error the user hears about.
  std::ofstream(bin / "systemctl") << "#!/bin/sh\nexit 1\n";
  Result r = RunProgram({kTool, "service", "install"}, {path, session});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("systemctl --user failed"), std::string::npos);
}

}  // namespace
}  // namespace gab::product
