#include "platform/identity/ProcessAncestry.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

#include <gtest/gtest.h>

namespace daskel::platform {
namespace {

using namespace std::chrono_literals;

bool waitUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline)
      return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

bool exists(pid_t pid) {
  return std::filesystem::exists("/proc/" + std::to_string(pid));
}

// A child of this process and a child of that child, both idle until killed; the child reaps
// the grandchild when it ends. The destructor kills whichever is still running, grandchild
// first (letting the child reap it), and reaps the child.
class ThreeGenerations {
 public:
  ThreeGenerations() {
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0)
      return;
    child_ = ::fork();
    if (child_ == 0) {
      // Only async-signal-safe calls from here on: other threads of the test may hold locks.
      const pid_t grandchild = ::fork();
      if (grandchild == 0) {
        for (;;)
          ::pause();
      }
      (void)::write(pipe[1], &grandchild, sizeof grandchild);
      while (::waitpid(grandchild, nullptr, 0) < 0 && errno == EINTR) {
      }
      for (;;)
        ::pause();
    }
    ::close(pipe[1]);
    if (child_ > 0 && ::read(pipe[0], &grandchild_, sizeof grandchild_) != sizeof grandchild_)
      grandchild_ = -1;
    ::close(pipe[0]);
  }
  ~ThreeGenerations() {
    if (grandchild_ > 0 && !grandchildEnded_) {
      ::kill(grandchild_, SIGKILL);
      // Reaped by the child, or here when this process has become the orphan's reaper.
      waitUntil([&] {
        ::waitpid(grandchild_, nullptr, WNOHANG);
        return !exists(grandchild_);
      });
    }
    if (child_ > 0 && !childEnded_) {
      ::kill(child_, SIGKILL);
      ::waitpid(child_, nullptr, 0);
    }
  }
  ThreeGenerations(const ThreeGenerations&) = delete;
  ThreeGenerations& operator=(const ThreeGenerations&) = delete;

  bool started() const { return child_ > 0 && grandchild_ > 0; }
  pid_t child() const { return child_; }
  pid_t grandchild() const { return grandchild_; }

  // Kills the child and reaps it; the grandchild lives on as an orphan.
  bool endChild() {
    childEnded_ = true;
    return ::kill(child_, SIGKILL) == 0 && ::waitpid(child_, nullptr, 0) == child_;
  }
  // Kills the grandchild and waits until it is gone: reaped by the child, or by this process
  // when `reapHere` (it has become the orphan's reaper).
  bool endGrandchild(bool reapHere = false) {
    grandchildEnded_ = true;
    if (::kill(grandchild_, SIGKILL) != 0)
      return false;
    if (reapHere)
      return ::waitpid(grandchild_, nullptr, 0) == grandchild_;
    return waitUntil([&] { return !exists(grandchild_); });
  }

 private:
  pid_t child_ = -1;
  pid_t grandchild_ = -1;
  bool childEnded_ = false;
  bool grandchildEnded_ = false;
};

TEST(ProcessAncestry, TheParentIsCountedAfterTheLastParenthesisOfTheCommandName) {
  EXPECT_EQ(parseParentProcessId("4242 (sleep) S 17 4242 4242 0 -1 4194560\n"), 17);
  // A command name made to shift naive field counting.
  EXPECT_EQ(parseParentProcessId("4242 (a) R 99 (b) Z 23 4242 4242 0 -1\n"), 23);
  EXPECT_EQ(parseParentProcessId("1 (init) S 0 1 1 0 -1"), 0);
  EXPECT_FALSE(parseParentProcessId(""));
  EXPECT_FALSE(parseParentProcessId("4242 sleep S 17 4242"));
  EXPECT_FALSE(parseParentProcessId("4242 (sleep) S"));
  EXPECT_FALSE(parseParentProcessId("4242 (sleep) S x17 4242"));
  EXPECT_FALSE(parseParentProcessId("4242 (sleep) S -3 4242"));
}

