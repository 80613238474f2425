#include "platform/testing/ManualScheduler.h"

#include <algorithm>

namespace daskel::platform {

void ManualScheduler::schedule(Duration delay, DispatchBlock fire) {
  if (!fire) {
    return;
  }
  std::lock_guard lock(mutex_);
  pending_.emplace(Key{now_ + std::max(delay, Duration{}), nextSequence_++}, std::move(fire));
}

void ManualScheduler::advance(Duration step) {
  std::unique_lock lock(mutex_);
  const Duration target = now_ + std::max(step, Duration{});
  while (!pending_.empty() && pending_.begin()->first.first <= target) {
    const auto first = pending_.begin();
    now_ = std::max(now_, first->first.first);
    DispatchBlock fire = std::move(first->second);
    pending_.erase(first);
    // Fired without the lock, so that the block can schedule again.
    lock.unlock();
    fire();
    fire = nullptr;
    lock.lock();
  }
  now_ = std::max(now_, target);
}

ManualScheduler::Duration ManualScheduler::now() const {
  std::lock_guard lock(mutex_);
  return now_;
}

std::size_t ManualScheduler::pendingCount() const {
  std::lock_guard lock(mutex_);
  return pending_.size();
}

}  // namespace daskel::platform
