#include "platform/dispatch/DispatchQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/TestLatch.h"
#include "platform/testing/ManualScheduler.h"

namespace daskel::platform {
namespace {

using namespace std::chrono_literals;

// Sends a few rounds of blocks through the shared pool, which runs jobs in submission order:
// a block that was (wrongly) handed to the pool before this call has started by the time it
// returns. Used before checking that something did *not* run.
void letThePoolRun() {
  for (int round = 0; round < 3; ++round) {
    auto done = std::make_shared<TestLatch>(8);
    for (int i = 0; i < 8; ++i) {
      DispatchQueue::global()->async([done] { done->countDown(); });
    }
    ASSERT_TRUE(done->waitFor());
  }
}

// Counts how many blocks of one queue run at once.
struct OverlapProbe {
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};

  void enter() {
    if (inside.fetch_add(1) != 0) {
      overlapped = true;
    }
    // Widens the window in which a wrongly overlapping block would be seen.
    std::this_thread::yield();
  }
  void leave() { inside.fetch_sub(1); }
};

TEST(SerialQueue, KeepsEachSubmittersOrderAndExclusionUnderAsyncAndSyncFromManyThreads) {
  auto queue = DispatchQueue::createSerial("test.serial.threads");
  constexpr int kThreads = 4;
  constexpr int kPerThread = 500;
  struct Record {
    int thread;
    int sequence;
  };
  std::vector<Record> records;  // touched by the queue's blocks only
  OverlapProbe probe;
  std::atomic<int> syncOnOtherThread{0};

  std::vector<std::thread> submitters;
  for (int t = 0; t < kThreads; ++t) {
    submitters.emplace_back([&, t] {
      for (int s = 0; s < kPerThread; ++s) {
        if (s % 5 == 0) {
          const auto caller = std::this_thread::get_id();
          queue->sync([&, t, s, caller] {
            probe.enter();
            records.push_back({t, s});
            if (std::this_thread::get_id() != caller) {
              ++syncOnOtherThread;
            }
            probe.leave();
          });
        } else {
          queue->async([&, t, s] {
            probe.enter();
            records.push_back({t, s});
            probe.leave();
          });
        }
      }
    });
  }
  for (auto& submitter : submitters) {
    submitter.join();
  }
  queue->sync([] {});

  ASSERT_EQ(records.size(), static_cast<size_t>(kThreads * kPerThread));
  std::vector<int> next(kThreads, 0);
  for (const Record& record : records) {
    EXPECT_EQ(record.sequence, next[record.thread]) << "submitter " << record.thread;
    next[record.thread] = record.sequence + 1;
  }
  EXPECT_FALSE(probe.overlapped);
  EXPECT_EQ(syncOnOtherThread, 0);
}

TEST(SerialQueue, SyncWaitsForEarlierBlocksAndRunsOnTheCallingThread) {
  auto queue = DispatchQueue::createSerial("test.serial.sync");
  TestLatch gate(1);
  bool earlierFinished = false;  // written by the async block, read by the sync block
  queue->async([&] {
    EXPECT_TRUE(gate.waitFor());
    earlierFinished = true;
  });

  std::thread::id ranOn;
  bool sawEarlier = false;
  std::thread caller([&] {
    queue->sync([&] {
      ranOn = std::this_thread::get_id();
      sawEarlier = earlierFinished;
    });
  });
  const auto callerId = caller.get_id();
  gate.countDown();
  caller.join();

  EXPECT_EQ(ranOn, callerId);
  EXPECT_TRUE(sawEarlier);

  // Uncontended, too.
  queue->sync([&] { ranOn = std::this_thread::get_id(); });
  EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(ConcurrentQueue, PlainBlocksOverlap) {
  auto queue = DispatchQueue::createConcurrent("test.concurrent.overlap");
  constexpr int kBlocks = 4;
  struct Shared {
    TestLatch allInside{kBlocks};
    TestLatch finished{kBlocks};
    std::atomic<int> metTheOthers{0};
  };
  auto shared = std::make_shared<Shared>();
  for (int i = 0; i < kBlocks; ++i) {
    // Each block waits inside until all of them are inside: only overlapping blocks meet.
    queue->async([shared] {
      if (shared->allInside.arriveAndWait()) {
        ++shared->metTheOthers;
      }
      shared->finished.countDown();
    });
  }
  ASSERT_TRUE(shared->finished.waitFor(2 * kTestDeadline));
  EXPECT_EQ(shared->metTheOthers, kBlocks);
}

TEST(ConcurrentQueue, BarrierWaitsForEarlierBlocksRunsAloneAndHoldsBackLaterOnes) {
  auto queue = DispatchQueue::createConcurrent("test.concurrent.barrier");
  constexpr int kRounds = 20;
  constexpr int kReaders = 16;
  // Plain data: only the queue's ordering makes these accesses safe (ThreadSanitizer checks).
  std::vector<std::vector<int>> written(kRounds, std::vector<int>(kReaders, 0));
  std::vector<std::vector<int>> sawPreviousBarrier(kRounds, std::vector<int>(kReaders, -1));
  std::vector<int> barrierSum(kRounds, -1);
  std::atomic<int> readersInside{0};
  std::atomic<bool> barrierInside{false};
  std::atomic<int> readerDuringBarrier{0};

  for (int r = 0; r < kRounds; ++r) {
    for (int i = 0; i < kReaders; ++i) {
      queue->async([&, r, i] {
        ++readersInside;
        if (barrierInside) {
          ++readerDuringBarrier;
        }
        written[r][i] = 1;
        if (r > 0) {
          sawPreviousBarrier[r][i] = barrierSum[r - 1];
        }
        --readersInside;
      });
    }
    queue->barrierAsync([&, r] {
      barrierInside = true;
      if (readersInside != 0) {
        ++readerDuringBarrier;
      }
      barrierSum[r] = std::accumulate(written[r].begin(), written[r].end(), 0);
      if (readersInside != 0) {
        ++readerDuringBarrier;
      }
      barrierInside = false;
    });
  }
  queue->barrierSync([] {});

  EXPECT_EQ(readerDuringBarrier, 0);
  for (int r = 0; r < kRounds; ++r) {
    EXPECT_EQ(barrierSum[r], kReaders) << "round " << r;
    for (int i = 0; r > 0 && i < kReaders; ++i) {
      EXPECT_EQ(sawPreviousBarrier[r][i], kReaders) << "round " << r << " reader " << i;
    }
  }
}

TEST(ConcurrentQueue, SyncReaderQueuedAfterABarrierSeesItsWrite) {
  auto queue = DispatchQueue::createConcurrent("test.concurrent.reader-after-barrier");
  TestLatch readerInside(1);
  TestLatch gate(1);
  int value = 0;  // plain: the barrier writes it, the sync reader reads it
  // A running reader holds the barrier back, so the barrier is pending when the sync comes.
  queue->async([&] {
    readerInside.countDown();
    EXPECT_TRUE(gate.waitFor());
  });
  ASSERT_TRUE(readerInside.waitFor());
  queue->barrierAsync([&] { value = 42; });

  int seen = -1;
  std::thread reader([&] { queue->sync([&] { seen = value; }); });
  gate.countDown();
  reader.join();
  EXPECT_EQ(seen, 42);
}

TEST(ConcurrentQueue, SyncReadersOverlapOnTheirCallersThreads) {
  auto queue = DispatchQueue::createConcurrent("test.concurrent.sync-readers");
  TestLatch bothInside(2);
  std::thread::id ranOn[2];
  bool met[2] = {false, false};
  std::thread callers[2];
  for (int k = 0; k < 2; ++k) {
    callers[k] = std::thread([&, k] {
      queue->sync([&, k] {
        ranOn[k] = std::this_thread::get_id();
        met[k] = bothInside.arriveAndWait();
      });
    });
  }
  const std::thread::id callerIds[2] = {callers[0].get_id(), callers[1].get_id()};
  for (auto& caller : callers) {
    caller.join();
  }
  for (int k = 0; k < 2; ++k) {
    EXPECT_TRUE(met[k]);
    EXPECT_EQ(ranOn[k], callerIds[k]);
  }
}

TEST(ConcurrentQueue, BarrierSyncRunsAloneOnTheCallingThreadAfterEarlierReaders) {
  auto queue = DispatchQueue::createConcurrent("test.concurrent.barrier-sync");
  constexpr int kReaders = 3;
  TestLatch readersInside(kReaders);
  TestLatch gate(1);
  std::atomic<int> inside{0};
  int readersFinished = 0;  // plain, under a lock the readers share
  std::mutex mutex;
  for (int i = 0; i < kReaders; ++i) {
    queue->async([&] {
      ++inside;
      readersInside.countDown();
      EXPECT_TRUE(gate.waitFor());
      {
        std::lock_guard lock(mutex);
        ++readersFinished;
      }
      --inside;
    });
  }
  ASSERT_TRUE(readersInside.waitFor());

  std::thread::id ranOn;
  int insideDuringBarrier = -1, finishedBeforeBarrier = -1;
  std::thread caller([&] {
    queue->barrierSync([&] {
      ranOn = std::this_thread::get_id();
      insideDuringBarrier = inside;
      std::lock_guard lock(mutex);
      finishedBeforeBarrier = readersFinished;
    });
  });
  const auto callerId = caller.get_id();
  gate.countDown();
  caller.join();
  EXPECT_EQ(ranOn, callerId);
  EXPECT_EQ(insideDuringBarrier, 0);
  EXPECT_EQ(finishedBeforeBarrier, kReaders);
}

TEST(SuspendedQueue, StartsNoBlockUntilEverySuspendIsResumedThenRunsThemInOrder) {
  auto queue = DispatchQueue::createSerial("test.suspend.order");
  std::vector<int> order;  // touched by the queue's blocks only
  std::atomic<int> ran{0};
  queue->suspend();
  queue->suspend();
  for (int i = 0; i < 50; ++i) {
    queue->async([&, i] {
      order.push_back(i);
      ++ran;
    });
  }
  letThePoolRun();
  EXPECT_EQ(ran, 0);

  queue->resume();
  letThePoolRun();
  EXPECT_EQ(ran, 0) << "one resume must not undo two suspends";

  queue->resume();
  queue->sync([] {});
  std::vector<int> expected(50);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(order, expected);
}

TEST(SuspendedQueue, LetsTheRunningBlockFinishButStartsNoMore) {
  auto queue = DispatchQueue::createConcurrent("test.suspend.running");
  TestLatch firstInside(1);
  TestLatch gate(1);
  TestLatch firstFinished(1);
  std::atomic<bool> secondRan{false};
  queue->async([&] {
    firstInside.countDown();
    EXPECT_TRUE(gate.waitFor());
    firstFinished.countDown();
  });
  ASSERT_TRUE(firstInside.waitFor());
  queue->suspend();
  queue->async([&] { secondRan = true; });
  gate.countDown();
  ASSERT_TRUE(firstFinished.waitFor());
  letThePoolRun();
  EXPECT_FALSE(secondRan);

  queue->resume();
  queue->barrierSync([] {});
  EXPECT_TRUE(secondRan);
}

TEST(SuspendedQueue, SyncWaitsUntilTheQueueIsResumed) {
  auto queue = DispatchQueue::createSerial("test.suspend.sync");
  queue->suspend();
  std::atomic<bool> resumed{false};
  bool ranAfterResume = false;
  TestLatch aboutToSync(1);
  std::thread caller([&] {
    aboutToSync.countDown();
    queue->sync([&] { ranAfterResume = resumed; });
  });
  ASSERT_TRUE(aboutToSync.waitFor());
  letThePoolRun();
  resumed = true;
  queue->resume();
  caller.join();
  EXPECT_TRUE(ranAfterResume);
}

TEST(DispatchQueue, IsCurrentExactlyWhileTheThreadRunsItsBlocks) {
  auto first = DispatchQueue::createSerial("test.current.first");
  auto second = DispatchQueue::createConcurrent("test.current.second");
  EXPECT_FALSE(first->isCurrent());

  struct Seen {
    bool firstInAsync = false, secondInAsync = true;
    bool bothInNestedSync = false, secondAfterNestedSync = true;
  } seen;
  TestLatch done(1);
  first->async([&] {
    seen.firstInAsync = first->isCurrent();
    seen.secondInAsync = second->isCurrent();
    second->sync([&] { seen.bothInNestedSync = first->isCurrent() && second->isCurrent(); });
    seen.secondAfterNestedSync = second->isCurrent();
    done.countDown();
  });
  ASSERT_TRUE(done.waitFor());
  first->sync([] {});
  EXPECT_TRUE(seen.firstInAsync);
  EXPECT_FALSE(seen.secondInAsync);
  EXPECT_TRUE(seen.bothInNestedSync);
  EXPECT_FALSE(seen.secondAfterNestedSync);

  bool inReader = false, inBarrier = false;
  second->sync([&] { inReader = second->isCurrent(); });
  second->barrierSync([&] { inBarrier = second->isCurrent() && !first->isCurrent(); });
  EXPECT_TRUE(inReader);
  EXPECT_TRUE(inBarrier);
  EXPECT_FALSE(first->isCurrent());
  EXPECT_FALSE(second->isCurrent());
}

// ---- runHereOrAsync ----

TEST(RunHereOrAsync, RunsAtOnceOnTheCallingThreadAsTheQueuesTurnWhenTheQueueIsIdle) {
  auto queue = DispatchQueue::createSerial("test.here.idle");
  const auto caller = std::this_thread::get_id();
  bool ranHere = false, current = false;
  std::atomic<bool> laterBlockOverlapped{false};
  std::atomic<bool> inside{false};
  TestLatch laterRan(1);
  queue->runHereOrAsync([&] {
    inside = true;
    ranHere = std::this_thread::get_id() == caller;
    current = queue->isCurrent();
    // Submitted while this block runs: it must wait for it, even though the queue's pool
    // job is free to start it on another thread.
    queue->async([&] {
      laterBlockOverlapped = inside.load();
      laterRan.countDown();
    });
    letThePoolRun();
    inside = false;
  });
  EXPECT_TRUE(ranHere);
  EXPECT_TRUE(current);
  EXPECT_FALSE(queue->isCurrent());
  ASSERT_TRUE(laterRan.waitFor());
  EXPECT_FALSE(laterBlockOverlapped);
}

TEST(RunHereOrAsync, QueuesBehindEarlierBlocksWhenTheQueueIsBusyOrSuspended) {
  auto queue = DispatchQueue::createSerial("test.here.busy");
  const auto caller = std::this_thread::get_id();
  std::vector<int> order;  // touched by the queue's blocks only
  std::atomic<bool> anyRanOnCaller{false};
  TestLatch firstInside(1);
  TestLatch gate(1);
  queue->async([&] {
    firstInside.countDown();
    EXPECT_TRUE(gate.waitFor());
    order.push_back(0);
  });
  ASSERT_TRUE(firstInside.waitFor());
  for (int i = 1; i <= 20; ++i) {
    // Alternating, so that both kinds of submission sit in the queue together.
    auto block = [&, i] {
      anyRanOnCaller = anyRanOnCaller || std::this_thread::get_id() == caller;
      order.push_back(i);
    };
    if (i % 2 == 0) {
      queue->runHereOrAsync(block);
    } else {
      queue->async(block);
    }
  }
  gate.countDown();
  queue->sync([] {});

  queue->suspend();
  std::atomic<bool> ranWhileSuspended{false};
  queue->runHereOrAsync([&] {
    ranWhileSuspended = true;
    order.push_back(21);
  });
  letThePoolRun();
  EXPECT_FALSE(ranWhileSuspended);
  queue->resume();
  queue->sync([] {});

  std::vector<int> expected(22);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(order, expected);
  EXPECT_FALSE(anyRanOnCaller);
}

TEST(RunHereOrAsync, KeepsOneBlockAtATimeWhileManyThreadsFeedTheQueueBothWays) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 500;
  auto queue = DispatchQueue::createSerial("test.here.mixed");
  OverlapProbe probe;
  std::vector<std::vector<int>> seen(kThreads);  // touched by the queue's blocks only
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        auto block = [&, t, i] {
          probe.enter();
          seen[t].push_back(i);
          probe.leave();
        };
        if ((i + t) % 3 == 0) {
          queue->async(block);
        } else {
          queue->runHereOrAsync(block);
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  queue->sync([] {});
  EXPECT_FALSE(probe.overlapped);
  std::vector<int> expected(kPerThread);
  std::iota(expected.begin(), expected.end(), 0);
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(seen[t], expected) << "thread " << t << "'s blocks ran out of order or got lost";
  }
}

TEST(DispatchQueue, GlobalQueueIsOneQueueThatIgnoresSuspend) {
  auto global = DispatchQueue::global();
  EXPECT_EQ(global, DispatchQueue::global());

  global->suspend();
  auto ran = std::make_shared<TestLatch>(1);
  global->async([ran] { ran->countDown(); });
  EXPECT_TRUE(ran->waitFor());
  global->resume();
}

TEST(DispatchQueueLifetime, PendingBlocksRunAfterTheLastReferenceIsDropped) {
  auto queue = DispatchQueue::createSerial("test.lifetime.pending");
  std::weak_ptr<DispatchQueue> weak = queue;
  TestLatch gate(1);
  TestLatch allRan(1);
  int ran = 0;  // touched by the queue's blocks only
  queue->async([&] { EXPECT_TRUE(gate.waitFor()); });
  for (int i = 0; i < 100; ++i) {
    queue->async([&] {
      if (++ran == 100) {
        allRan.countDown();
      }
    });
  }
  queue.reset();
  gate.countDown();
  ASSERT_TRUE(allRan.waitFor());
  EXPECT_TRUE(waitUntil([&] { return weak.expired(); }));
}

TEST(DispatchQueueLifetime, QueueReleasedFromWithinItsOwnLastBlockIsDestroyedCleanly) {
  auto holder = std::make_shared<std::shared_ptr<DispatchQueue>>(
      DispatchQueue::createSerial("test.lifetime.self-release"));
  std::weak_ptr<DispatchQueue> weak = *holder;
  auto ran = std::make_shared<TestLatch>(1);
  (*holder)->async([holder, ran] {
    holder->reset();  // the last reference outside the dispatch machinery
    ran->countDown();
  });
  ASSERT_TRUE(ran->waitFor());
  EXPECT_TRUE(waitUntil([&] { return weak.expired(); }));

  // A block that captures its own queue releases it once it has run.
  auto queue = DispatchQueue::createConcurrent("test.lifetime.captured");
  weak = queue;
  queue->async([queue, ran] { ran->countDown(); });
  queue->barrierAsync([queue] {});
  queue.reset();
  EXPECT_TRUE(waitUntil([&] { return weak.expired(); }));

  // Also from within a sync block.
  *holder = DispatchQueue::createSerial("test.lifetime.sync-release");
  weak = *holder;
  (*holder)->sync([&] { holder->reset(); });
  EXPECT_TRUE(weak.expired());
}

TEST(DispatchQueueLifetime, ReleasingASuspendedQueueDestroysItsBlocksUnrun) {
  auto queue = DispatchQueue::createSerial("test.lifetime.suspended");
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> weakToken = token;
  queue->suspend();
  queue->async([token] { ADD_FAILURE() << "a block of a released suspended queue ran"; });
  token.reset();
  EXPECT_FALSE(weakToken.expired());
  queue.reset();
  EXPECT_TRUE(weakToken.expired());
}

TEST(DispatchQueueAfter, FiresNothingBeforeTheSchedulerAdvancesThenFiresInDueOrder) {
  ManualScheduler scheduler;
  auto queue = DispatchQueue::createSerial("test.after.manual");
  std::vector<std::string> fired;  // touched by the queue's blocks only
  queue->after(
      3s, [&] { fired.push_back("three"); }, &scheduler);
  queue->after(
      1s, [&] { fired.push_back("one"); }, &scheduler);
  queue->after(
      2s, [&] { fired.push_back("two"); }, &scheduler);

  const auto firedSoFar = [&] {
    std::vector<std::string> copy;
    queue->sync([&] { copy = fired; });
    return copy;
  };
  scheduler.advance(999ms);
  letThePoolRun();
  EXPECT_TRUE(firedSoFar().empty());

  scheduler.advance(1ms);
  EXPECT_EQ(firedSoFar(), (std::vector<std::string>{"one"}));

  scheduler.advance(5s);
  EXPECT_EQ(firedSoFar(), (std::vector<std::string>{"one", "two", "three"}));
  EXPECT_EQ(scheduler.pendingCount(), 0u);
}

TEST(DispatchQueueAfter, RealSchedulerFiresOntoTheQueue) {
  auto queue = DispatchQueue::createSerial("test.after.real");
  auto fired = std::make_shared<TestLatch>(1);
  auto onQueue = std::make_shared<std::atomic<bool>>(false);
  queue->after(1ms, [queue, fired, onQueue] {
    *onQueue = queue->isCurrent();
    fired->countDown();
  });
  ASSERT_TRUE(fired->waitFor());
  EXPECT_TRUE(*onQueue);
}

#ifndef NDEBUG
// Debug builds turn these deadlocks into an abort that names the queue.
class DispatchQueueDeathTest : public testing::Test {
 protected:
  DispatchQueueDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(DispatchQueueDeathTest, SyncOntoTheSerialQueueItRunsOnAbortsNamingTheQueue) {
  EXPECT_DEATH(
      {
        auto queue = DispatchQueue::createSerial("test.death.serial");
        queue->sync([&] { queue->sync([] {}); });
      },
      "sync onto queue 'test.death.serial'");
}

TEST_F(DispatchQueueDeathTest, BarrierSyncFromOwnBlockAndSyncFromOwnBarrierAbort) {
  EXPECT_DEATH(
      {
        auto queue = DispatchQueue::createConcurrent("test.death.barrier");
        queue->sync([&] { queue->barrierSync([] {}); });
      },
      "barrierSync onto queue 'test.death.barrier'");
  EXPECT_DEATH(
      {
        auto queue = DispatchQueue::createConcurrent("test.death.reader");
        queue->barrierSync([&] { queue->sync([] {}); });
      },
      "sync onto queue 'test.death.reader'");
}

TEST_F(DispatchQueueDeathTest, AssertOnQueueAbortsOffTheQueueOnly) {
  auto queue = DispatchQueue::createSerial("test.death.assert");
  queue->sync([&] { DK_ASSERT_ON_QUEUE(*queue, "the store"); });
  EXPECT_DEATH(DK_ASSERT_ON_QUEUE(*queue, "the store"),
               "the store must run on queue 'test.death.assert'");
}

TEST(DispatchQueueDebug, SyncReaderFromAReaderOfTheSameConcurrentQueueIsAllowed) {
  auto queue = DispatchQueue::createConcurrent("test.debug.nested-reader");
  bool ran = false;
  queue->sync([&] { queue->sync([&] { ran = true; }); });
  EXPECT_TRUE(ran);
}
#endif

}  // namespace
}  // namespace daskel::platform
