#include "platform/notify/SystemNotifyCenter.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/log/CapturingLogSink.h"
#include "platform/value/Error.h"

namespace daskel::platform {
namespace {

using namespace std::chrono_literals;
constexpr auto kDeliveryTimeout = 10s;

// Records the names an observer was called with, and whether each call ran on the queue the
// observer was registered with. Tests wait on it with a deadline.
class Recorder : public std::enable_shared_from_this<Recorder> {
 public:
  SystemNotifyCenter::Callback callback(std::shared_ptr<DispatchQueue> expectedQueue = nullptr) {
    return [self = shared_from_this(), expectedQueue](const std::string& name) {
      const bool onQueue = expectedQueue ? expectedQueue->isCurrent() : true;
      std::lock_guard lock(self->mutex_);
      ++self->counts_[name];
      if (!onQueue)
        ++self->offQueueCalls_;
      self->changed_.notify_all();
    };
  }

  int count(const std::string& name) const {
    std::lock_guard lock(mutex_);
    auto found = counts_.find(name);
    return found == counts_.end() ? 0 : found->second;
  }
  int total() const {
    std::lock_guard lock(mutex_);
    int sum = 0;
    for (const auto& entry : counts_)
      sum += entry.second;
    return sum;
  }
  int offQueueCalls() const {
    std::lock_guard lock(mutex_);
    return offQueueCalls_;
  }

  // Waits until `name` was delivered more than `previous` times.
  bool waitForMoreThan(const std::string& name, int previous) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kDeliveryTimeout, [&] {
      auto found = counts_.find(name);
      return found != counts_.end() && found->second > previous;
    });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::map<std::string, int> counts_;
  int offQueueCalls_ = 0;
};

// Runs `program` with `arguments` in a child process and returns its exit status.
int runProcess(const char* program, std::vector<std::string> arguments) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program));
  for (auto& argument : arguments)
    argv.push_back(argument.data());
  argv.push_back(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    ::execvp(program, argv.data());
    ::_exit(127);
  }
  EXPECT_GT(child, 0);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The process's umask, read without changing it (other threads may be creating files).
mode_t currentUmask() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("Umask:"))
      return static_cast<mode_t>(std::stoul(line.substr(6), nullptr, 8));
  }
  ADD_FAILURE() << "no Umask line in /proc/self/status";
  return 022;
}

class SystemNotifyCenterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/daskel-notify-test-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
    directory_ = root_ + "/run/daskel/notifications";
  }
  void TearDown() override { std::filesystem::remove_all(root_); }

  std::shared_ptr<SystemNotifyCenter> makeCenter() {
    auto center = SystemNotifyCenter::createForDirectory(directory_);
    EXPECT_TRUE(center.has_value()) << (center ? "" : center.error()->description());
    return center ? *center : nullptr;
  }

  std::string root_;
  std::string directory_;
};

TEST_F(SystemNotifyCenterTest, CreatingACenterMakesItsMissingDirectory) {
  auto center = makeCenter();
  ASSERT_TRUE(center);
  struct stat status {};
  ASSERT_EQ(::stat(directory_.c_str(), &status), 0);
  EXPECT_TRUE(S_ISDIR(status.st_mode));
  const mode_t mask = currentUmask();
  EXPECT_EQ(status.st_mode & 0777, 0755 & ~mask);

  // An existing directory is used as it is.
  center.reset();
  EXPECT_TRUE(SystemNotifyCenter::createForDirectory(directory_).has_value());
}

TEST_F(SystemNotifyCenterTest, CreatingACenterOnAFileFails) {
  const std::string file = root_ + "/plain-file";
  std::ofstream(file) << "x";
  auto center = SystemNotifyCenter::createForDirectory(file);
  ASSERT_FALSE(center.has_value());
  EXPECT_EQ(center.error()->domain, "posix");
  EXPECT_EQ(center.error()->code, ENOTDIR);

  center = SystemNotifyCenter::createForDirectory(file + "/below");
  ASSERT_FALSE(center.has_value());
  EXPECT_EQ(center.error()->code, ENOTDIR);
}

TEST_F(SystemNotifyCenterTest, APostByAnotherProcessReachesTheObserver) {
  auto center = makeCenter();
  ASSERT_TRUE(center);
  auto queue = DispatchQueue::createSerial("notify-test.observer");
  auto recorder = std::make_shared<Recorder>();
  center->addObserver("from.elsewhere", recorder->callback(queue), queue);
  const std::string file = directory_ + "/from.elsewhere";

  // The first touch creates the file, the second only changes its times.
  ASSERT_EQ(runProcess("touch", {file}), 0);
  ASSERT_TRUE(recorder->waitForMoreThan("from.elsewhere", 0));
  queue->sync([] {});
  const int afterCreation = recorder->count("from.elsewhere");
  ASSERT_EQ(runProcess("touch", {file}), 0);
  EXPECT_TRUE(recorder->waitForMoreThan("from.elsewhere", afterCreation));
}

