#include "platform/report_error.h"

#include <gtest/gtest.h>

#include <map>

#include "platform/text.h"
#include "testing/run_process.h"
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

}  // namespace
}  // namespace gab
