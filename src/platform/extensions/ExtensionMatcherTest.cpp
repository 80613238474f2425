#include "platform/extensions/ExtensionMatcher.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/extensions/ExtensionTestSupport.h"
#include "platform/log/CapturingLogSink.h"
#include "platform/plist/PropertyList.h"

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;
using extension_test::BundleContent;
using extension_test::infoPlistPath;
using extension_test::kProviderPoint;
using extension_test::replaceFile;
using extension_test::TemporaryTree;
using Records = ExtensionMatcher::Records;

// Long enough for a loaded machine under sanitizers; only ever reached when a report is lost.
constexpr std::chrono::seconds kDeadline{10};

BundleContent content(const std::string& identifier, const std::string& point = kProviderPoint) {
  BundleContent result;
  result.identifier = identifier;
  result.point = point;
  return result;
}

std::vector<std::string> identifiers(const Records& records) {
  std::vector<std::string> result;
  for (const auto& record : records)
    result.push_back(record->identifier());
  return result;
}

std::string describe(const Records& records) {
  std::ostringstream out;
  out << "[";
  for (const auto& record : records)
    out << " " << record->description();
  out << " ]";
  return out.str();
}

// Keeps every list the handler receives, and notes whether two calls ever overlapped.
class ReportLog {
 public:
  ExtensionMatcher::Handler handler(std::function<void()> during = {}) {
    return [this, during = std::move(during)](const Records& records) {
      const int active = ++active_;
      int seen = maxActive_.load();
      while (active > seen && !maxActive_.compare_exchange_weak(seen, active)) {
      }
      // Not atomic on purpose: two calls at once are a data race that TSan reports.
      ++unsynchronisedCalls_;
      if (during)
        during();
      {
        std::lock_guard lock(mutex_);
        reports_.push_back(records);
      }
      --active_;
      changed_.notify_all();
    };
  }

  // Waits until the newest report satisfies `predicate`; true when it did before the deadline.
  bool waitForLatest(const std::function<bool(const Records&)>& predicate) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kDeadline,
                             [&] { return !reports_.empty() && predicate(reports_.back()); });
  }
  bool waitForLatestIdentifiers(const std::vector<std::string>& expected) {
    return waitForLatest([&](const Records& records) { return identifiers(records) == expected; });
  }

  std::vector<Records> reports() const {
    std::lock_guard lock(mutex_);
    return reports_;
  }
  std::size_t count() const {
    std::lock_guard lock(mutex_);
    return reports_.size();
  }
  std::string latestDescription() const {
    std::lock_guard lock(mutex_);
    return reports_.empty() ? "(no report)" : describe(reports_.back());
  }
  int maxActive() const { return maxActive_.load(); }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Records> reports_;
  std::atomic<int> active_{0};
  std::atomic<int> maxActive_{0};
  int unsynchronisedCalls_ = 0;
};

// A queue that keeps what is submitted until the test runs it on its own thread, so a test
// can hold reports back and decide when (and whether) they run.
class HeldQueue final : public DispatchQueue {
 public:
  const std::string& label() const override { return label_; }
  Kind kind() const override { return Kind::Serial; }
  void async(DispatchBlock block) override {
    {
      std::lock_guard lock(mutex_);
      blocks_.push_back(std::move(block));
    }
    submitted_.notify_all();
  }
  void barrierAsync(DispatchBlock block) override { async(std::move(block)); }
  void sync(std::function<void()> block) override { block(); }
  void barrierSync(std::function<void()> block) override { block(); }
  void suspend() override {}
  void resume() override {}
  bool isCurrent() const override { return false; }

  bool waitForBlocks(std::size_t count) {
    std::unique_lock lock(mutex_);
    return submitted_.wait_for(lock, kDeadline, [&] { return blocks_.size() >= count; });
  }
  // Runs held blocks, and the ones they submit, until none is left; returns how many ran.
  int runAll() {
    int ran = 0;
    for (;;) {
      DispatchBlock block;
      {
        std::lock_guard lock(mutex_);
        if (blocks_.empty())
          return ran;
        block = std::move(blocks_.front());
        blocks_.pop_front();
      }
      block();
      ++ran;
    }
  }

 private:
  const std::string label_ = "held";
  std::mutex mutex_;
  std::condition_variable submitted_;
  std::deque<DispatchBlock> blocks_;
};

class ExtensionMatcherTest : public ::testing::Test {
 protected:
  ExtensionMatchingOptions options(std::vector<std::string> directories) const {
    ExtensionMatchingOptions result;
    result.directories = std::move(directories);
    result.groupContainersDirectory = tree_.path("containers");
    result.settleTime = std::chrono::milliseconds(20);
    return result;
  }

