#include "platform/alert.h"

#include <gtest/gtest.h>

#include "testing/session_bus.h"

namespace gab {
namespace {

using testing::NotificationServer;
using testing::SessionBus;

bool DbusDaemonAvailable() {
  return std::system("command -v dbus-daemon >/dev/null 2>&1") == 0;
}

TEST(Alert, NotificationCarriesTheTextOneOkActionAndTheBell) {
  if (!DbusDaemonAvailable()) GTEST_SKIP() << "no dbus-daemon";
  SessionBus bus;
  ASSERT_FALSE(bus.address().empty());
  NotificationServer server(bus.address());
  ASSERT_TRUE(server.ready());

  const std::string text = "Line one\nand \"two\" \xc3\xa9";
  // The session bus is the one the environment names.
  setenv("DBUS_SESSION_BUS_ADDRESS", bus.address().c_str(), 1);
  EXPECT_TRUE(ShowAlert(text));
  setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/gabfolio-test-bus", 1);
  auto received = server.Received(1);
  ASSERT_EQ(received.size(), 1u);
  const auto& n = received[0];
  EXPECT_EQ(n.appName, "Gabfolio");
  EXPECT_EQ(n.summary, "Gabfolio");
  EXPECT_EQ(n.body, text);
  EXPECT_EQ(n.actions, (std::vector<std::string>{"OK", "OK"}));
  ASSERT_EQ(n.stringHints.count("sound-name"), 1u);
  EXPECT_EQ(n.stringHints.at("sound-name"), "bell");
  EXPECT_EQ(n.timeout, -1);
}

TEST(Alert, WithoutServerOrBusOnlyALogLine) {
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(ShowAlertOnBus("unix:path=/nonexistent/gabfolio-bus", "no bus"));
  std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Alert not shown (no session bus"), std::string::npos) << log;
  EXPECT_NE(log.find("no bus"), std::string::npos) << log;

  if (!DbusDaemonAvailable()) GTEST_SKIP() << "no dbus-daemon";
  SessionBus bus;
  ASSERT_FALSE(bus.address().empty());
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(ShowAlertOnBus(bus.address(), "nobody listens"));
  log = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Alert not shown (no notification server): nobody listens"), std::string::npos)
      << log;
}

}  // namespace
}  // namespace gab