TEST(ProcessAncestry, ParentsAreReadFromProcForRealProcesses) {
  ThreeGenerations family;
  ASSERT_TRUE(family.started());
  EXPECT_EQ(readParentProcessId(::getpid()).value_or(-1), ::getppid());
  EXPECT_EQ(readParentProcessId(family.child()).value_or(-1), ::getpid());
  EXPECT_EQ(readParentProcessId(family.grandchild()).value_or(-1), family.child());

  // Beyond the largest pid the kernel hands out: an error naming the /proc path.
  auto absent = readParentProcessId(0x7ffffff0);
  ASSERT_FALSE(absent);
  EXPECT_EQ(absent.error()->code, ENOENT);
  EXPECT_NE(absent.error()->description().find("/proc/2147483632/stat"), std::string::npos)
      << absent.error()->description();
}

TEST(ProcessAncestry, AGrandchildDescendsFromItsParentAndGrandparentButNotFromAStranger) {
  ThreeGenerations family;
  ThreeGenerations stranger;
  ASSERT_TRUE(family.started() && stranger.started());
  auto is = [](pid_t wanted) { return [wanted](pid_t pid) { return pid == wanted; }; };

  EXPECT_TRUE(isProcessOrDescendantOf(family.grandchild(), is(family.grandchild())));
  EXPECT_TRUE(isProcessOrDescendantOf(family.grandchild(), is(family.child())));
  EXPECT_TRUE(isProcessOrDescendantOf(family.grandchild(), is(::getpid())));
  EXPECT_FALSE(isProcessOrDescendantOf(family.grandchild(), is(stranger.child())));
  EXPECT_FALSE(isProcessOrDescendantOf(stranger.grandchild(), is(family.child())));
  // Ancestry runs one way only.
  EXPECT_FALSE(isProcessOrDescendantOf(family.child(), is(family.grandchild())));
}

TEST(ProcessAncestry, TheWalkStopsAfterTheGivenNumberOfGenerations) {
  ThreeGenerations family;
  ASSERT_TRUE(family.started());
  std::set<pid_t> asked;
  auto isThisProcess = [&](pid_t pid) {
    asked.insert(pid);
    return pid == ::getpid();
  };
  EXPECT_FALSE(isProcessOrDescendantOf(family.grandchild(), isThisProcess, 1));
  EXPECT_EQ(asked, (std::set<pid_t>{family.grandchild(), family.child()}));

  asked.clear();
  EXPECT_TRUE(isProcessOrDescendantOf(family.grandchild(), isThisProcess, 2));
  EXPECT_EQ(asked, (std::set<pid_t>{family.grandchild(), family.child(), ::getpid()}));

  // No generation at all: only the process itself.
  asked.clear();
  EXPECT_FALSE(isProcessOrDescendantOf(family.grandchild(), isThisProcess, 0));
  EXPECT_EQ(asked, std::set<pid_t>{family.grandchild()});
}

TEST(ProcessAncestry, AVanishedProcessDescendsFromNobody) {
  ThreeGenerations family;
  ASSERT_TRUE(family.started());
  const pid_t gone = family.grandchild();
  ASSERT_TRUE(family.endGrandchild());
  EXPECT_FALSE(isProcessOrDescendantOf(gone, [&](pid_t pid) { return pid == family.child(); }));
  EXPECT_FALSE(isProcessOrDescendantOf(0, [](pid_t) { return true; }));
}

TEST(ProcessAncestry, AProcessWhoseParentEndedNoLongerDescendsFromIt) {
  // This process takes in the orphan, so that the test can reap it, for the length of the
  // test.
  ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  struct SubreaperScope {
    ~SubreaperScope() { ::prctl(PR_SET_CHILD_SUBREAPER, 0); }
  } subreaper;
  {
    ThreeGenerations family;
    ASSERT_TRUE(family.started());
    const pid_t child = family.child();
    ASSERT_TRUE(family.endChild());
    ASSERT_TRUE(waitUntil(
        [&] { return readParentProcessId(family.grandchild()).value_or(-1) == ::getpid(); }));
    EXPECT_FALSE(
        isProcessOrDescendantOf(family.grandchild(), [&](pid_t pid) { return pid == child; }));
    EXPECT_TRUE(
        isProcessOrDescendantOf(family.grandchild(), [](pid_t pid) { return pid == ::getpid(); }));
    EXPECT_TRUE(family.endGrandchild(/*reapHere=*/true));
  }
}

}  // namespace
}  // namespace daskel::platform
