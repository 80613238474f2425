// IoLoop with real socketpairs on the process-wide loop: handlers that block (announced or
// not) do not stop other descriptors, one registration's handler never runs on two threads at
// once and is re-armed after it returns, and a registration removed while its handler runs
// is released when the handler returns and is not called again. A handler's first pool job
// runs on the handler's thread once the handler has returned, and a handler that waits for
// that job without saying so still gets it run. A descriptor a handler names for handling
// soon goes ahead of one the kernel reported earlier.
#include "platform/ipc/IoLoop.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/dispatch/TestLatch.h"
#include "platform/dispatch/WorkerPool.h"
#include "platform/ipc/IpcTestSupport.h"

namespace daskel::platform {
namespace {

using testing::Inbox;
constexpr auto kDeadline = testing::kIpcTestDeadline;

// A socketpair whose `watched` end is nonblocking; the loop watches that one.
class Pipe {
 public:
  Pipe() {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds), 0);
    watched_ = fds[0];
    other_ = fds[1];
  }
  ~Pipe() {
    ::close(watched_);
    ::close(other_);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int watched() const { return watched_; }
  void write(const std::string& bytes) const {
    ASSERT_EQ(::send(other_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }

 private:
  int watched_ = -1;
  int other_ = -1;
};

// Reads whatever `fd` holds; the number of bytes.
std::size_t drain(int fd) {
  std::size_t total = 0;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) {
      return total;
    }
    total += static_cast<std::size_t>(n);
  }
}

// Registers `pipe` with a handler that drains it and reports each read's size.
IoLoop::RegistrationId watchAndReport(const Pipe& pipe, std::shared_ptr<Inbox<std::size_t>> reads) {
  auto id = IoLoop::shared().add(pipe.watched(), EPOLLIN, [fd = pipe.watched(), reads](std::uint32_t) {
    if (const std::size_t n = drain(fd); n > 0) {
      reads->push(n);
    }
  });
  EXPECT_TRUE(id);
  return id ? *id : 0;
}

TEST(IoLoop, AHandlerThatBlocksDoesNotStopOtherDescriptorsFromBeingServed) {
  // Once waiting where the loop cannot see it, once inside a BlockingScope (as sync() and
  // blocking IPC calls wait): either way another descriptor must be served meanwhile.
  for (const bool announced : {false, true}) {
    SCOPED_TRACE(announced ? "announced wait" : "unannounced wait");
    Pipe blocking, other;
    auto inside = std::make_shared<TestLatch>(1);
    auto release = std::make_shared<TestLatch>(1);
    auto blockingId = IoLoop::shared().add(
        blocking.watched(), EPOLLIN,
        [fd = blocking.watched(), inside, release, announced](std::uint32_t) {
          drain(fd);
          inside->countDown();
          if (announced) {
            WorkerPool::BlockingScope waiting;
            release->waitFor(kDeadline);
          } else {
            release->waitFor(kDeadline);
          }
        });
    ASSERT_TRUE(blockingId);
    auto reads = std::make_shared<Inbox<std::size_t>>();
    const auto otherId = watchAndReport(other, reads);

    blocking.write("x");
    ASSERT_TRUE(inside->waitFor());
    other.write("abc");
    const bool served = reads->waitForCount(1);
    release->countDown();
    EXPECT_TRUE(served) << "the other descriptor waited for the blocked handler";
    IoLoop::shared().remove(*blockingId, blocking.watched());
    IoLoop::shared().remove(otherId, other.watched());
  }
}

TEST(IoLoop, NeverRunsOneRegistrationsHandlerTwiceAtOnceAndReArmsItWhenItReturns) {
  Pipe slow, other;
  struct Probe {
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::atomic<int> calls{0};
    TestLatch firstInside{1};
    TestLatch release{1};
    Inbox<std::size_t> laterReads;
  };
  auto probe = std::make_shared<Probe>();
  auto slowId = IoLoop::shared().add(slow.watched(), EPOLLIN, [fd = slow.watched(), probe](std::uint32_t) {
    if (probe->inside.fetch_add(1) != 0) {
      probe->overlapped = true;
    }
    if (probe->calls.fetch_add(1) == 0) {
      // Leaves the bytes unread, so the socket stays readable all the while.
      probe->firstInside.countDown();
      probe->release.waitFor(kDeadline);
    } else if (const std::size_t n = drain(fd); n > 0) {
      probe->laterReads.push(n);
    }
    probe->inside.fetch_sub(1);
  });
  ASSERT_TRUE(slowId);
  auto reads = std::make_shared<Inbox<std::size_t>>();
  const auto otherId = watchAndReport(other, reads);

  slow.write("1234");
  ASSERT_TRUE(probe->firstInside.waitFor());
  // Another thread serves the loop now and sees the slow socket readable, more than once.
  for (int i = 0; i < 3; ++i) {
    slow.write("5");
    other.write("o");
    ASSERT_TRUE(reads->waitForCount(static_cast<std::size_t>(i) + 1));
  }
  EXPECT_EQ(probe->calls.load(), 1);
  probe->release.countDown();

  // Re-armed when the first call returned: what it left unread is reported and read.
  ASSERT_TRUE(probe->laterReads.waitForCount(1));
  EXPECT_EQ(probe->laterReads.items().front(), 7u);
  EXPECT_FALSE(probe->overlapped);
  IoLoop::shared().remove(*slowId, slow.watched());
  IoLoop::shared().remove(otherId, other.watched());
}

TEST(IoLoop, ARegistrationRemovedWhileItsHandlerRunsIsReleasedWhenItReturnsAndNotCalledAgain) {
  Pipe removed, other;
  auto token = std::make_shared<int>(0);
  auto calls = std::make_shared<std::atomic<int>>(0);
  auto inside = std::make_shared<TestLatch>(1);
  auto release = std::make_shared<TestLatch>(1);
  auto removedId = IoLoop::shared().add(
      removed.watched(), EPOLLIN,
      [fd = removed.watched(), token, calls, inside, release](std::uint32_t) {
        drain(fd);
        if (calls->fetch_add(1) == 0) {
          inside->countDown();
          release->waitFor(kDeadline);
        }
      });
  ASSERT_TRUE(removedId);
  removed.write("a");
  ASSERT_TRUE(inside->waitFor());
  IoLoop::shared().remove(*removedId, removed.watched());
  // The running call still holds what the handler captured.
  EXPECT_EQ(token.use_count(), 2);
  release->countDown();
  EXPECT_TRUE(waitUntil([&] { return token.use_count() == 1; }, kDeadline));

  // Events that come after the removal reach nobody; the loop goes on serving others.
  removed.write("b");
  auto reads = std::make_shared<Inbox<std::size_t>>();
  const auto otherId = watchAndReport(other, reads);
  other.write("o");
  ASSERT_TRUE(reads->waitForCount(1));
  EXPECT_EQ(calls->load(), 1);
  IoLoop::shared().remove(otherId, other.watched());
}

TEST(IoLoop, AHandlersFirstPoolJobRunsOnItsThreadAfterItReturnsAndLaterOnesInOrder) {
  WorkerPool pool(WorkerPool::Options{.baseThreads = 1});
  Pipe pipe;
  struct Probe {
    std::atomic<bool> handlerReturned{false};
    std::thread::id handlerThread;
    std::thread::id firstJobThread;
    bool firstJobSawHandlerReturn = false;
    std::vector<int> order;  // jobs run one at a time (one pool thread, then the handler's)
    std::mutex mutex;
    TestLatch done{3};
  };
  auto probe = std::make_shared<Probe>();
  auto record = [probe](int job) {
    std::lock_guard lock(probe->mutex);
    probe->order.push_back(job);
  };
  auto id = IoLoop::shared().add(pipe.watched(), EPOLLIN, [&pool, fd = pipe.watched(), probe, record](std::uint32_t) {
    drain(fd);
    probe->handlerThread = std::this_thread::get_id();
    pool.submit([probe, record] {
      probe->firstJobThread = std::this_thread::get_id();
      probe->firstJobSawHandlerReturn = probe->handlerReturned;
      record(1);
      probe->done.countDown();
    });
    probe->handlerReturned = true;
  });
  ASSERT_TRUE(id);
  pipe.write("x");
  ASSERT_TRUE(waitUntil([&] { return probe->handlerReturned.load(); }, kDeadline));
  IoLoop::shared().remove(*id, pipe.watched());

  // Two jobs from one handler: the first must not be overtaken by the second.
  Pipe second;
  auto secondId = IoLoop::shared().add(second.watched(), EPOLLIN, [&pool, fd = second.watched(), probe, record](std::uint32_t) {
    drain(fd);
    pool.submit([probe, record] { record(2); probe->done.countDown(); });
    pool.submit([probe, record] { record(3); probe->done.countDown(); });
  });
  ASSERT_TRUE(secondId);
  second.write("y");
  ASSERT_TRUE(probe->done.waitFor());
  IoLoop::shared().remove(*secondId, second.watched());

  std::lock_guard lock(probe->mutex);
  EXPECT_EQ(probe->firstJobThread, probe->handlerThread);
  EXPECT_TRUE(probe->firstJobSawHandlerReturn) << "the kept job ran before its handler returned";
  EXPECT_EQ(probe->order, (std::vector<int>{1, 2, 3}));
}

TEST(IoLoop, AHandlerWaitingForItsOwnPoolJobWithoutSayingSoIsNotDeadlocked) {
  // Waiting on a latch is invisible to the pool and the loop: only the watchdog can let the
  // kept job go to a worker. Announced, the wait lets it go at once.
  for (const bool announced : {false, true}) {
    SCOPED_TRACE(announced ? "announced wait" : "unannounced wait");
    Pipe pipe;
    auto ran = std::make_shared<TestLatch>(1);
    auto result = std::make_shared<std::atomic<int>>(0);  // 1: the job ran in time, 2: not
    auto id = IoLoop::shared().add(pipe.watched(), EPOLLIN, [fd = pipe.watched(), ran, result, announced](std::uint32_t) {
      drain(fd);
      WorkerPool::shared().submit([ran] { ran->countDown(); });
      bool inTime;
      if (announced) {
        WorkerPool::BlockingScope waiting;
        inTime = ran->waitFor(kDeadline);
      } else {
        inTime = ran->waitFor(kDeadline);
      }
      *result = inTime ? 1 : 2;
    });
    ASSERT_TRUE(id);
    pipe.write("x");
    ASSERT_TRUE(waitUntil([&] { return result->load() != 0; }, 2 * kDeadline));
    EXPECT_EQ(result->load(), 1);
    IoLoop::shared().remove(*id, pipe.watched());
  }
}

TEST(IoLoop, ADescriptorAHandlerNamesForHandlingSoonGoesAheadOfOnesTheKernelReportedFirst) {
  // The kernel reports ready descriptors in the order they became ready: `older` before
  // `fresh`, whose input was written before it was registered. Named by the trigger's handler,
  // `fresh` is handled first, and also when it has no input at all.
  for (const bool freshHasInput : {true, false}) {
    SCOPED_TRACE(freshHasInput ? "fresh with input" : "fresh without input");
    Pipe trigger;
    Pipe older;
    Pipe fresh;
    auto order = std::make_shared<Inbox<std::string>>();
    auto named = std::make_shared<std::atomic<IoLoop::RegistrationId>>(0);
    auto report = [order](const Pipe& pipe, const std::string& name) {
      return IoLoop::shared().add(
          pipe.watched(), EPOLLIN, [fd = pipe.watched(), order, name](std::uint32_t events) {
            drain(fd);
            order->push(name + ((events & EPOLLIN) ? "" : " without EPOLLIN"));
          });
    };
    auto olderId = report(older, "older");
    ASSERT_TRUE(olderId);
    auto triggerId =
        IoLoop::shared().add(trigger.watched(), EPOLLIN, [&, order, named](std::uint32_t) {
          drain(trigger.watched());
          older.write("o");
          if (freshHasInput) {
            fresh.write("f");
          }
          auto freshId = report(fresh, "fresh");
          ASSERT_TRUE(freshId);
          *named = *freshId;
          IoLoop::shared().handleSoon(*freshId, EPOLLIN);
          order->push("trigger");
        });
    ASSERT_TRUE(triggerId);
    trigger.write("t");
    ASSERT_TRUE(order->waitForCount(3));
    EXPECT_EQ(order->items(), (std::vector<std::string>{"trigger", "fresh", "older"}));
    IoLoop::shared().remove(*triggerId, trigger.watched());
    IoLoop::shared().remove(*olderId, older.watched());
    IoLoop::shared().remove(named->load(), fresh.watched());
  }
}

TEST(IoLoop, NamingADescriptorForHandlingSoonOutsideTheLoopLeavesItToTheKernel) {
  Pipe quiet;
  Pipe later;
  auto calls = std::make_shared<Inbox<std::string>>();
  auto quietId = IoLoop::shared().add(quiet.watched(), EPOLLIN,
                                      [calls](std::uint32_t) { calls->push("quiet"); });
  ASSERT_TRUE(quietId);
  IoLoop::shared().handleSoon(*quietId, EPOLLIN);  // not a loop thread: nothing happens
  auto laterId =
      IoLoop::shared().add(later.watched(), EPOLLIN, [fd = later.watched(), calls](std::uint32_t) {
        drain(fd);
        calls->push("later");
      });
  ASSERT_TRUE(laterId);
  later.write("x");
  ASSERT_TRUE(calls->waitForCount(1));
  EXPECT_EQ(calls->items(), (std::vector<std::string>{"later"}));
  IoLoop::shared().remove(*quietId, quiet.watched());
  IoLoop::shared().remove(*laterId, later.watched());
}

}  // namespace
}  // namespace daskel::platform
