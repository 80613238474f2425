#include "platform/extensions/ExtensionHost.h"

#include <condition_variable>
#include <mutex>

#include <gtest/gtest.h>

#include "platform/extensions/SupervisorTestSupport.h"
#include "platform/plist/PropertyList.h"
#include "platform/testing/ManualScheduler.h"

namespace daskel::platform {
namespace {

using namespace extension_test;
using namespace std::chrono_literals;
using Extensions = std::vector<std::shared_ptr<AppExtension>>;

// The reports a host's handler received, in order.
class Reports {
 public:
  AppExtensionMatching::Handler handler() {
    return [this](Extensions extensions, const ErrorPtr& error) {
      EXPECT_EQ(error, nullptr);
      std::lock_guard lock(mutex_);
      reports_.push_back(std::move(extensions));
      changed_.notify_all();
    };
  }
  // Waits for a report of `size` extensions after the first `seen` reports; returns it.
  Extensions waitForReport(std::size_t seen, std::size_t size) {
    std::unique_lock lock(mutex_);
    Extensions found;
    changed_.wait_for(lock, kProcessDeadline, [&] {
      for (std::size_t i = seen; i < reports_.size(); ++i) {
        if (reports_[i].size() == size) {
          found = reports_[i];
          return true;
        }
      }
      return false;
    });
    return found;
  }
  Extensions latest() {
    std::lock_guard lock(mutex_);
    return reports_.empty() ? Extensions() : reports_.back();
  }
  std::size_t count() {
    std::lock_guard lock(mutex_);
    return reports_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Extensions> reports_;
};

std::shared_ptr<AppExtension> find(const Extensions& extensions, const std::string& identifier) {
  for (const auto& extension : extensions) {
    if (extension->identifier() == identifier)
      return extension;
  }
  return nullptr;
}

BundleContent named(const std::string& identifier, const std::string& version = "1.0") {
  BundleContent content;
  content.identifier = identifier;
  content.version = version;
  return content;
}

TEST(ExtensionHostTest, UnchangedRecordsKeepTheirSupervisorAndRunningProcessWhileChangedOnesGetNewOnes) {
  static ManualScheduler& scheduler = *new ManualScheduler();  // outlives late timers
  TemporaryTree tree;
  const std::string directory = tree.directory("extensions");
  testExtensionBundle(tree, directory, "A.dkext", named("com.example.a"));
  const std::string bundleB = testExtensionBundle(tree, directory, "B.dkext", named("com.example.b"));

  pid_t pid = 0;
  {
    Reports reports;  // holds the extensions too; declared before the host, which uses it
    ExtensionHost host({.directories = std::vector<std::string>{directory},
                        .groupContainersDirectory = tree.directory("groups"),
                        .supervisor = {.contextClass = testContextClass(),
                                       .idleTime = 30s,
                                       .timing = {.scheduler = &scheduler}},
                        .settleTime = 10ms,
                        .maximumDelay = 100ms});
    ASSERT_EQ(host.beginMatching(kProviderPoint, reports.handler()), nullptr);
    EXPECT_NE(host.beginMatching(kProviderPoint, reports.handler()), nullptr);
    Extensions first = reports.waitForReport(0, 2);
    ASSERT_EQ(first.size(), 2u);
    auto a = find(first, "com.example.a");
    auto b = find(first, "com.example.b");
    ASSERT_TRUE(a && b);
    BeginOutcome begun = beginAndWait(*a);
    ASSERT_EQ(begun.error, nullptr);
    pid = static_cast<ExtensionSupervisor&>(*a).processIdentifier();

    // An unrelated bundle appears: A and B are the same objects, A's process still serves.
    std::size_t seen = reports.count();
    testExtensionBundle(tree, directory, "C.dkext", named("com.example.c"));
    Extensions second = reports.waitForReport(seen, 3);
    ASSERT_EQ(second.size(), 3u);
    EXPECT_EQ(find(second, "com.example.a"), a);
    EXPECT_EQ(find(second, "com.example.b"), b);
    EXPECT_EQ(static_cast<ExtensionSupervisor&>(*a).processIdentifier(), pid);
    EXPECT_NE(a->contextForRequest(begun.uuid), nullptr);

    // B's Info.plist is replaced by a new version: a new, unequal extension and record.
    replaceFile(infoPlistPath(bundleB), serializeXmlPropertyList(named("com.example.b", "2.0").info()));
    Extensions third;
    std::shared_ptr<AppExtension> newB;
    ASSERT_TRUE(waitUntil([&] {
      third = reports.latest();
      newB = find(third, "com.example.b");
      return newB && newB != b;
    }));
    EXPECT_FALSE(newB->isEqual(*b));
    EXPECT_FALSE(b->isEqual(*newB));
    EXPECT_TRUE(a->isEqual(*find(third, "com.example.a")));
    EXPECT_EQ(find(third, "com.example.a"), a);
    ASSERT_NE(host.recordForIdentifier("com.example.b"), nullptr);
    EXPECT_EQ(host.recordForIdentifier("com.example.b")->version(), "2.0");
    EXPECT_EQ(host.recordForIdentifier("com.example.missing"), nullptr);
    a->cancelRequest(begun.uuid);
  }
  // Host and extensions released: A's process is stopped and reaped.
  EXPECT_TRUE(waitUntil([&] { return processIsGone(pid); }));
}

}  // namespace
}  // namespace daskel::platform
