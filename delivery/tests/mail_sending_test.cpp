// HandleEmailSending and its callbacks against a real server: outcomes,
// log lines, reported codes and texts, and the unique subjects.
#include <gtest/gtest.h>

#include <functional>
#include <regex>
#include <sstream>
#include <thread>

#include "delivery/cw_smtp.h"
#include "delivery/mail_layout.h"
#include "delivery/mail_session.h"
#include "delivery/run_loop.h"
#include "platform/text.h"
#include "testing/run_process.h"
#include "testing/smtp_server.h"
#include "testing/temp_home.h"
#include "transcript/chat_log.h"
#include "transcript/process_flags.h"

namespace gab {
namespace {

using testing::ReadPref;
using testing::ResetPrefs;
using testing::SmtpServer;

class MailSendingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::HaveAiosmtpd()) GTEST_SKIP() << "python3-aiosmtpd is not installed";
    CWSMTP::SetDefaultTimeout(3.0);
  }
  void TearDown() override {
    CWSMTP::SetDefaultTimeout(60.0);
    keepRunning = 1;
  }
};

// The messages of the log lines our mail code writes (alerts and others are
// left out).
std::vector<std::string> MailLines(const std::string& captured) {
  std::vector<std::string> out;
  bool afterError = false;
  std::istringstream in(captured);
  for (std::string line; std::getline(in, line);) {
    size_t mark = line.find("] ");
    if (mark == std::string::npos) continue;
    std::string m = line.substr(mark + 2);
    bool ours = afterError || m.find("mail") != std::string::npos ||
                m.find("SMTP") != std::string::npos || m.find("email") != std::string::npos;
    afterError = m == "An error occurred while sending email:";
    if (ours) out.push_back(m);
  }
  return out;
}

