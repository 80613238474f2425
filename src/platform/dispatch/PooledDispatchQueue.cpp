#include "platform/dispatch/PooledDispatchQueue.h"

#include <cstdio>
#include <cstdlib>

#include "platform/dispatch/CurrentQueueStack.h"
#include "platform/dispatch/WorkerPool.h"

namespace daskel::platform {

namespace {

// Async blocks one job runs back to back before it lets other queues' jobs go first.
constexpr int kBatchLimit = 32;

}  // namespace

PooledDispatchQueue::PooledDispatchQueue(std::string label, Kind kind, bool ignoresSuspend)
    : label_(std::move(label)), kind_(kind), ignoresSuspend_(ignoresSuspend) {}

// Only a suspended queue can die with items pending; they are dropped here, unrun.
PooledDispatchQueue::~PooledDispatchQueue() = default;

void PooledDispatchQueue::async(DispatchBlock block) {
  enqueue(std::move(block), kind_ == Kind::Serial);
}

void PooledDispatchQueue::runHereOrAsync(DispatchBlock block) {
  if (!block) {
    return;
  }
  const bool exclusive = kind_ == Kind::Serial;
  {
    std::lock_guard lock(mutex_);
    if (!tryStartLocked(exclusive)) {
      pending_.push_back(Item{std::move(block), nullptr, exclusive});
      startEligibleLocked(nullptr);
      return;
    }
  }
  // The block may drop the caller's last reference to this queue.
  const std::shared_ptr<DispatchQueue> self = shared_from_this();
  {
    CurrentQueueStack::Scope scope(this, exclusive);
    block();
    // Captures are released while the block still counts as running on this queue.
    block = nullptr;
  }
  std::lock_guard lock(mutex_);
  finishLocked(exclusive);
  startEligibleLocked(nullptr);
}

void PooledDispatchQueue::barrierAsync(DispatchBlock block) {
  enqueue(std::move(block), true);
}

void PooledDispatchQueue::sync(std::function<void()> block) {
  runSync(block, kind_ == Kind::Serial, "sync");
}

void PooledDispatchQueue::barrierSync(std::function<void()> block) {
  runSync(block, true, "barrierSync");
}

void PooledDispatchQueue::suspend() {
  if (ignoresSuspend_) {
    return;
  }
  std::lock_guard lock(mutex_);
  ++suspendCount_;
}

void PooledDispatchQueue::resume() {
  if (ignoresSuspend_) {
    return;
  }
  std::lock_guard lock(mutex_);
  if (suspendCount_ == 0) {
#ifndef NDEBUG
    std::fprintf(stderr, "dispatch: resume() of queue '%s', which is not suspended\n",
                 label_.c_str());
    std::abort();
#else
    return;
#endif
  }
  if (--suspendCount_ == 0) {
    startEligibleLocked(nullptr);
  }
}

bool PooledDispatchQueue::isCurrent() const {
  return CurrentQueueStack::contains(this);
}

void PooledDispatchQueue::enqueue(DispatchBlock block, bool exclusive) {
  if (!block) {
    return;
  }
  std::lock_guard lock(mutex_);
  pending_.push_back(Item{std::move(block), nullptr, exclusive});
  startEligibleLocked(nullptr);
}

void PooledDispatchQueue::runSync(std::function<void()>& block,
                                  bool exclusive,
                                  const char* operation) {
  if (!block) {
    return;
  }
  checkNotRunningOn(exclusive, operation);
  // The block may drop the caller's last reference to this queue.
  const std::shared_ptr<DispatchQueue> self = shared_from_this();
  {
    std::unique_lock lock(mutex_);
    if (!tryStartLocked(exclusive)) {
      SyncWaiter waiter;
      pending_.push_back(Item{nullptr, &waiter, exclusive});
      lock.unlock();
      // Announced outside the queue lock: the pool may start a thread meanwhile.
      WorkerPool::BlockingScope blocking;
      lock.lock();
      waiter.cv.wait(lock, [&] { return waiter.granted; });
    }
  }
  struct Release {
    PooledDispatchQueue* queue;
    bool exclusive;
    ~Release() {
      std::lock_guard lock(queue->mutex_);
      queue->finishLocked(exclusive);
      queue->startEligibleLocked(nullptr);
    }
  } release{this, exclusive};
  CurrentQueueStack::Scope scope(this, exclusive);
  block();
}

bool PooledDispatchQueue::tryStartLocked(bool exclusive) {
  // Pending items on a queue that is not suspended are waiting for a running one, and a new
  // caller must queue behind them.
  if (suspendCount_ > 0 || !pending_.empty() || exclusiveRunning_) {
    return false;
  }
  if (exclusive) {
    if (sharedRunning_ > 0) {
      return false;
    }
    exclusiveRunning_ = true;
  } else {
    ++sharedRunning_;
  }
  return true;
}

void PooledDispatchQueue::startEligibleLocked(std::optional<Item>* keep) {
  while (suspendCount_ == 0 && !pending_.empty() && !exclusiveRunning_) {
    const bool exclusive = pending_.front().exclusive;
    if (exclusive) {
      if (sharedRunning_ > 0) {
        return;
      }
      exclusiveRunning_ = true;
    } else {
      ++sharedRunning_;
    }
    Item item = std::move(pending_.front());
    pending_.pop_front();
    if (item.waiter) {
      // Notified under the lock: the waiter cannot return (and destroy its condition
      // variable) before the lock is released.
      item.waiter->granted = true;
      item.waiter->cv.notify_one();
    } else if (keep && !*keep) {
      keep->emplace(std::move(item));
    } else {
      WorkerPool::shared().submit(
          [queue = std::static_pointer_cast<PooledDispatchQueue>(shared_from_this()),
           item = std::move(item)]() mutable { queue->runAsync(std::move(item)); });
    }
  }
}

void PooledDispatchQueue::finishLocked(bool exclusive) {
  if (exclusive) {
    exclusiveRunning_ = false;
  } else {
    --sharedRunning_;
  }
}

void PooledDispatchQueue::runAsync(Item item) {
  for (int ran = 1;; ++ran) {
    {
      CurrentQueueStack::Scope scope(this, item.exclusive);
      item.block();
      // Captures are released while the block still counts as running on this queue.
      item.block = nullptr;
    }
    std::optional<Item> next;
    {
      std::lock_guard lock(mutex_);
      finishLocked(item.exclusive);
      startEligibleLocked(ran < kBatchLimit ? &next : nullptr);
    }
    if (!next) {
      return;
    }
    item = std::move(*next);
  }
}

void PooledDispatchQueue::checkNotRunningOn(bool exclusive, const char* operation) const {
#ifndef NDEBUG
  // Waiting for a turn that the calling thread itself holds can never end.
  if (CurrentQueueStack::contains(this) &&
      (exclusive || CurrentQueueStack::containsExclusive(this))) {
    std::fprintf(stderr,
                 "dispatch: deadlock: %s onto queue '%s' from a block running on that queue\n",
                 operation, label_.c_str());
    std::abort();
  }
#else
  (void)exclusive;
  (void)operation;
#endif
}

}  // namespace daskel::platform
