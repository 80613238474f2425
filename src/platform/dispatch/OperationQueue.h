// OperationQueue: a named queue of operations that may run concurrently (up to a limit),
// used where a component is called "on its operation queue". Operations are blocks.
//
// THREADING NOTES: every member may be called from any thread.
#pragma once

#include <memory>
#include <string>

#include "platform/dispatch/DispatchQueue.h"

namespace daskel::platform {

class OperationQueue {
 public:
  // maxConcurrentOperations 0 means no limit beyond the pool's.
  explicit OperationQueue(std::string name, int maxConcurrentOperations = 0);
  ~OperationQueue();
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  const std::string& name() const;
  void addOperation(DispatchBlock operation);
  // Blocks until every operation added so far has finished. Must not be called from one of
  // this queue's own operations.
  void waitUntilAllOperationsAreFinished();
  // True while the calling thread runs an operation of this queue.
  bool isCurrent() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace daskel::platform
