#include <gtest/gtest.h>

#include "agent/agent.h"
#include "platform/files.h"
#include "testing/run_process.h"
#include "testing/temp_home.h"

namespace gab {
namespace {

using internal::ApplyErrorGate;
using internal::GatePoint;
using namespace testing;

TEST(ErrorGate, EveryCellOfTheTable) {
  struct Cell {
    GatePoint point;
    int errorStatus;
    int emailFails;
    bool goOn;  // kFinish: the finishing line is logged
    int errorStatusAfter;
    bool resetLine;  // "error chances remain, reset code"
  };
  const Cell cells[] = {
      // A: start of the pass
      {GatePoint::kStart, 4, 3, false, 4, false},
      {GatePoint::kStart, 4, 2, true, 0, false},
      {GatePoint::kStart, 2, 3, true, 2, false},
      {GatePoint::kStart, 2, 1, true, 0, true},
      // B: before each entry
      {GatePoint::kEntry, 4, 5, false, 4, false},
      {GatePoint::kEntry, 4, 0, true, 0, false},
      {GatePoint::kEntry, 1, 4, true, 1, false},
      {GatePoint::kEntry, 3, 2, true, 0, true},
      // C: after the pages
      {GatePoint::kFinish, 4, 3, false, 4, false},
      {GatePoint::kFinish, 4, 2, true, 0, false},
      {GatePoint::kFinish, 2, 3, false, 2, false},
      {GatePoint::kFinish, 2, 1, false, 2, false},
      // The right-hand columns with no error stored.
      {GatePoint::kStart, 0, 0, true, 0, true},  // logged even when already 0
      {GatePoint::kStart, 0, 7, true, 0, false},
      {GatePoint::kFinish, 0, 3, true, 0, false},
      {GatePoint::kFinish, 0, 0, true, 0, false},
  };
  for (const auto& c : cells) {
    SCOPED_TRACE(::testing::Message() << "point " << int(c.point) << " errorStatus "
                                      << c.errorStatus << " emailFails " << c.emailFails);
    WritePrefs({{"errorStatus", PrefValue(int64_t(c.errorStatus))},
                {"emailFails", PrefValue(int64_t(c.emailFails))}});
    ::testing::internal::CaptureStderr();
    bool goOn = ApplyErrorGate(c.point);
    std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(goOn, c.goOn);
    EXPECT_EQ(IntValue(ReadPref("errorStatus")), c.errorStatusAfter);
    EXPECT_EQ(IntValue(ReadPref("emailFails")), c.emailFails);
    EXPECT_EQ(CountOf(log, "error chances remain, reset code"), c.resetLine ? 1 : 0) << log;
    if (!c.resetLine) {
      EXPECT_EQ(log, "");
    }
  }
}

TEST(ErrorGate, AbsentKeysCountAsNoError) {
  WritePrefs({});
  ::testing::internal::CaptureStderr();
  EXPECT_TRUE(ApplyErrorGate(GatePoint::kStart));
  std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(CountOf(log, "error chances remain, reset code"), 1);
  EXPECT_EQ(ReadPref("errorStatus"), std::optional<PrefValue>(int64_t(0)));
}

}  // namespace
}  // namespace gab