  std::unique_ptr<ExtensionMatcher> start(std::vector<std::string> directories,
                                          std::shared_ptr<DispatchQueue> queue = nullptr,
                                          ExtensionMatcher::Handler handler = {}) {
    if (!queue)
      queue = DispatchQueue::createSerial("ExtensionMatcherTest reports");
    auto matcher = ExtensionMatcher::start(kProviderPoint, std::move(queue),
                                           handler ? std::move(handler) : log_.handler(),
                                           options(std::move(directories)));
    EXPECT_TRUE(matcher) << matcher.error()->description();
    return matcher ? std::move(*matcher) : nullptr;
  }

  TemporaryTree tree_;
  const std::string first_ = tree_.directory("local/extensions");
  const std::string second_ = tree_.directory("system/extensions");
  // Declared before any matcher a test makes, so it outlives the matcher's handler calls.
  ReportLog log_;
};

TEST_F(ExtensionMatcherTest, TheFirstReportHoldsEveryMatchingBundleInSearchOrder) {
  tree_.bundle(second_, "Alpha.dkext", content("com.example.second"));
  tree_.bundle(first_, "Beta.dkext", content("com.example.first"));
  tree_.bundle(first_, "Share.dkext", content("com.example.share", "com.orvane.share-services"));
  tree_.directory("local/extensions/Empty.dkext");  // no Info.plist

  CapturingLogSink::Scope capture;
  auto matcher = start({first_, second_});
  ASSERT_TRUE(log_.waitForLatest([](const Records&) { return true; }));
  const Records first = log_.reports().front();
  EXPECT_EQ(identifiers(first),
            (std::vector<std::string>{"com.example.first", "com.example.second"}))
      << describe(first);
  EXPECT_EQ(capture->count(kLogError,
                           "Ignoring extension bundle " + first_ + "/Empty.dkext: no Info.plist"),
            1u);
  EXPECT_EQ(matcher->extensionPointIdentifier(), kProviderPoint);
}

TEST_F(ExtensionMatcherTest, AnEmptyInstallationIsReportedAsAnEmptyList) {
  auto matcher = start({first_, tree_.path("absent/extensions")});
  EXPECT_TRUE(log_.waitForLatest([](const Records& records) { return records.empty(); }));
  EXPECT_EQ(log_.count(), 1u);
}

TEST_F(ExtensionMatcherTest, AddingRenamingAndRemovingBundlesIsReportedWithTheFullList) {
  tree_.bundle(first_, "A.dkext", content("com.example.a"));
  auto matcher = start({first_, second_});
  ASSERT_TRUE(log_.waitForLatestIdentifiers({"com.example.a"})) << log_.latestDescription();

  // Added: the report holds both, not just the new one.
  tree_.bundle(second_, "B.dkext", content("com.example.b"));
  ASSERT_TRUE(log_.waitForLatestIdentifiers({"com.example.a", "com.example.b"}))
      << log_.latestDescription();

  // Renamed: same identifier and files, another bundle location.
  ASSERT_EQ(::rename((second_ + "/B.dkext").c_str(), (second_ + "/Renamed.dkext").c_str()), 0);
  ASSERT_TRUE(log_.waitForLatest([&](const Records& records) {
    return records.size() == 2 && records[1]->bundlePath() == second_ + "/Renamed.dkext";
  })) << log_.latestDescription();

  // Moved out of the search path and into another search directory.
  ASSERT_EQ(::rename((first_ + "/A.dkext").c_str(), tree_.path("A.dkext").c_str()), 0);
  ASSERT_TRUE(log_.waitForLatestIdentifiers({"com.example.b"})) << log_.latestDescription();

  // Removed.
  fs::remove_all(second_ + "/Renamed.dkext");
  ASSERT_TRUE(log_.waitForLatestIdentifiers({})) << log_.latestDescription();
}

TEST_F(ExtensionMatcherTest, AnInfoPlistRewrittenInPlaceOrReplacedByRenameIsReported) {
  const std::string bundle = tree_.bundle(first_, "P.dkext", content("com.example.p"));
  auto matcher = start({first_});
  ASSERT_TRUE(log_.waitForLatestIdentifiers({"com.example.p"})) << log_.latestDescription();
  const auto before = log_.reports().back().front();

  // A file of the extension's own written in the bundle changes nothing; the same inode of
  // Info.plist rewritten does (the bundle directory is not watched for writes, the file is).
  extension_test::writeFile(bundle + "/own.log", "written by the extension\n", 0644);
  BundleContent updated = content("com.example.p");
  updated.version = "2.0";
  struct stat old;
  ASSERT_EQ(::stat(infoPlistPath(bundle).c_str(), &old), 0);
  extension_test::writeFile(infoPlistPath(bundle), serializeXmlPropertyList(updated.info()), 0644);
  struct stat rewritten;
  ASSERT_EQ(::stat(infoPlistPath(bundle).c_str(), &rewritten), 0);
  ASSERT_EQ(rewritten.st_ino, old.st_ino);
  ASSERT_TRUE(log_.waitForLatest([](const Records& records) {
    return records.size() == 1 && records[0]->version() == "2.0";
  })) << log_.latestDescription();
  EXPECT_NE(*log_.reports().back().front(), *before);

  updated.version = "3.0";
  replaceFile(infoPlistPath(bundle), serializeXmlPropertyList(updated.info()));
  ASSERT_TRUE(log_.waitForLatest([](const Records& records) {
    return records.size() == 1 && records[0]->version() == "3.0";
  })) << log_.latestDescription();
}