TEST_F(SystemNotifyCenterTest, APostReachesTheObserversOfItsNameOnTheirQueuesAndNoOthers) {
  auto center = makeCenter();
  ASSERT_TRUE(center);
  // One serial queue for every observer: the watcher submits in event order, so once the
  // last post has been delivered, everything the earlier posts caused has run too.
  auto queue = DispatchQueue::createSerial("notify-test.observer");
  auto recorder = std::make_shared<Recorder>();
  for (const char* name : {kFirstUnlockNotification, "note.other", "not", "last"}) {
    center->addObserver(name, recorder->callback(queue), queue);
  }

  ASSERT_TRUE(center->post(kFirstUnlockNotification).has_value());
  ASSERT_TRUE(center->post("unobserved").has_value());
  ASSERT_TRUE(center->post("last").has_value());
  ASSERT_TRUE(recorder->waitForMoreThan("last", 0));
  queue->sync([] {});

  EXPECT_TRUE(std::filesystem::is_regular_file(directory_ + "/" + kFirstUnlockNotification));
  EXPECT_GE(recorder->count(kFirstUnlockNotification), 1);
  EXPECT_EQ(recorder->count("note.other"), 0);
  EXPECT_EQ(recorder->count("not"), 0);
  EXPECT_EQ(recorder->count("unobserved"), 0);
  EXPECT_EQ(recorder->offQueueCalls(), 0);
}

TEST_F(SystemNotifyCenterTest, EveryObserverOfANameIsCalledWithoutAQueueOnTheGlobalOne) {
  auto center = makeCenter();
  ASSERT_TRUE(center);
  auto first = std::make_shared<Recorder>();
  auto second = std::make_shared<Recorder>();
  auto onGlobal = std::make_shared<Recorder>();
  auto firstQueue = DispatchQueue::createSerial("notify-test.first");
  auto secondQueue = DispatchQueue::createConcurrent("notify-test.second");
  center->addObserver("shared.name", first->callback(firstQueue), firstQueue);
  center->addObserver("shared.name", second->callback(secondQueue), secondQueue);
  center->addObserver("shared.name", onGlobal->callback(DispatchQueue::global()));

  ASSERT_TRUE(center->post("shared.name").has_value());
  for (const auto& recorder : {first, second, onGlobal}) {
    EXPECT_TRUE(recorder->waitForMoreThan("shared.name", 0));
    EXPECT_EQ(recorder->offQueueCalls(), 0);
  }
}

TEST_F(SystemNotifyCenterTest, RepeatedPostsAreEachDelivered) {
  auto center = makeCenter();
  ASSERT_TRUE(center);
  auto queue = DispatchQueue::createSerial("notify-test.observer");
  auto recorder = std::make_shared<Recorder>();
  center->addObserver("again", recorder->callback(queue), queue);

  for (int round = 0; round < 25; ++round) {
    queue->sync([] {});  // let the deliveries of the previous post finish
    const int before = recorder->count("again");
    ASSERT_TRUE(center->post("again").has_value());
    ASSERT_TRUE(recorder->waitForMoreThan("again", before)) << "post " << round << " was lost";
  }
}

TEST_F(SystemNotifyCenterTest, DestroyingACenterWithPendingDeliveriesIsClean) {
  auto queue = DispatchQueue::createSerial("notify-test.observer");
  auto recorder = std::make_shared<Recorder>();
  for (int round = 0; round < 20; ++round) {
    auto center = makeCenter();
    ASSERT_TRUE(center);
    center->addObserver("busy", recorder->callback(queue), queue);
    center->addObserver("idle", recorder->callback(queue), queue);
    ASSERT_TRUE(center->post("busy").has_value());
    // Destroyed while its watcher may be reading the events or submitting callbacks.
  }
  queue->sync([] {});
  EXPECT_EQ(recorder->count("idle"), 0);

  // A callback still running when its center goes away keeps what it captured.
  auto center = makeCenter();
  ASSERT_TRUE(center);
  std::mutex mutex;
  std::condition_variable changed;
  bool started = false;
  bool release = false;
  auto finished = std::make_shared<std::atomic<int>>(0);
  center->addObserver(
      "slow",
      [&, finished](const std::string&) {
        std::unique_lock lock(mutex);
        if (!started) {
          started = true;
          changed.notify_all();
          changed.wait(lock, [&] { return release; });
        }
        ++*finished;
      },
      queue);
  ASSERT_TRUE(center->post("slow").has_value());
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, kDeliveryTimeout, [&] { return started; }));
  }
  center.reset();
  {
    std::lock_guard lock(mutex);
    release = true;
  }
  changed.notify_all();
  queue->sync([] {});
  EXPECT_GE(finished->load(), 1);
}

