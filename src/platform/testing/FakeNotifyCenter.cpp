#include "platform/testing/FakeNotifyCenter.h"

#include <cerrno>

#include "platform/filesystem/FileSystem.h"

namespace daskel::platform {

void FakeNotifyCenter::addObserver(std::string name,
                                   Callback callback,
                                   std::shared_ptr<DispatchQueue> queue) {
  if (!callback)
    return;
  std::lock_guard lock(mutex_);
  observers_[std::move(name)].push_back(
      Observer{std::make_shared<const Callback>(std::move(callback)), std::move(queue)});
}

Result<void> FakeNotifyCenter::post(std::string_view name) {
  if (!isValidName(name)) {
    return failure(posixError(EINVAL, "Invalid notification name", std::string(name)));
  }
  {
    std::lock_guard lock(mutex_);
    if (postError_)
      return failure(postError_);
    ++totalPosts_;
    auto found = posts_.find(name);
    if (found == posts_.end()) {
      posts_.emplace(std::string(name), 1);
    } else {
      ++found->second;
    }
  }
  deliver(name);
  return {};
}

void FakeNotifyCenter::deliver(std::string_view name) {
  std::vector<Observer> observers;
  {
    std::lock_guard lock(mutex_);
    auto found = observers_.find(name);
    if (found == observers_.end())
      return;
    observers = found->second;
  }
  const std::string text(name);
  for (const Observer& observer : observers)
    (*observer.callback)(text);
}

std::size_t FakeNotifyCenter::postCount() const {
  std::lock_guard lock(mutex_);
  return totalPosts_;
}

std::size_t FakeNotifyCenter::postCount(std::string_view name) const {
  std::lock_guard lock(mutex_);
  auto found = posts_.find(name);
  return found == posts_.end() ? 0 : found->second;
}

std::size_t FakeNotifyCenter::observerCount(std::string_view name) const {
  std::lock_guard lock(mutex_);
  auto found = observers_.find(name);
  return found == observers_.end() ? 0 : found->second.size();
}

void FakeNotifyCenter::setPostError(ErrorPtr error) {
  std::lock_guard lock(mutex_);
  postError_ = std::move(error);
}

}  // namespace daskel::platform