TEST_F(MailSendingTest, OutcomesLogLinesAndReports) {
  // aiosmtpd's "530 5.7.0 Authentication required", as 16-bit units.
  const std::u16string kAuthRequired =
      u"\u3335\u2030\u2e35\u2e37\u2030\u7541\u6874\u6e65\u6974\u6163\u6974\u6e6f\u7220"
      u"\u7165\u6975\u6572";
  // "550 nope": the reply's bytes taken two at a time, low byte first.
  const std::u16string kNope = u"\u3535\u2030\u6f6e\u6570";
  const char* const kAuth = "--user anna --password s3cret";
  const char* const kError = "An error occurred while sending email:";
  // The login preferences: none, right, wrong password, or a stored user
  // name without emailNeedsUsername (which does not make us log in).
  enum Login { kNone, kRight, kWrong, kNameOnly };
  const struct {
    const char* name;
    const char* serverOptions;
    const char* rejectReply;
    Login login;
    const char* logLine;        // the first mail log line; kError: the reply follows
    std::u16string reportThis;  // "": no report
    int code;                   // errorStatus (emailFails stands at 3)
    int delivered;
  } cases[] = {
      {"sent", "", nullptr, kNone, nullptr, u"", 0, 1},
      {"sent after login", kAuth, nullptr, kRight, nullptr, u"", 0, 1},
      {"login rejected", kAuth, nullptr, kWrong, "The SMTP server rejected the username/password.",
       u"login rejected", 3, 0},
      {"no login without emailNeedsUsername", kAuth, nullptr, kNameOnly, kError, kAuthRequired, 2,
       0},
      {"refused", "--mode reject", "550 nope", kNone, kError, kNope, 2, 0},
      {"refused, odd length, last line of several", "--mode reject --reject-at rcpt",
       "550-first\r\n550 nope!", kNone, kError, kNope, 2, 0},
      // Units no preferences file can hold (a control, a lone surrogate)
      // become "?", so that the stored text is the logged one.
      {"refused with awkward bytes", "--mode reject --escaped", "554 \\x01\\x00a\\u0600", kNone,
       kError, u"\u3535\u2034??", 2, 0},
      {"silent server", "--mode silent", nullptr, kNone, "The attempt to send email timed out.",
       u"server not responding", 2, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto options = testing::Words(c.serverOptions);
    if (c.rejectReply) options.insert(options.end(), {"--reject-reply", c.rejectReply});
    SmtpServer server(options);
    ASSERT_NE(server.port(), 0);
    std::map<std::string, PrefValue> prefs = {{"emailFails", int64_t(3)}};
    if (c.login != kNone) {
      prefs.insert({{"emailNeedsUsername", int64_t(c.login == kNameOnly ? 0 : 1)},
                    {"emailUsername", std::string("anna")},
                    {"emailPassword", std::string(c.login == kWrong ? "wrong" : "s3cret")}});
    }
    ResetPrefs(prefs);
    CWSMTP smtp("127.0.0.1", server.port());
    smtp.setMessage(BuildMail(u"[IM] Test", std::string("me@example.org"),
                              std::string("you@example.org"), u"plain\n", "<b>html</b>"));
    MailSession session;
    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(session.HandleEmailSending(smtp));
    std::string captured = ::testing::internal::GetCapturedStderr();
    std::vector<std::string> log;
    if (c.logLine) log.push_back(c.logLine);
    if (c.logLine == kError) log.push_back(ToUtf8(c.reportThis));
    EXPECT_EQ(MailLines(captured), log) << captured;
    EXPECT_EQ(StringValue(ReadPref("reportThis")).value_or(""), ToUtf8(c.reportThis));
    EXPECT_EQ(IntValue(ReadPref("errorStatus")), c.code);
    EXPECT_EQ(server.MessageCount(), c.delivered);
    EXPECT_FALSE(RunLoop::Current().HasSources());  // nothing left to fire later
  }
}
// Transfers that end without a reply from the server.
TEST_F(MailSendingTest, WaitsThatEndEarly) {
  SmtpServer silent({"--mode", "silent"});
  ASSERT_NE(silent.port(), 0);
  const struct {
    const char* name;
    int port;
    std::function<void(CWSMTP&)> duringTheWait;
    std::vector<std::string> log;
    std::optional<std::string> reportThis;
    int code;
  } cases[] = {
      // Nothing listens on port 1: reported at once, without a timer.
      {"unreachable", 1, nullptr, {"Unable to connect to mail server."}, "SMTP unreachable", 2},
      // The termination handler clears the flag; the wait sees it after the
      // first turn of the run loop.
      {"stop request", silent.port(), [](CWSMTP&) { keepRunning = 0; }, {}, std::nullopt, 0},
      // Something withdraws the transfer's timer and reads: the wait would
      // never end.
      {"nothing to wait for",
       silent.port(),
       [](CWSMTP& smtp) { RunLoop::Current().CancelAll(&smtp); },
       {"Error waiting for email transmission runloop."},
       "runloop error",
       4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    keepRunning = 1;
    ResetPrefs({{"emailFails", int64_t(3)}});
    CWSMTP smtp("127.0.0.1", c.port);
    smtp.setMessage(BuildMail(u"s", std::nullopt, std::nullopt, u"p", "h"));
    if (c.duringTheWait) RunLoop::Current().Post([&] { c.duringTheWait(smtp); });
    MailSession session;
    ::testing::internal::CaptureStderr();
    EXPECT_TRUE(session.HandleEmailSending(smtp));
    EXPECT_EQ(MailLines(::testing::internal::GetCapturedStderr()), c.log);
    auto report = ReadPref("reportThis");
    EXPECT_EQ(report.has_value(), c.reportThis.has_value());
    EXPECT_EQ(StringValue(report), c.reportThis);
    EXPECT_EQ(IntValue(ReadPref("errorStatus")), c.code);
    EXPECT_FALSE(RunLoop::Current().HasSources());
  }
}

TEST_F(MailSendingTest, SubjectsAndTheirCounter) {
  auto log = ICLPChatLog::FromParts(u"Zoë", {});
  ResetPrefs({{"subjectNumber", int64_t(5)}});
  EXPECT_EQ(subjectForEmail(*log), u"[IM] Zoë");
  EXPECT_EQ(IntValue(ReadPref("subjectNumber")), 5);

  ResetPrefs({{"forceUniqueSubjects", true}, {"subjectNumber", int64_t(5)}});
  std::u16string first = subjectForEmail(*log);
  EXPECT_EQ(IntValue(ReadPref("subjectNumber")), 6);
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  std::u16string second = subjectForEmail(*log);
  EXPECT_EQ(IntValue(ReadPref("subjectNumber")), 7);
  EXPECT_NE(first, second);
  const std::regex shape(
      R"(\[IM\] Zoë \([A-Z][a-z]{2} [A-Z][a-z]{2} \d\d \d\d:\d\d:\d\d \S+ \d{4}\))");
  EXPECT_TRUE(std::regex_match(ToUtf8(first), shape)) << ToUtf8(first);
  EXPECT_TRUE(std::regex_match(ToUtf8(second), shape)) << ToUtf8(second);

  // Starting from nothing.
  ResetPrefs({{"forceUniqueSubjects", std::string("YES")}});
  subjectForEmail(*log);
  EXPECT_EQ(IntValue(ReadPref("subjectNumber")), 1);
}

}  // namespace
}  // namespace gab
