// Test support for the DKExtensionProvider tests: a harness holding a provider made from a
// FakeAppExtension whose requests are served by a ScriptedVendor over real connections, with
// its own file coordinator, a manual scheduler for retry delays, a record from a real bundle
// and a capturing log sink; and helpers to wait for what other threads report.
//
// THREADING NOTES: the harness is used from the test's thread; completions push into Inboxes,
// which any thread may use.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/coordination/FileCoordinator.h"
#include "platform/errors/DKErrors.h"
#include "platform/ipc/IpcTestSupport.h"
#include "platform/log/CapturingLogSink.h"
#include "platform/testing/ManualScheduler.h"
#include "provider/DKExtensionProvider.h"
#include "provider/protocol/DKVendorProtocol.h"
#include "provider/testing/FakeAppExtension.h"
#include "provider/testing/FakeAppExtensionMatching.h"
#include "provider/testing/ProviderBundleTree.h"
#include "provider/testing/ScriptedVendor.h"

namespace daskel::provider_test {

using platform::ErrorPtr;
using platform::Url;
using platform::Value;
using platform::testing::Inbox;

// Only ever reached by a hang; generous for a loaded machine under sanitizers.
inline constexpr std::chrono::seconds kDeadline{20};

// Polls `condition` until it holds or the deadline passes; for states no callback announces.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = kDeadline) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

inline ErrorPtr testError(const std::string& text, std::int64_t code = 42) {
  return platform::makeError("com.example.test", code, text);
}

// Whether `error` is DKPluginOperationFailedError around an error equal to `underlying`.
inline bool isWrapping(const ErrorPtr& error, const ErrorPtr& underlying) {
  if (!error || !underlying || error->domain != kDKErrorDomain ||
      error->code != static_cast<std::int64_t>(DKErrorCode::PluginOperationFailed)) {
    return false;
  }
  auto found = error->userInfo.find(kDKUnderlyingErrorKey);
  return found != error->userInfo.end() && found->second.error() &&
         *found->second.error() == *underlying;
}

inline bool isIpcError(const ErrorPtr& error, IpcErrorCode code) {
  return error && error->domain == kIpcErrorDomain &&
         error->code == static_cast<std::int64_t>(code);
}

// The underlying error of a DKPluginOperationFailedError, or null.
inline ErrorPtr underlyingError(const ErrorPtr& error) {
  if (!error)
    return nullptr;
  auto found = error->userInfo.find(kDKUnderlyingErrorKey);
  return found == error->userInfo.end() ? nullptr : found->second.error();
}

// The captured lines without the IPC layer's debug notes on closing connections, which come
// and go with the requests' connections.
inline std::vector<platform::CapturingLogSink::Line> bridgeLines(
    const platform::CapturingLogSink& log) {
  std::vector<platform::CapturingLogSink::Line> lines;
  for (auto& line : log.lines()) {
    if (line.level == platform::kLogDebug && line.message.find(" closed: ") != std::string::npos)
      continue;
    lines.push_back(std::move(line));
  }
  return lines;
}

// What one completion call delivered.
struct Outcome {
  ErrorPtr error;
  Value value;
};

class ProviderHarness {
 public:
  explicit ProviderHarness(const std::string& identifier = "com.example.provider")
      : extension_(std::make_shared<FakeAppExtension>(identifier)) {
    ProviderBundleLayout layout;
    layout.identifier = identifier;
    auto record = tree_.writeBundle(layout);
    EXPECT_TRUE(record) << record.error()->description();
    if (record)
      matching_->setRecord(*record);
    platform_.recordForIdentifier = [matching = matching_](const std::string& id) {
      return matching->recordForIdentifier(id);
    };
    platform_.fileCoordinator = &coordinator_;
    platform_.scheduler = &scheduler_;
  }

  ~ProviderHarness() {
    extension_->closeAllRequests();
    waitForRequestsToEnd();
  }
  ProviderHarness(const ProviderHarness&) = delete;
  ProviderHarness& operator=(const ProviderHarness&) = delete;

  std::shared_ptr<DKExtensionProvider> makeProvider() {
    provider_ = DKExtensionProvider::initWithExtension(extension_, platform_);
    log_->clear();
    return provider_;
  }

  // A file URL under the provider's storage directory.
  Url itemURL(const std::string& name) const {
    return *Url::fileUrlWithPath(
        tree_.groupContainersDirectory() + "/group.com.example/Daskel Storage/" + name, false);
  }

  // The request has ended and its connection's handlers have all run.
  bool waitForRequestsToEnd() const { return extension_->waitForOpenRequestCount(0, kDeadline); }

  platform::CapturingLogSink& log() { return log_.sink(); }
  FakeAppExtension& extension() { return *extension_; }
  const std::shared_ptr<FakeAppExtension>& sharedExtension() const { return extension_; }
  ScriptedVendor& vendor() { return *extension_->vendor(); }
  platform::ManualScheduler& scheduler() { return scheduler_; }
  platform::FileCoordinator& coordinator() { return coordinator_; }
  DKProviderPlatform& platform() { return platform_; }
  const ProviderBundleTree& tree() const { return tree_; }
  const std::shared_ptr<FakeAppExtensionMatching>& matching() const { return matching_; }

 private:
  platform::CapturingLogSink::Scope log_;
  ProviderBundleTree tree_;
  platform::ManualScheduler scheduler_;
  platform::FileCoordinator coordinator_;
  std::shared_ptr<FakeAppExtensionMatching> matching_ =
      std::make_shared<FakeAppExtensionMatching>();
  DKProviderPlatform platform_;
  std::shared_ptr<FakeAppExtension> extension_;
  std::shared_ptr<DKExtensionProvider> provider_;
};

}  // namespace daskel::provider_test
