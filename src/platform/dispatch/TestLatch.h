// TestLatch: a count-down latch for the dispatch tests whose waits end at a deadline, so a
// hang becomes a test failure (std::latch has no timed wait). Also waitUntil() for conditions
// nothing signals (pool statistics).
//
// THREADING NOTES: every member may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace daskel::platform {

// Long enough for a loaded machine under sanitizers; only ever reached by a hang.
inline constexpr std::chrono::seconds kTestDeadline{10};

class TestLatch {
 public:
  explicit TestLatch(int count) : count_(count) {}
  TestLatch(const TestLatch&) = delete;
  TestLatch& operator=(const TestLatch&) = delete;

  void countDown() {
    std::lock_guard lock(mutex_);
    if (count_ > 0 && --count_ == 0) {
      cv_.notify_all();
    }
  }

  // True when the count reached zero within `timeout`.
  bool waitFor(std::chrono::milliseconds timeout = kTestDeadline) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] { return count_ == 0; });
  }

  // Counts down and waits for the others.
  bool arriveAndWait(std::chrono::milliseconds timeout = kTestDeadline) {
    countDown();
    return waitFor(timeout);
  }

  bool isOpen() const {
    std::lock_guard lock(mutex_);
    return count_ == 0;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  int count_;
};

// Polls `condition` until it holds or `timeout` passes; true when it held.
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = kTestDeadline) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace daskel::platform
