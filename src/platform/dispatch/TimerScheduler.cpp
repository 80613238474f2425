#include "platform/dispatch/TimerScheduler.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace daskel::platform {

Scheduler& Scheduler::real() {
  // Never destroyed: timers may be pending while the process exits.
  static TimerScheduler* const scheduler = new TimerScheduler();
  return *scheduler;
}

TimerScheduler::~TimerScheduler() {
  std::map<Key, DispatchBlock> dropped;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    dropped.swap(timers_);
  }
  cv_.notify_all();
  if (thread_.joinable()) {
    thread_.join();
  }
}

void TimerScheduler::schedule(std::chrono::steady_clock::duration delay, DispatchBlock fire) {
  if (!fire) {
    return;
  }
  const auto deadline =
      std::chrono::steady_clock::now() + std::max(delay, std::chrono::steady_clock::duration{});
  std::lock_guard lock(mutex_);
  if (stopping_) {
    return;
  }
  if (!thread_.joinable()) {
    try {
      thread_ = std::thread(&TimerScheduler::timerMain, this);
    } catch (const std::system_error& error) {
      // Without its thread the scheduler would drop every block silently.
      std::fprintf(stderr, "dispatch: cannot start the timer thread: %s\n", error.what());
      std::abort();
    }
  }
  const auto [it, inserted] = timers_.emplace(Key{deadline, nextSequence_++}, std::move(fire));
  (void)inserted;
  if (it == timers_.begin()) {
    cv_.notify_one();  // a new earliest deadline
  }
}

void TimerScheduler::timerMain() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (timers_.empty()) {
      cv_.wait(lock);
      continue;
    }
    const auto first = timers_.begin();
    if (first->first.first > std::chrono::steady_clock::now()) {
      cv_.wait_until(lock, first->first.first);
      continue;
    }
    DispatchBlock fire = std::move(first->second);
    timers_.erase(first);
    lock.unlock();
    fire();
    fire = nullptr;
    lock.lock();
  }
}

}  // namespace daskel::platform
