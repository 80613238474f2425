#include "platform/dispatch/WorkerPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/dispatch/TestLatch.h"

namespace daskel::platform {
namespace {

using namespace std::chrono_literals;

// More blocks waiting at once than this machine has cores, and than the pool starts with.
constexpr int kBlockedBlocks = 32;

TEST(SharedPool, BlocksSyncingOntoAHeldSerialQueueDoNotDeadlockTheProcess) {
  // Every global block syncs onto one serial queue. The first to get the queue waits there
  // until the last global block has started, so all of them must be running at once: the
  // others wait in sync(), which the pool answers with more threads.
  struct Shared {
    std::shared_ptr<DispatchQueue> serial = DispatchQueue::createSerial("test.pool.held-serial");
    std::atomic<int> started{0};
    TestLatch lastStarted{1};
    TestLatch finished{kBlockedBlocks};
    int inSerial = 0;  // touched by the serial queue's blocks only
  };
  auto shared = std::make_shared<Shared>();
  for (int i = 0; i < kBlockedBlocks; ++i) {
    DispatchQueue::global()->async([shared] {
      if (++shared->started == kBlockedBlocks) {
        shared->lastStarted.countDown();
      }
      shared->serial->sync([&] {
        EXPECT_TRUE(shared->lastStarted.waitFor());
        ++shared->inSerial;
      });
      shared->finished.countDown();
    });
  }
  const bool finished = shared->finished.waitFor(3 * kTestDeadline);
  shared->lastStarted.countDown();  // lets a failed run drain instead of waiting forever
  ASSERT_TRUE(finished) << shared->started << " of " << kBlockedBlocks << " blocks started";
  int inSerial = 0;
  shared->serial->sync([&] { inSerial = shared->inSerial; });
  EXPECT_EQ(inSerial, kBlockedBlocks);
}

TEST(SharedPool, BlocksWaitingInSyncOnASuspendedQueueAllGetThreads) {
  struct Shared {
    std::shared_ptr<DispatchQueue> gate = DispatchQueue::createSerial("test.pool.suspended-gate");
    std::atomic<int> waiting{0};
    TestLatch finished{kBlockedBlocks};
    int passed = 0;  // touched by the gate queue's blocks only
  };
  auto shared = std::make_shared<Shared>();
  shared->gate->suspend();
  for (int i = 0; i < kBlockedBlocks; ++i) {
    DispatchQueue::global()->async([shared] {
      ++shared->waiting;
      shared->gate->sync([&] { ++shared->passed; });
      shared->finished.countDown();
    });
  }
  const bool allWaiting =
      waitUntil([&] { return shared->waiting == kBlockedBlocks; }, 3 * kTestDeadline);
  shared->gate->resume();
  ASSERT_TRUE(allWaiting) << shared->waiting << " of " << kBlockedBlocks << " blocks started";
  ASSERT_TRUE(shared->finished.waitFor());
  int passed = 0;
  shared->gate->sync([&] { passed = shared->passed; });
  EXPECT_EQ(passed, kBlockedBlocks);
}

TEST(SharedPool, WorkersStuckInWaitsThePoolCannotSeeGetHelp) {
  // Plain latch waits, which the pool learns of only because queued jobs stop starting.
  constexpr int kBlocks = 24;
  struct Shared {
    TestLatch allStarted{kBlocks};
    TestLatch finished{kBlocks};
    std::atomic<int> met{0};
  };
  auto shared = std::make_shared<Shared>();
  for (int i = 0; i < kBlocks; ++i) {
    DispatchQueue::global()->async([shared] {
      if (shared->allStarted.arriveAndWait(3 * kTestDeadline)) {
        ++shared->met;
      }
      shared->finished.countDown();
    });
  }
  ASSERT_TRUE(shared->finished.waitFor(4 * kTestDeadline));
  EXPECT_EQ(shared->met, kBlocks);
}

// A pool whose monitor never steps in, to see what BlockingScope alone does.
WorkerPool::Options withoutMonitor(int base, int max) {
  return WorkerPool::Options{
      .baseThreads = base, .maxThreads = max, .stallInterval = 1h, .idleTimeout = 1h};
}

TEST(WorkerPool, AJobWaitingForALaterJobGetsItRunOnAnotherThread) {
  WorkerPool pool(withoutMonitor(1, 4));
  TestLatch laterRan(1);
  TestLatch done(1);
  pool.submit([&] {
    WorkerPool::BlockingScope blocking;
    EXPECT_TRUE(laterRan.waitFor());
    done.countDown();
  });
  pool.submit([&] { laterRan.countDown(); });
  ASSERT_TRUE(done.waitFor());
  EXPECT_EQ(pool.stats().threads, 2);
}

TEST(WorkerPool, JobsStuckInUnannouncedWaitsGetHelpOnceNothingStarts) {
  WorkerPool pool(WorkerPool::Options{
      .baseThreads = 1, .maxThreads = 4, .stallInterval = 1ms, .idleTimeout = 1h});
  TestLatch laterRan(1);
  TestLatch done(1);
  pool.submit([&] {
    EXPECT_TRUE(laterRan.waitFor());  // the pool is not told about this wait
    done.countDown();
  });
  pool.submit([&] { laterRan.countDown(); });
  ASSERT_TRUE(done.waitFor());
  EXPECT_GE(pool.stats().threads, 2);
}

TEST(WorkerPool, JobsRunInSubmissionOrderOnASingleThread) {
  WorkerPool pool(withoutMonitor(1, 1));
  std::vector<int> order;  // one thread runs every job
  TestLatch done(1);
  for (int i = 0; i < 100; ++i) {
    pool.submit([&, i] { order.push_back(i); });
  }
  pool.submit([&] { done.countDown(); });
  ASSERT_TRUE(done.waitFor());
  std::vector<int> expected(100);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(order, expected);
}

TEST(WorkerPool, NeverRunsMoreThreadsThanItsCap) {
  constexpr int kCap = 3;
  constexpr int kJobs = 6;
  WorkerPool pool(WorkerPool::Options{
      .baseThreads = 1, .maxThreads = kCap, .stallInterval = 1ms, .idleTimeout = 1h});
  TestLatch release(1);
  TestLatch finished(kJobs);
  std::atomic<int> running{0};
  std::atomic<int> mostRunning{0};
  for (int i = 0; i < kJobs; ++i) {
    pool.submit([&] {
      const int now = ++running;
      int seen = mostRunning;
      while (now > seen && !mostRunning.compare_exchange_weak(seen, now)) {
      }
      {
        // Announced, so the pool decides on growth before `blocked` shows this job.
        WorkerPool::BlockingScope blocking;
        EXPECT_TRUE(release.waitFor());
      }
      --running;
      finished.countDown();
    });
  }
  const bool capReached = waitUntil([&] { return pool.stats().blocked == kCap; });
  const WorkerPool::Stats stats = pool.stats();
  release.countDown();
  ASSERT_TRUE(capReached);
  EXPECT_EQ(stats.threads, kCap);
  EXPECT_EQ(stats.pendingJobs, static_cast<size_t>(kJobs - kCap));
  ASSERT_TRUE(finished.waitFor());
  EXPECT_EQ(mostRunning, kCap);
}

TEST(WorkerPool, ThreadsBeyondTheBaseExitWhenIdleAndThePoolStillWorks) {
  WorkerPool pool(WorkerPool::Options{
      .baseThreads = 1, .maxThreads = 4, .stallInterval = 1h, .idleTimeout = 20ms});
  TestLatch release(1);
  TestLatch finished(4);
  for (int i = 0; i < 4; ++i) {
    pool.submit([&] {
      {
        WorkerPool::BlockingScope blocking;
        EXPECT_TRUE(release.waitFor());
      }
      finished.countDown();
    });
  }
  const bool grew = waitUntil([&] { return pool.stats().blocked == 4; });
  release.countDown();
  ASSERT_TRUE(grew);
  ASSERT_TRUE(finished.waitFor());
  EXPECT_TRUE(waitUntil([&] { return pool.stats().threads == 1; }));

  TestLatch ranAgain(1);
  pool.submit([&] { ranAgain.countDown(); });
  EXPECT_TRUE(ranAgain.waitFor());
}

TEST(WorkerPool, DestroyingThePoolWaitsForRunningJobs) {
  auto pool = std::make_unique<WorkerPool>(withoutMonitor(1, 1));
  TestLatch started(1);
  TestLatch release(1);
  std::atomic<bool> finished{false};
  pool->submit([&] {
    started.countDown();
    EXPECT_TRUE(release.waitFor());
    finished = true;
  });
  ASSERT_TRUE(started.waitFor());
  std::thread destroyer([&] { pool.reset(); });
  release.countDown();
  destroyer.join();
  EXPECT_TRUE(finished);
}

TEST(WorkerPool, BlockingScopeOutsideAnyPoolChangesNothing) {
  WorkerPool pool(withoutMonitor(1, 2));
  {
    WorkerPool::BlockingScope blocking;
    EXPECT_FALSE(WorkerPool::isWorkerThread());
    EXPECT_EQ(pool.stats().blocked, 0);
  }
  std::atomic<bool> onWorker{false};
  TestLatch done(1);
  pool.submit([&] {
    onWorker = WorkerPool::isWorkerThread();
    done.countDown();
  });
  ASSERT_TRUE(done.waitFor());
  EXPECT_TRUE(onWorker);
}

TEST(JobKeeper, KeepsTheFirstJobForItsThreadAndLetsItGoWhenTheThreadWaitsOrIsDone) {
  WorkerPool pool(WorkerPool::Options{.baseThreads = 1});
  auto ran = std::make_shared<std::atomic<int>>(0);
  auto job = [ran] { return [ran] { ++*ran; }; };

  {  // Kept, then taken: the pool never runs it; the thread does.
    WorkerPool::JobKeeper keeper;
    keeper.keep();
    pool.submit(job());
    WorkerPool::Job kept = keeper.take();
    ASSERT_TRUE(kept);
    pool.submit(job());  // no longer kept: the pool runs it
    EXPECT_TRUE(waitUntil([&] { return ran->load() == 1; }));
    kept();
    EXPECT_EQ(ran->load(), 2);
  }
  {  // A wait the pool is told of hands the kept job to the pool at once.
    WorkerPool::JobKeeper keeper;
    keeper.keep();
    pool.submit(job());
    {
      WorkerPool::BlockingScope waiting;
      EXPECT_TRUE(waitUntil([&] { return ran->load() == 3; }));
    }
    EXPECT_FALSE(keeper.take());
  }
  {  // release(age) lets only a job kept that long go; the keeper's end lets any go.
    WorkerPool::JobKeeper keeper;
    keeper.keep();
    pool.submit(job());
    keeper.release(std::chrono::hours(1));
    std::this_thread::sleep_for(20ms);  // what the pool would need to run it, were it given
    EXPECT_EQ(ran->load(), 3);
  }
  EXPECT_TRUE(waitUntil([&] { return ran->load() == 4; }));
}

}  // namespace
}  // namespace daskel::platform
