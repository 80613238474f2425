#include "platform/dispatch/DispatchQueue.h"

#include <cstdio>
#include <cstdlib>

#include "platform/dispatch/PooledDispatchQueue.h"

namespace daskel::platform {

std::shared_ptr<DispatchQueue> DispatchQueue::createSerial(std::string label) {
  return std::make_shared<PooledDispatchQueue>(std::move(label), Kind::Serial, false);
}

std::shared_ptr<DispatchQueue> DispatchQueue::createConcurrent(std::string label) {
  return std::make_shared<PooledDispatchQueue>(std::move(label), Kind::Concurrent, false);
}

std::shared_ptr<DispatchQueue> DispatchQueue::global() {
  // Never destroyed, like the pool that runs it.
  static const auto* const queue = new std::shared_ptr<DispatchQueue>(
      std::make_shared<PooledDispatchQueue>("com.orvane.global.default", Kind::Concurrent, true));
  return *queue;
}

void DispatchQueue::after(std::chrono::steady_clock::duration delay,
                          DispatchBlock block,
                          Scheduler* scheduler) {
  if (!block) {
    return;
  }
  Scheduler& timer = scheduler ? *scheduler : Scheduler::real();
  // The pending timer keeps the queue alive until the block is submitted.
  timer.schedule(delay, [queue = shared_from_this(), block = std::move(block)]() mutable {
    queue->async(std::move(block));
  });
}

#ifndef NDEBUG
void dispatchAssertOnQueue(const DispatchQueue& queue, const char* what) {
  if (!queue.isCurrent()) {
    std::fprintf(stderr, "dispatch: %s must run on queue '%s', but runs elsewhere\n", what,
                 queue.label().c_str());
    std::abort();
  }
}
#endif

}  // namespace daskel::platform
