#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "foundation/RunLoop.h"

namespace vesk {
namespace {

TEST(RunLoop, RunsTimersUntilTheyAreInvalidated) {
  RunLoop& loop = RunLoop::current();
  int repeats = 0;
  int once = 0;
  const auto repeating = loop.scheduledTimer(0.001, true, [&](Timer& timer) {
    if (++repeats == 3) timer.invalidate();
  });
  const auto single = loop.scheduledTimer(0.001, false, [&](Timer&) { ++once; });
  ASSERT_TRUE(loop.runUntilCondition([&] { return repeats == 3 && once == 1; }, 10));
  EXPECT_FALSE(repeating->isValid());
  EXPECT_FALSE(single->isValid());

  // Neither fires again; a timer invalidated before its time never fires.
  bool fired = false;
  loop.scheduledTimer(0.001, false, [&](Timer&) { fired = true; })->invalidate();
  loop.runUntil(0.02);
  EXPECT_EQ(repeats, 3);
  EXPECT_EQ(once, 1);
  EXPECT_FALSE(fired);
}

TEST(RunLoop, ReturnsAtItsDeadlineHavingDoneWhatWasDue) {
  RunLoop& loop = RunLoop::current();
  bool early = false;
  bool beforeDeadline = false;
  bool late = false;
  loop.performAfterDelay(0.001, [&] { early = true; });
  loop.performAfterDelay(0.04, [&] { beforeDeadline = true; });
  loop.performAfterDelay(30, [&] { late = true; });
  loop.runUntil(0.06);
  EXPECT_TRUE(early);
  EXPECT_TRUE(beforeDeadline);  // it did not return before its time
  EXPECT_FALSE(late);
}

TEST(RunLoop, RunsNestedAndTakesWorkFromOtherThreads) {
  RunLoop& loop = RunLoop::current();
  std::atomic<int> posted{0};
  bool innerRan = false;
  loop.post([&] {
    // A handler that runs the loop again still sees work from elsewhere.
    std::thread([&] { loop.post([&] { innerRan = true; }); }).join();
    loop.runUntilCondition([&] { return innerRan; }, 10);
    ++posted;
  });
  ASSERT_TRUE(loop.runUntilCondition([&] { return posted == 1; }, 10));
  EXPECT_TRUE(innerRan);

  // Another thread has a loop of its own.
  std::thread([&] {
    RunLoop& own = RunLoop::current();
    EXPECT_NE(own.context(), loop.context());
    bool ran = false;
    own.post([&] { ran = true; });
    EXPECT_TRUE(own.runUntilCondition([&] { return ran; }, 10));
  }).join();
}

}  // namespace
}  // namespace vesk
