#include "platform/dispatch/OperationQueue.h"

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>

#include "platform/dispatch/CurrentQueueStack.h"
#include "platform/dispatch/WorkerPool.h"

namespace daskel::platform {

// Shared by the queue object and the pool jobs running its operations, so operations added
// before the queue is destroyed still run.
struct OperationQueue::State {
  State(std::string name, int maxConcurrent)
      : name(std::move(name)), maxConcurrent(maxConcurrent) {}

  const std::string name;
  const int maxConcurrent;  // 0: no limit

  std::mutex mutex;
  std::condition_variable allFinished;
  std::deque<DispatchBlock> waiting;  // held back by maxConcurrent
  int running = 0;                    // pool jobs running this queue's operations
  std::size_t unfinished = 0;         // added and not yet finished
};

OperationQueue::OperationQueue(std::string name, int maxConcurrentOperations)
    : state_(std::make_shared<State>(std::move(name), std::max(maxConcurrentOperations, 0))) {}

OperationQueue::~OperationQueue() = default;

const std::string& OperationQueue::name() const {
  return state_->name;
}

void OperationQueue::addOperation(DispatchBlock operation) {
  if (!operation) {
    return;
  }
  {
    std::lock_guard lock(state_->mutex);
    ++state_->unfinished;
    if (state_->maxConcurrent > 0 && state_->running >= state_->maxConcurrent) {
      state_->waiting.push_back(std::move(operation));
      return;
    }
    ++state_->running;
  }
  // One pool job: runs `operation`, then, while operations are held back by the limit, the
  // next of them on the same thread.
  WorkerPool::shared().submit([state = state_, operation = std::move(operation)]() mutable {
    while (true) {
      {
        CurrentQueueStack::Scope scope(state.get(), false);
        operation();
        operation = nullptr;
      }
      std::lock_guard lock(state->mutex);
      if (--state->unfinished == 0) {
        state->allFinished.notify_all();
      }
      if (state->waiting.empty()) {
        --state->running;
        return;
      }
      operation = std::move(state->waiting.front());
      state->waiting.pop_front();
    }
  });
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
#ifndef NDEBUG
  if (isCurrent()) {
    std::fprintf(stderr,
                 "dispatch: deadlock: waitUntilAllOperationsAreFinished() on operation queue "
                 "'%s' from one of its own operations\n",
                 state_->name.c_str());
    std::abort();
  }
#endif
  std::unique_lock lock(state_->mutex);
  if (state_->unfinished == 0) {
    return;
  }
  lock.unlock();
  WorkerPool::BlockingScope blocking;
  lock.lock();
  state_->allFinished.wait(lock, [&] { return state_->unfinished == 0; });
}

bool OperationQueue::isCurrent() const {
  return CurrentQueueStack::contains(state_.get());
}

}  // namespace daskel::platform
