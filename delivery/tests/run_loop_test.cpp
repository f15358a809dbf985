#include "delivery/run_loop.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace gab {
namespace {

TEST(RunLoop, DeliversPostedCallbacksFirstThenTimersByDueTime) {
  RunLoop loop;
  std::string order;
  int owner = 0;
  loop.ScheduleTimer(0.05, [&] { order += "late "; });
  auto dropped = loop.ScheduleTimer(0.0, [&] { order += "dropped "; });
  loop.ScheduleTimer(0.01, [&] { order += "early "; });
  loop.ScheduleTimer(
      0.0, [&] { order += "owned "; }, &owner);
  loop.Post([&] { order += "posted "; });
  loop.Post([&] { order += "owned-post "; }, &owner);
  loop.CancelTimer(dropped);
  loop.CancelAll(&owner);
  while (loop.RunOnce()) {
  }
  EXPECT_EQ(order, "posted early late ");
  EXPECT_FALSE(loop.HasSources());
}

TEST(RunLoop, WaitsNoLongerThanTheLimit) {
  RunLoop loop;
  bool fired = false;
  loop.ScheduleTimer(30, [&] { fired = true; });
  EXPECT_TRUE(loop.RunOnce(RunLoop::Clock::now() + std::chrono::milliseconds(10)));
  EXPECT_FALSE(fired);
  EXPECT_TRUE(loop.HasSources());
}

TEST(RunLoop, PostFromAnotherThreadWakesTheWait) {
  RunLoop loop;
  bool ran = false;
  loop.ScheduleTimer(30, [] {});  // something to wait for
  std::thread other([&] { loop.Post([&] { ran = true; }); });
  EXPECT_TRUE(loop.RunOnce());
  other.join();
  EXPECT_TRUE(ran);
}

TEST(RunLoop, EachThreadHasItsOwn) {
  RunLoop* here = &RunLoop::Current();
  RunLoop* there = nullptr;
  std::thread([&] { there = &RunLoop::Current(); }).join();
  EXPECT_NE(here, there);
}

}  // namespace
}  // namespace gab
