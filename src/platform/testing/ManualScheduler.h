// ManualScheduler: a Scheduler for tests that steps virtual time instead of waiting.
//
// How it differs from the real one (Scheduler::real()):
// - Time stands still until the test calls advance(); it starts at zero when the scheduler
//   is made and is unrelated to the steady clock.
// - Due blocks fire on the thread that calls advance(), synchronously, before it returns; the
//   real scheduler fires them on its own timer thread.
// - Blocks fire in due-time order, blocks due at the same time in the order they were
//   scheduled. While a block fires, now() is its due time, so a block that schedules another
//   one (a retry) measures the delay from there; if that is still within the step, it fires
//   in the same advance().
// - Blocks that never come due are destroyed, unrun, with the scheduler.
//
// THREADING NOTES: every member may be called from any thread; a fired block may call
// schedule() but must not call advance().
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <utility>

#include "platform/dispatch/DispatchQueue.h"

namespace daskel::platform {

class ManualScheduler final : public Scheduler {
 public:
  using Duration = std::chrono::steady_clock::duration;

  ManualScheduler() = default;
  ~ManualScheduler() override = default;
  ManualScheduler(const ManualScheduler&) = delete;
  ManualScheduler& operator=(const ManualScheduler&) = delete;

  // A negative delay counts as zero: the block fires at the next advance(), even by zero.
  void schedule(Duration delay, DispatchBlock fire) override;

  // Moves time forward by `step` (negative counts as zero), firing every block that comes due.
  void advance(Duration step);

  // Virtual time since the scheduler was made.
  Duration now() const;
  // Blocks scheduled and not fired yet.
  std::size_t pendingCount() const;

 private:
  using Key = std::pair<Duration, std::uint64_t>;  // due time, scheduling order

  mutable std::mutex mutex_;
  Duration now_{};
  std::uint64_t nextSequence_ = 0;
  std::map<Key, DispatchBlock> pending_;
};

}  // namespace daskel::platform
