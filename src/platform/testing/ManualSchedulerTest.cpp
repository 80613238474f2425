#include "platform/testing/ManualScheduler.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace daskel::platform {
namespace {

using namespace std::chrono_literals;

TEST(ManualScheduler, FiresNothingUntilAdvancedAndThenInDueOrder) {
  ManualScheduler scheduler;
  std::vector<std::string> fired;
  scheduler.schedule(3s, [&] { fired.push_back("3s"); });
  scheduler.schedule(1s, [&] { fired.push_back("1s"); });
  scheduler.schedule(2s, [&] { fired.push_back("2s"); });
  EXPECT_TRUE(fired.empty());
  EXPECT_EQ(scheduler.pendingCount(), 3u);

  scheduler.advance(999ms);
  EXPECT_TRUE(fired.empty());
  scheduler.advance(1ms);
  EXPECT_EQ(fired, (std::vector<std::string>{"1s"}));
  scheduler.advance(10s);
  EXPECT_EQ(fired, (std::vector<std::string>{"1s", "2s", "3s"}));
  EXPECT_EQ(scheduler.pendingCount(), 0u);
  EXPECT_EQ(scheduler.now(), 11s);
}

TEST(ManualScheduler, BlocksDueTogetherFireInSchedulingOrder) {
  ManualScheduler scheduler;
  std::vector<int> fired;
  for (int i = 0; i < 5; ++i) {
    scheduler.schedule(1s, [&, i] { fired.push_back(i); });
  }
  scheduler.advance(1s);
  EXPECT_EQ(fired, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(ManualScheduler, ARetryScheduledByAFiredBlockCountsFromItsDueTime) {
  ManualScheduler scheduler;
  std::vector<ManualScheduler::Duration> firedAt;
  // Three tries, two seconds apart, as a retrying component would schedule them.
  std::function<void()> attempt = [&] {
    firedAt.push_back(scheduler.now());
    if (firedAt.size() < 3) {
      scheduler.schedule(2s, [&] { attempt(); });
    }
  };
  scheduler.schedule(1s, [&] { attempt(); });

  scheduler.advance(4s);  // tries at 1 s and 3 s; the third is due at 5 s
  EXPECT_EQ(firedAt, (std::vector<ManualScheduler::Duration>{1s, 3s}));
  EXPECT_EQ(scheduler.now(), 4s);
  scheduler.advance(1s);
  EXPECT_EQ(firedAt, (std::vector<ManualScheduler::Duration>{1s, 3s, 5s}));
  EXPECT_EQ(scheduler.pendingCount(), 0u);
}

TEST(ManualScheduler, NegativeDelaysAndStepsCountAsZero) {
  ManualScheduler scheduler;
  int fired = 0;
  scheduler.schedule(-5s, [&] { ++fired; });
  scheduler.advance(-1s);
  EXPECT_EQ(fired, 1);
  EXPECT_EQ(scheduler.now(), 0s);
}

TEST(ManualScheduler, BlocksThatNeverComeDueAreDestroyedUnrunWithTheScheduler) {
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> weakToken = token;
  {
    ManualScheduler scheduler;
    scheduler.schedule(1s, [token] { ADD_FAILURE() << "fired without being due"; });
    token.reset();
    scheduler.advance(999ms);
    EXPECT_FALSE(weakToken.expired());
  }
  EXPECT_TRUE(weakToken.expired());
}

}  // namespace
}  // namespace daskel::platform
