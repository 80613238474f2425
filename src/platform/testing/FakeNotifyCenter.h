// FakeNotifyCenter: an in-memory SystemNotifyCenter for unit tests of components that observe
// or post notifications.
//
// How it differs from the live center:
// - no files and no inotify: nothing crosses the process boundary;
// - post() calls every observer of the name synchronously, on the caller's thread, exactly
//   once, before it returns; the queue given to addObserver is kept but not used;
// - posts are counted (in total and per name), and post() can be made to fail with a chosen
//   error (setPostError), in which case nothing is delivered or counted;
// - deliver() calls observers as if another process had posted, without counting a post.
// Names are checked as the live center checks them (SystemNotifyCenter::isValidName).
//
// THREADING NOTES: every member may be called from any thread. Callbacks run without the
// fake's lock held, so a callback may post or add observers.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/notify/SystemNotifyCenter.h"

namespace daskel::platform {

class FakeNotifyCenter final : public SystemNotifyCenter {
 public:
  void addObserver(std::string name,
                   Callback callback,
                   std::shared_ptr<DispatchQueue> queue = nullptr) override;
  Result<void> post(std::string_view name) override;

  // Calls the observers of `name` now, on this thread, without counting a post.
  void deliver(std::string_view name);

  // Successful posts, in total and of one name.
  std::size_t postCount() const;
  std::size_t postCount(std::string_view name) const;
  std::size_t observerCount(std::string_view name) const;

  // Makes every following post() fail with `error`; null makes posts succeed again.
  void setPostError(ErrorPtr error);

 private:
  struct Observer {
    std::shared_ptr<const Callback> callback;
    std::shared_ptr<DispatchQueue> queue;
  };

  mutable std::mutex mutex_;
  std::map<std::string, std::vector<Observer>, std::less<>> observers_;
  std::map<std::string, std::size_t, std::less<>> posts_;
  std::size_t totalPosts_ = 0;
  ErrorPtr postError_;
};

}  // namespace daskel::platform
