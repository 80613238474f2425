// Shared pieces of the SDK's tests: a temporary tree with a group container, a context that
// points into it, and a provider whose start providing can be held until the test lets go.
//
// THREADING NOTES: the fixture runs on the test's thread; HeldProvider's operations run on
// request queues and its members may be used from any thread.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include <gtest/gtest.h>

#include "platform/extensions/ExtensionTestSupport.h"
#include "sdk/ProviderExtension.h"

namespace daskel::sdk::testing {

using platform::extension_test::TemporaryTree;

inline ExtensionContext contextIn(const TemporaryTree& tree) {
  auto context = ExtensionContext::make(
      "com.example.provider", tree.path("Provider.dkext"), platform::Value(),
      "group.com.example", *platform::Url::fileUrlWithPath(tree.path("container"), true));
  EXPECT_TRUE(context.has_value());
  return *context;
}

inline bool isDirectory(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Start providing answers `startError` at once, except for an item named "slow", which is
// held until release() (or a deadline); the set-up notes whether the storage directory was
// there when it ran.
class HeldProvider : public ProviderExtension {
 public:
  void performInitialSetup(SetupCompletion completion) override {
    setupCalls.fetch_add(1);
    storageExistedAtSetup.store(isDirectory(context().storageDirectoryPath()));
    completion(setupError);
  }

  void startProviding(const Url& url, ItemCompletion completion) override {
    if (url.lastPathComponent() == "slow") {
      std::unique_lock lock(mutex_);
      entered_ = true;
      changed_.notify_all();
      changed_.wait_for(lock, std::chrono::seconds(20), [&] { return released_; });
    }
    completion(startError);
  }

  // True once a "slow" start providing has begun, waiting at most 20 s.
  bool waitUntilHeld() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return entered_; });
  }
  void release() {
    std::lock_guard lock(mutex_);
    released_ = true;
    changed_.notify_all();
  }

  // Set before requests are served.
  ErrorPtr setupError;
  ErrorPtr startError;
  std::atomic<int> setupCalls{0};
  std::atomic<bool> storageExistedAtSetup{false};

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool entered_ = false;
  bool released_ = false;
};

}  // namespace daskel::sdk::testing