TEST_F(ExtensionMatcherTest, AnExecutableReplacedByANewFileIsReported) {
  const std::string bundle = tree_.bundle(first_, "P.dkext", content("com.example.p"));
  auto matcher = start({first_});
  ASSERT_TRUE(log_.waitForLatestIdentifiers({"com.example.p"})) << log_.latestDescription();
  const ExecutableIdentity before = log_.reports().back().front()->executableIdentity();

  // A new inode with the old bytes and the old modification time: only the inode tells.
  const std::string executable = bundle + "/provider";
  struct stat old;
  ASSERT_EQ(::stat(executable.c_str(), &old), 0);
  extension_test::writeFile(executable + ".new", extension_test::executableBytes(), 0755);
  const struct timespec times[2] = {old.st_atim, old.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, (executable + ".new").c_str(), times, 0), 0);
  ASSERT_EQ(::rename((executable + ".new").c_str(), executable.c_str()), 0);
  struct stat replaced;
  ASSERT_EQ(::stat(executable.c_str(), &replaced), 0);
  ASSERT_NE(replaced.st_ino, before.inode);

  ASSERT_TRUE(log_.waitForLatest([&](const Records& records) {
    return records.size() == 1 && records[0]->executableIdentity().inode == replaced.st_ino;
  })) << log_.latestDescription();

  // Removing it is a change too (the bundle itself still matches on its Info.plist).
  ASSERT_EQ(::unlink(executable.c_str()), 0);
  ASSERT_TRUE(log_.waitForLatest([&](const Records& records) {
    return records.size() == 1 && !records[0]->executableIdentity().exists();
  })) << log_.latestDescription();
}

TEST_F(ExtensionMatcherTest, AnInfoPlistThatLosesAndRegainsTrustLeavesAndRejoinsTheList) {
  const std::string bundle = tree_.bundle(first_, "P.dkext", content("com.example.p"));
  CapturingLogSink::Scope capture;
  auto matcher = start({first_});
  ASSERT_TRUE(log_.waitForLatestIdentifiers({"com.example.p"})) << log_.latestDescription();

  ASSERT_EQ(::chmod(infoPlistPath(bundle).c_str(), 0646), 0);
  ASSERT_TRUE(log_.waitForLatestIdentifiers({})) << log_.latestDescription();
  ASSERT_EQ(::chmod(infoPlistPath(bundle).c_str(), 0644), 0);
  ASSERT_TRUE(log_.waitForLatestIdentifiers({"com.example.p"})) << log_.latestDescription();
  EXPECT_EQ(capture->count(kLogError, "Ignoring extension bundle " + bundle +
                                          ": Info.plist: writable by group or others (mode 0646)"),
            1u);
}

TEST_F(ExtensionMatcherTest, ASearchDirectoryCreatedLaterIsWatchedOnceItExists) {
  const std::string late = tree_.path("late/deeper/extensions");
  auto matcher = start({late});
  ASSERT_TRUE(log_.waitForLatestIdentifiers({}));

  // Created one level at a time, so the watch has to move down each time.
  fs::create_directory(tree_.path("late"));
  fs::create_directory(tree_.path("late/deeper"));
  fs::create_directory(late);
  tree_.bundle(late, "Late.dkext", content("com.example.late"));
  ASSERT_TRUE(log_.waitForLatestIdentifiers({"com.example.late"})) << log_.latestDescription();

  // Taken away whole and put back: still watched.
  fs::remove_all(tree_.path("late"));
  ASSERT_TRUE(log_.waitForLatestIdentifiers({})) << log_.latestDescription();
  fs::create_directories(late);
  tree_.bundle(late, "Again.dkext", content("com.example.again"));
  ASSERT_TRUE(log_.waitForLatestIdentifiers({"com.example.again"})) << log_.latestDescription();
}