TEST_F(SystemNotifyCenterTest, BadNamesAreRefused) {
  auto center = makeCenter();
  ASSERT_TRUE(center);
  for (const std::string& name :
       {std::string(), std::string("a/b"), std::string("/etc/passwd"), std::string("."),
        std::string(".."), std::string("../escape"), std::string("nul\0inside", 10)}) {
    SCOPED_TRACE("name \"" + name + "\"");
    EXPECT_FALSE(SystemNotifyCenter::isValidName(name));
    auto posted = center->post(name);
    ASSERT_FALSE(posted.has_value());
    EXPECT_EQ(posted.error()->domain, "posix");
    EXPECT_EQ(posted.error()->code, EINVAL);
  }
  EXPECT_TRUE(std::filesystem::is_empty(directory_));
  EXPECT_FALSE(std::filesystem::exists(root_ + "/run/daskel/escape"));

  // Names that merely look odd are files like any other.
  for (const char* name : {"...", ".hidden", "with space", "com.orvane.first-unlock"}) {
    EXPECT_TRUE(SystemNotifyCenter::isValidName(name)) << name;
    EXPECT_TRUE(center->post(name).has_value()) << name;
    EXPECT_TRUE(std::filesystem::is_regular_file(directory_ + "/" + name)) << name;
  }
}

TEST_F(SystemNotifyCenterTest, APostThatCannotWriteItsFileReturnsThePosixError) {
  CapturingLogSink::Scope capture({kLogDebug, kLogError, kLogDebug});
  auto center = makeCenter();
  ASSERT_TRUE(center);
  std::filesystem::remove_all(directory_);

  auto posted = center->post("lost");
  ASSERT_FALSE(posted.has_value());
  EXPECT_EQ(posted.error()->domain, "posix");
  EXPECT_EQ(posted.error()->code, ENOENT);
  const Value* path =
      posted.error()->userInfo.count("path") ? &posted.error()->userInfo.at("path") : nullptr;
  ASSERT_NE(path, nullptr);
  ASSERT_NE(path->string(), nullptr);
  EXPECT_EQ(*path->string(), directory_ + "/lost");

  // The watcher notices that its directory is gone and says so.
  EXPECT_TRUE(capture->waitFor(
      "Notifications directory " + directory_ + " is no longer watched (removed or unmounted)",
      kDeliveryTimeout));
}

// Run in a fresh process by the death test below: an exit code, 0 when all went well. (That
// the shared center delivers is shown end to end by the daemon's first-unlock re-read.)
int unavailableSharedCenterLogsOnceAndRefusesPosts(const std::string& runtime) {
  ::setenv("DASKEL_RUNTIME_DIR", runtime.c_str(), 1);
  CapturingLogSink::Scope capture({kLogDebug, kLogError, kLogDebug});
  auto center = SystemNotifyCenter::shared();
  if (!center || center != SystemNotifyCenter::shared())
    return 2;
  auto recorder = std::make_shared<Recorder>();
  center->addObserver("never", recorder->callback());
  auto posted = center->post("never");
  if (posted || posted.error()->code != ENOTDIR)
    return 3;
  int setupErrors = 0;
  int postErrors = 0;
  for (const auto& line : capture->lines()) {
    if (line.level != kLogError)
      continue;
    if (line.message.starts_with("Cannot watch notifications directory " + runtime +
                                 "/notifications; notifications are disabled")) {
      ++setupErrors;
    }
    if (line.message.starts_with("Cannot post notification never: "))
      ++postErrors;
  }
  if (setupErrors != 1 || postErrors != 1)
    return 4;
  if (recorder->total() != 0)
    return 5;
  return 0;
}

// The shared center is process-wide, so this runs in a fresh process of its own. The child
// runs SetUp too (its own temporary directory) but not TearDown, so it cleans up itself.
TEST_F(SystemNotifyCenterTest, ASharedCenterThatCannotBeCreatedLogsOnceAndNeverDelivers) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        // A regular file where the runtime directory should be: nothing can be made below it.
        const std::string runtime = root_ + "/runtime-is-a-file";
        std::ofstream(runtime) << "x";
        const int code = unavailableSharedCenterLogsOnceAndRefusesPosts(runtime);
        std::filesystem::remove_all(root_);
        ::_exit(code);
      },
      ::testing::ExitedWithCode(0), "Cannot watch notifications directory");
}

}  // namespace
}  // namespace daskel::platform
