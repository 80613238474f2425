// TimerScheduler: the real Scheduler. One timer thread keeps the scheduled blocks ordered by
// deadline (steady clock; ties in scheduling order) and calls each block on that thread when
// it is due. Blocks should be short (DispatchQueue::after's block only submits to a queue).
//
// Scheduler::real() is the process-wide instance, which lives until the process exits. A
// destroyed TimerScheduler joins its thread and drops the blocks that are not due yet.
//
// THREADING NOTES: schedule() may be called from any thread, including from a fired block.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/dispatch/DispatchQueue.h"

namespace daskel::platform {

class TimerScheduler final : public Scheduler {
 public:
  TimerScheduler() = default;
  ~TimerScheduler() override;
  TimerScheduler(const TimerScheduler&) = delete;
  TimerScheduler& operator=(const TimerScheduler&) = delete;

  void schedule(std::chrono::steady_clock::duration delay, DispatchBlock fire) override;

 private:
  using Key = std::pair<std::chrono::steady_clock::time_point, std::uint64_t>;

  void timerMain();

  std::mutex mutex_;
  std::condition_variable cv_;
  std::map<Key, DispatchBlock> timers_;
  std::uint64_t nextSequence_ = 0;
  bool stopping_ = false;
  std::thread thread_;  // started by the first schedule()
};

}  // namespace daskel::platform