TEST_F(ExtensionMatcherTest, AMalformedBundleAddedLaterIsLoggedOnceAndNeverReported) {
  auto matcher = start({first_});
  ASSERT_TRUE(log_.waitForLatestIdentifiers({}));
  CapturingLogSink::Scope capture;

  const std::string bad = tree_.directory("local/extensions/Bad.dkext");
  extension_test::writeFile(infoPlistPath(bad), "<plist><array/></plist>");
  tree_.bundle(first_, "Good.dkext", content("com.example.good"));
  ASSERT_TRUE(log_.waitForLatestIdentifiers({"com.example.good"})) << log_.latestDescription();
  // Another change forces another rescan, which must not repeat the line.
  tree_.bundle(first_, "Later.dkext", content("com.example.later"));
  ASSERT_TRUE(log_.waitForLatestIdentifiers({"com.example.good", "com.example.later"}))
      << log_.latestDescription();
  EXPECT_EQ(capture->count(kLogError,
                           "Ignoring extension bundle " + bad + ": Info.plist is not a dictionary"),
            1u);
}

TEST_F(ExtensionMatcherTest, ReportsArriveInOrderAndNeverOverlapEvenOnAConcurrentQueue) {
  // A slow handler on the global concurrent queue, and new lists coming faster than it
  // returns: each change is made as soon as the watcher has handed over the list before.
  CapturingLogSink::Scope capture;
  ExtensionMatchingOptions fast = options({first_});
  fast.settleTime = std::chrono::milliseconds(1);
  auto started = ExtensionMatcher::start(kProviderPoint, DispatchQueue::global(), log_.handler([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }),
                                         std::move(fast));
  ASSERT_TRUE(started) << started.error()->description();
  auto matcher = std::move(*started);
  ASSERT_TRUE(log_.waitForLatestIdentifiers({}));

  constexpr int kBundles = 20;
  std::vector<std::string> expected;
  for (int i = 0; i < kBundles; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "com.example.p%02d", i);
    expected.push_back(name);
    tree_.bundle(first_, std::string(name) + ".dkext", content(name));
    const std::string handedOver = std::string("Extensions for ") + kProviderPoint +
                                   " changed: " + std::to_string(i + 1) + " matching";
    ASSERT_TRUE(capture->waitFor(handedOver, kDeadline)) << handedOver;
  }
  ASSERT_TRUE(log_.waitForLatestIdentifiers(expected)) << log_.latestDescription();
  matcher.reset();

  EXPECT_EQ(log_.maxActive(), 1);
  // Bundles were only added, so a later report never holds fewer than an earlier one.
  const auto reports = log_.reports();
  for (std::size_t i = 1; i < reports.size(); ++i)
    EXPECT_GE(reports[i].size(), reports[i - 1].size()) << "report " << i;
}

TEST_F(ExtensionMatcherTest, NoReportIsDeliveredOnceStopHasReturned) {
  auto queue = std::make_shared<HeldQueue>();
  tree_.bundle(first_, "P.dkext", content("com.example.p"));
  auto matcher = start({first_}, queue);
  ASSERT_TRUE(queue->waitForBlocks(1));

  matcher->stop();
  matcher->stop();  // a second stop is harmless
  EXPECT_EQ(queue->runAll(), 1);
  EXPECT_EQ(log_.count(), 0u);
  matcher.reset();
}

TEST_F(ExtensionMatcherTest, TheHandlerMayStopAndDestroyItsOwnMatcher) {
  auto queue = std::make_shared<HeldQueue>();
  std::unique_ptr<ExtensionMatcher> matcher;
  int calls = 0;
  matcher = start({first_}, queue, [&](const Records&) {
    ++calls;
    matcher->stop();  // must not wait for this very call
    matcher.reset();
  });
  ASSERT_TRUE(queue->waitForBlocks(1));
  queue->runAll();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(matcher, nullptr);
}

TEST_F(ExtensionMatcherTest, StopWaitsForAHandlerCallInProgress) {
  std::mutex mutex;
  std::condition_variable cv;
  bool entered = false;
  bool release = false;
  std::atomic<bool> finished{false};
  auto matcher = start({first_}, nullptr, [&](const Records&) {
    std::unique_lock lock(mutex);
    entered = true;
    cv.notify_all();
    cv.wait_for(lock, kDeadline, [&] { return release; });
    finished = true;
  });
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(cv.wait_for(lock, kDeadline, [&] { return entered; }));
  }
  std::atomic<bool> finishedWhenStopReturned{false};
  std::thread stopper([&] {
    matcher->stop();
    finishedWhenStopReturned = finished.load();
  });
  {
    std::lock_guard lock(mutex);
    release = true;
  }
  cv.notify_all();
  stopper.join();
  EXPECT_TRUE(finishedWhenStopReturned);
}

TEST_F(ExtensionMatcherTest, StartRefusesAMissingHandler) {
  auto matcher = ExtensionMatcher::start(kProviderPoint, nullptr, {}, options({first_}));
  ASSERT_FALSE(matcher);
  EXPECT_EQ(matcher.error()->code, EINVAL);
}

}  // namespace
}  // namespace daskel::platform
