#include "platform/dispatch/TimerScheduler.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dispatch/TestLatch.h"

namespace daskel::platform {
namespace {

using namespace std::chrono_literals;

TEST(TimerScheduler, FiresABlockOnceItsDelayHasPassed) {
  TimerScheduler scheduler;
  TestLatch fired(1);
  scheduler.schedule(5ms, [&] { fired.countDown(); });
  EXPECT_TRUE(fired.waitFor());
}

TEST(TimerScheduler, FiresInDeadlineOrderNotSchedulingOrder) {
  TimerScheduler scheduler;
  std::mutex mutex;
  std::vector<std::string> order;
  TestLatch allFired(3);
  const auto record = [&](std::string name) {
    return [&, name] {
      std::lock_guard lock(mutex);
      order.push_back(name);
      allFired.countDown();
    };
  };
  // Deadlines far enough apart that the order of the three calls cannot blur them.
  scheduler.schedule(600ms, record("last"));
  scheduler.schedule(400ms, record("middle"));
  scheduler.schedule(200ms, record("first"));
  ASSERT_TRUE(allFired.waitFor());
  std::lock_guard lock(mutex);
  EXPECT_EQ(order, (std::vector<std::string>{"first", "middle", "last"}));
}

TEST(TimerScheduler, AFarDeadlineDoesNotHoldBackANearOneScheduledLater) {
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> weakToken = token;
  {
    TimerScheduler scheduler;
    scheduler.schedule(1h, [token] { ADD_FAILURE() << "fired an hour early"; });
    token.reset();
    TestLatch fired(1);
    scheduler.schedule(1ms, [&] { fired.countDown(); });
    EXPECT_TRUE(fired.waitFor());
    EXPECT_FALSE(weakToken.expired());
  }
  EXPECT_TRUE(weakToken.expired()) << "blocks not yet due are dropped with the scheduler";
}

TEST(TimerScheduler, AFiredBlockMayScheduleAgain) {
  TimerScheduler scheduler;
  TestLatch secondFired(1);
  scheduler.schedule(1ms, [&] { scheduler.schedule(1ms, [&] { secondFired.countDown(); }); });
  EXPECT_TRUE(secondFired.waitFor());
}

TEST(TimerScheduler, RealIsOneProcessWideSchedulerThatFires) {
  EXPECT_EQ(&Scheduler::real(), &Scheduler::real());
  auto fired = std::make_shared<TestLatch>(1);
  Scheduler::real().schedule(1ms, [fired] { fired->countDown(); });
  EXPECT_TRUE(fired->waitFor());
}

}  // namespace
}  // namespace daskel::platform
