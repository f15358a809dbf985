#include "platform/report_error.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <map>
#include <thread>
#include <vector>

#include "platform/alert.h"
#include "platform/files.h"
#include "platform/text.h"
#include "testing/run_process.h"
#include "testing/session_bus.h"
#include "testing/temp_home.h"

namespace gab {
namespace {

using namespace testing;

TEST(ReportError, StoresTheReportAndSetsTheCodeOnlyAtThreeFails) {
  struct Case {
    std::optional<int> emailFails;
    int code;
    std::u16string text;
    int errorStatusAfter;
    bool alert;
  };
  const Case cases[] = {
      {std::nullopt, 2, u"SMTP unreachable", 1, false},
      {0, 3, u"login rejected", 1, false},
      {2, 4, u"timeout", 1, false},
      {3, 2, u"server not responding", 2, true},
      {3, 4, u"corrupt cache", 4, true},
      {4, 1, u"permissions", 1, false},
      {9, 4, u"runloop error", 1, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << "emailFails " << c.emailFails.value_or(-1));
    ProcessHome().Reset();
    std::map<std::string, PrefValue> prefs = {{"errorStatus", PrefValue(int64_t(1))}};
    if (c.emailFails) prefs["emailFails"] = PrefValue(int64_t(*c.emailFails));
    WritePrefs(prefs);
    ::testing::internal::CaptureStderr();
    reportError(ErrorCode(c.code), c.text);
    std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(StringValue(ReadPref("reportThis")), ToUtf8(c.text));
    EXPECT_EQ(IntValue(ReadPref("errorStatus")), c.errorStatusAfter);
    // Written back unchanged; an absent counter is stored as 0.
    EXPECT_EQ(ReadPref("emailFails"), std::optional<PrefValue>(int64_t(c.emailFails.value_or(0))));
    // There is no session bus here: the alert becomes a log line.
    EXPECT_EQ(CountOf(log, "Alert not shown"), c.alert ? 1 : 0) << log;
  }
}

TEST(ReportError, TwoReportsInARowKeepTheSecondText) {
  ProcessHome().Reset();
  WritePrefs({});
  reportError(ErrorCode::kFileSystem, u"permissions");
  reportError(ErrorCode::kMail, u"Gr\u00fc\u00dfe 550 mailbox unavailable");
  EXPECT_EQ(StringValue(ReadPref("reportThis")),
            "Gr\xc3\xbc\xc3\x9f"
            "e 550 mailbox unavailable");
  EXPECT_EQ(ReadPref("errorStatus"), std::nullopt);
}

// At three fails the user sees the alert: one notification on the session bus.
TEST(ReportError, AlertReachesTheNotificationServer) {
  if (system("command -v dbus-daemon >/dev/null 2>&1") != 0) GTEST_SKIP() << "no dbus-daemon";
  SessionBus bus;
  ASSERT_FALSE(bus.address().empty());
  NotificationServer server(bus.address());
  ASSERT_TRUE(server.ready());
  ProcessHome().Reset();
  WritePrefs({{"emailFails", PrefValue(int64_t(3))}});
  setenv("DBUS_SESSION_BUS_ADDRESS", bus.address().c_str(), 1);
  reportError(ErrorCode::kMail, u"SMTP unreachable");
  auto received = server.Received(1);
  setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/gabfolio-test-bus", 1);
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].summary, "Gabfolio");
  EXPECT_EQ(received[0].body,
            "Gabfolio has encountered an error. Please go to the Gabfolio preferences pane for "
            "more information.");
  EXPECT_EQ(received[0].actions, (std::vector<std::string>{"OK", "OK"}));
  EXPECT_EQ(IntValue(ReadPref("errorStatus")), 2);
}

}  // namespace
}  // namespace gab
