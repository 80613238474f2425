// PooledDispatchQueue: the DispatchQueue behind createSerial/createConcurrent/global. Its async
// blocks run as jobs of the shared WorkerPool; its sync blocks run on the calling thread.
//
// One FIFO of pending items serves both kinds. An item is exclusive (every item of a serial
// queue, a barrier of a concurrent queue) or shared (a plain block of a concurrent queue). The
// head item starts when the queue is not suspended and nothing conflicting runs: an exclusive
// item when nothing runs, a shared item when no exclusive item runs. Shared items after it
// start along with it; nothing passes an item that cannot start yet. A sync caller waits in
// the FIFO like any block and, once granted, runs its block itself.
//
// runHereOrAsync claims the queue the way a sync caller does when it can start at once, and
// runs the block in place; otherwise the block becomes an ordinary pending item.
//
// A pool job runs one async item, then, while the next head can start and the batch limit is
// not reached, the following ones on the same thread (cheap serial draining); other startable
// items become jobs of their own (overlapping concurrent blocks).
//
// Lifetime: each job and each sync call holds a shared_ptr to the queue, so a queue with
// running or startable work stays alive. When the last reference to a *suspended* queue goes,
// its pending blocks are destroyed without running: nobody is left who could resume it.
//
// THREADING NOTES: every member may be called from any thread; state is guarded by mutex_.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "platform/dispatch/DispatchQueue.h"

namespace daskel::platform {

class PooledDispatchQueue final : public DispatchQueue {
 public:
  // `ignoresSuspend` makes suspend()/resume() no-ops (the global queue, which no component
  // may stop for everyone).
  PooledDispatchQueue(std::string label, Kind kind, bool ignoresSuspend);
  ~PooledDispatchQueue() override;

  const std::string& label() const override { return label_; }
  Kind kind() const override { return kind_; }

  void async(DispatchBlock block) override;
  void runHereOrAsync(DispatchBlock block) override;
  void barrierAsync(DispatchBlock block) override;
  void sync(std::function<void()> block) override;
  void barrierSync(std::function<void()> block) override;

  void suspend() override;
  void resume() override;

  bool isCurrent() const override;

 private:
  // A sync caller waiting for its turn; lives on that caller's stack.
  struct SyncWaiter {
    std::condition_variable cv;
    bool granted = false;
  };

  struct Item {
    DispatchBlock block;  // empty for a sync waiter
    SyncWaiter* waiter = nullptr;
    bool exclusive = false;
  };

  void enqueue(DispatchBlock block, bool exclusive);
  void runSync(std::function<void()>& block, bool exclusive, const char* operation);
  // Claims the queue for the caller if nothing is pending and nothing conflicts.
  bool tryStartLocked(bool exclusive);
  // Starts every item that may start now: grants sync waiters, hands async items to the pool.
  // With `keep`, the first async item goes there instead, for the calling worker to run.
  void startEligibleLocked(std::optional<Item>* keep);
  void finishLocked(bool exclusive);
  void runAsync(Item item);
  void checkNotRunningOn(bool exclusive, const char* operation) const;

  const std::string label_;
  const Kind kind_;
  const bool ignoresSuspend_;

  mutable std::mutex mutex_;
  std::deque<Item> pending_;
  int sharedRunning_ = 0;
  bool exclusiveRunning_ = false;
  int suspendCount_ = 0;
};

}  // namespace daskel::platform
