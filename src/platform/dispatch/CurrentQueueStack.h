// CurrentQueueStack: per thread, the queues whose blocks the thread is running right now,
// innermost last. A block that syncs onto another queue runs on both, so both are current.
// Entries name a queue by address (a DispatchQueue or an OperationQueue's state) and say
// whether the block runs exclusively (a serial queue's block, a barrier).
//
// THREADING NOTES: every member works on the calling thread's own stack only.
#pragma once

namespace daskel::platform {

class CurrentQueueStack {
 public:
  // Pushes an entry for the lifetime of the scope.
  class Scope {
   public:
    Scope(const void* queue, bool exclusive);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
  };

  static bool contains(const void* queue);
  // True when the thread runs a block of `queue` exclusively, anywhere on its stack.
  static bool containsExclusive(const void* queue);
};

}  // namespace daskel::platform
