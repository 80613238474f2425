#include "provider/testing/FakeAppExtensionMatching.h"

#include <utility>

namespace daskel {

using platform::ErrorPtr;

FakeAppExtensionMatching::FakeAppExtensionMatching()
    : queue_(platform::DispatchQueue::createSerial("FakeAppExtensionMatching reports")),
      delivered_(std::make_shared<std::size_t>(0)) {}

void FakeAppExtensionMatching::setBeginMatchingError(ErrorPtr error) {
  std::lock_guard lock(mutex_);
  beginError_ = std::move(error);
}

void FakeAppExtensionMatching::report(
    std::vector<std::shared_ptr<platform::AppExtension>> extensions,
    ErrorPtr error) {
  std::lock_guard lock(mutex_);
  extensions_ = std::move(extensions);
  if (handler_)
    deliverLocked(std::move(error));
}

void FakeAppExtensionMatching::deliverLocked(ErrorPtr error) {
  // Submitted under the lock, so reports reach the serial queue in the order they were made.
  queue_->async([handler = handler_, extensions = extensions_, error = std::move(error),
                 delivered = delivered_]() mutable {
    (*handler)(std::move(extensions), error);
    ++*delivered;
  });
}

void FakeAppExtensionMatching::drain() {
  queue_->sync([] {});
}

void FakeAppExtensionMatching::setRecord(std::shared_ptr<const platform::PluginRecord> record) {
  if (!record)
    return;
  std::lock_guard lock(mutex_);
  records_[record->identifier()] = std::move(record);
}

void FakeAppExtensionMatching::removeRecord(const std::string& identifier) {
  std::lock_guard lock(mutex_);
  records_.erase(identifier);
}

std::vector<std::string> FakeAppExtensionMatching::matchedPoints() const {
  std::lock_guard lock(mutex_);
  return matchedPoints_;
}

std::size_t FakeAppExtensionMatching::reportCount() const {
  std::size_t count = 0;
  queue_->sync([&] { count = *delivered_; });
  return count;
}

ErrorPtr FakeAppExtensionMatching::beginMatching(const std::string& extensionPointIdentifier,
                                                 Handler handler) {
  std::lock_guard lock(mutex_);
  matchedPoints_.push_back(extensionPointIdentifier);
  if (beginError_)
    return beginError_;
  handler_ = std::make_shared<Handler>(std::move(handler));
  deliverLocked(nullptr);
  return nullptr;
}

std::shared_ptr<const platform::PluginRecord> FakeAppExtensionMatching::recordForIdentifier(
    const std::string& identifier) const {
  std::lock_guard lock(mutex_);
  auto found = records_.find(identifier);
  return found == records_.end() ? nullptr : found->second;
}

}  // namespace daskel
