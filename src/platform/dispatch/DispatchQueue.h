// Dispatch queues on a shared worker pool: serial and concurrent queues with labels.
//
// - A serial queue runs one block at a time, in submission order.
// - On a concurrent queue plain blocks may overlap; a barrier block waits for the blocks
//   before it, runs alone, and holds back the blocks after it.
// - sync() runs the block on the *calling* thread once the queue grants access (as a serial
//   queue's turn, or as a reader/barrier on a concurrent queue), and returns after it ran.
//   So a sync from a pool thread cannot starve the pool, and a sync reader queued after a
//   barrier sees the barrier's effect.
// - runHereOrAsync() is async() for a thread that already has the CPU: when the queue is idle
//   (not suspended, nothing pending or running) the block runs at once on the calling thread,
//   as the queue's turn, so isCurrent() holds during it and later blocks wait for it; when
//   the queue is busy the block is appended exactly as async() appends it. Callers that feed
//   a queue from one producer keep their order either way.
// - suspend() stops new blocks from starting (a running block finishes); resume() restarts.
//   Suspensions count: n suspends need n resumes.
// - after() submits a block once a delay has passed, timed by a Scheduler (injectable, so
//   tests can step time instead of sleeping).
//
// The pool grows (up to a cap) while its threads are blocked in sync() or waitForAll(), so a
// block waiting for another block cannot deadlock the process.
//
// A sync() onto the queue one is already running on is a caller's bug (it would deadlock);
// debug builds abort with a message instead.
//
// THREADING NOTES: every member may be called from any thread. Queues are owned through
// shared_ptr; a queue stays alive while it has blocks pending.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace daskel::platform {

class Scheduler;

using DispatchBlock = std::move_only_function<void()>;

class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
 public:
  enum class Kind { Serial, Concurrent };

  static std::shared_ptr<DispatchQueue> createSerial(std::string label);
  static std::shared_ptr<DispatchQueue> createConcurrent(std::string label);
  // The process-wide default-priority global concurrent queue.
  static std::shared_ptr<DispatchQueue> global();

  virtual ~DispatchQueue() = default;
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  virtual const std::string& label() const = 0;
  virtual Kind kind() const = 0;

  virtual void async(DispatchBlock block) = 0;
  // Runs `block` on the calling thread now if the queue is idle, else the same as async().
  // The calling thread must be able to afford running the block (it may take long or block);
  // the default, for queues that cannot tell, is async().
  virtual void runHereOrAsync(DispatchBlock block) { async(std::move(block)); }
  // On a serial queue the same as async.
  virtual void barrierAsync(DispatchBlock block) = 0;
  virtual void sync(std::function<void()> block) = 0;
  // On a serial queue the same as sync.
  virtual void barrierSync(std::function<void()> block) = 0;

  // Submits `block` with async once `delay` has passed, timed by `scheduler` (the process
  // default, a real clock, when null).
  void after(std::chrono::steady_clock::duration delay,
             DispatchBlock block,
             Scheduler* scheduler = nullptr);

  virtual void suspend() = 0;
  virtual void resume() = 0;

  // True while the calling thread runs a block of this queue (async or sync).
  virtual bool isCurrent() const = 0;

 protected:
  DispatchQueue() = default;
};

// Schedules work after a delay. The real one uses a timer thread and the steady clock;
// ManualScheduler (platform/testing) fires only when a test advances it.
class Scheduler {
 public:
  virtual ~Scheduler() = default;
  virtual void schedule(std::chrono::steady_clock::duration delay, DispatchBlock fire) = 0;
  // The process default (real time).
  static Scheduler& real();
};

// Debug-build check that the caller runs on `queue`; compiled out with NDEBUG.
#ifndef NDEBUG
void dispatchAssertOnQueue(const DispatchQueue& queue, const char* what);
#define DK_ASSERT_ON_QUEUE(queue, what) ::daskel::platform::dispatchAssertOnQueue((queue), (what))
#else
#define DK_ASSERT_ON_QUEUE(queue, what) ((void)0)
#endif

}  // namespace daskel::platform
