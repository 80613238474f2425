#include "platform/dispatch/OperationQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

#include "platform/dispatch/TestLatch.h"

namespace daskel::platform {
namespace {

// See DispatchQueueTest: afterwards every job handed to the shared pool earlier has started.
void letThePoolRun() {
  for (int round = 0; round < 3; ++round) {
    auto done = std::make_shared<TestLatch>(8);
    for (int i = 0; i < 8; ++i) {
      DispatchQueue::global()->async([done] { done->countDown(); });
    }
    ASSERT_TRUE(done->waitFor());
  }
}

TEST(OperationQueue, RunsEveryOperationAndWaitReturnsOnlyAfterAllFinished) {
  OperationQueue queue("test.operations.all");
  EXPECT_EQ(queue.name(), "test.operations.all");
  constexpr int kOperations = 200;
  // Plain slots, read after the wait: ThreadSanitizer checks that the wait orders them.
  std::vector<int> slots(kOperations, 0);
  for (int i = 0; i < kOperations; ++i) {
    queue.addOperation([&, i] {
      std::this_thread::yield();
      slots[i] = i + 1;
    });
  }
  queue.waitUntilAllOperationsAreFinished();
  for (int i = 0; i < kOperations; ++i) {
    EXPECT_EQ(slots[i], i + 1) << "operation " << i;
  }
  // Nothing outstanding: returns at once, and again after more work.
  queue.waitUntilAllOperationsAreFinished();
  bool late = false;
  queue.addOperation([&] { late = true; });
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(late);
}

TEST(OperationQueue, OperationsOverlapWithoutALimit) {
  OperationQueue queue("test.operations.overlap");
  constexpr int kOperations = 3;
  TestLatch allInside(kOperations);
  std::atomic<int> met{0};
  for (int i = 0; i < kOperations; ++i) {
    queue.addOperation([&] {
      if (allInside.arriveAndWait()) {
        ++met;
      }
    });
  }
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(met, kOperations);
}

TEST(OperationQueue, NeverRunsMoreOperationsAtOnceThanItsLimit) {
  constexpr int kLimit = 2;
  OperationQueue queue("test.operations.limit", kLimit);
  TestLatch holdersInside(kLimit);
  TestLatch release(1);
  std::atomic<int> running{0};
  std::atomic<int> mostRunning{0};
  std::atomic<int> ran{0};
  const auto operation = [&](bool holds) {
    return [&, holds] {
      const int now = ++running;
      int seen = mostRunning;
      while (now > seen && !mostRunning.compare_exchange_weak(seen, now)) {
      }
      if (holds) {
        holdersInside.countDown();
        EXPECT_TRUE(release.waitFor());
      }
      --running;
      ++ran;
    };
  };
  for (int i = 0; i < kLimit; ++i) {
    queue.addOperation(operation(true));
  }
  for (int i = 0; i < 10; ++i) {
    queue.addOperation(operation(false));
  }
  const bool held = holdersInside.waitFor();
  letThePoolRun();  // gives wrongly started operations their chance
  const int runningWhileHeld = running;
  release.countDown();
  ASSERT_TRUE(held);
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(runningWhileHeld, kLimit);
  EXPECT_EQ(mostRunning, kLimit);
  EXPECT_EQ(ran, kLimit + 10);
}

TEST(OperationQueue, WithALimitOfOneRunsOperationsOneAtATimeInOrder) {
  OperationQueue queue("test.operations.serial", 1);
  std::vector<int> order;  // touched by the operations only
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  for (int i = 0; i < 500; ++i) {
    queue.addOperation([&, i] {
      if (inside.fetch_add(1) != 0) {
        overlapped = true;
      }
      std::this_thread::yield();  // widens the window for a wrong overlap
      order.push_back(i);
      inside.fetch_sub(1);
    });
  }
  queue.waitUntilAllOperationsAreFinished();
  std::vector<int> expected(500);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(order, expected);
  EXPECT_FALSE(overlapped);
}

TEST(OperationQueue, IsCurrentOnlyInsideItsOwnOperations) {
  OperationQueue queue("test.operations.current");
  OperationQueue other("test.operations.other");
  std::atomic<bool> inOwn{false}, inOther{true};
  queue.addOperation([&] {
    inOwn = queue.isCurrent();
    inOther = other.isCurrent();
  });
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(inOwn);
  EXPECT_FALSE(inOther);
  EXPECT_FALSE(queue.isCurrent());
}

TEST(OperationQueue, OperationsAddedBeforeTheQueueIsDestroyedStillRun) {
  constexpr int kOperations = 50;
  auto finished = std::make_shared<TestLatch>(kOperations);
  auto gate = std::make_shared<TestLatch>(1);
  {
    OperationQueue queue("test.operations.destroyed", 1);
    for (int i = 0; i < kOperations; ++i) {
      queue.addOperation([finished, gate] {
        EXPECT_TRUE(gate->waitFor());
        finished->countDown();
      });
    }
  }
  gate->countDown();
  EXPECT_TRUE(finished->waitFor());
}

TEST(OperationQueue, WaitingFromManyPoolBlocksDoesNotStarveTheOperations) {
  // The operation finishes only when every waiting block has started, and each of those
  // blocks then waits for it: the pool has to run all of them at once.
  constexpr int kWaiters = 32;
  struct Shared {
    OperationQueue operations{"test.operations.waiters"};
    TestLatch allWaiting{kWaiters};
    TestLatch finished{kWaiters};
    std::atomic<bool> operationSawAll{false};
  };
  auto shared = std::make_shared<Shared>();
  shared->operations.addOperation(
      [shared] { shared->operationSawAll = shared->allWaiting.waitFor(3 * kTestDeadline); });
  for (int i = 0; i < kWaiters; ++i) {
    DispatchQueue::global()->async([shared] {
      shared->allWaiting.countDown();
      shared->operations.waitUntilAllOperationsAreFinished();
      shared->finished.countDown();
    });
  }
  ASSERT_TRUE(shared->finished.waitFor(4 * kTestDeadline));
  EXPECT_TRUE(shared->operationSawAll);
}

#ifndef NDEBUG
TEST(OperationQueueDeathTest, WaitingFromOwnOperationAbortsNamingTheQueue) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        OperationQueue queue("test.operations.self-wait");
        TestLatch done(1);
        queue.addOperation([&] {
          queue.waitUntilAllOperationsAreFinished();
          done.countDown();
        });
        done.waitFor();
      },
      "operation queue 'test.operations.self-wait'");
}
#endif

}  // namespace
}  // namespace daskel::platform
