#include "platform/dispatch/CurrentQueueStack.h"

#include <vector>

namespace daskel::platform {

namespace {

struct Entry {
  const void* queue;
  bool exclusive;
};

// Nesting is shallow (a block syncing onto another queue), so a linear search is cheapest.
thread_local std::vector<Entry> tStack;

}  // namespace

CurrentQueueStack::Scope::Scope(const void* queue, bool exclusive) {
  tStack.push_back(Entry{queue, exclusive});
}

CurrentQueueStack::Scope::~Scope() {
  tStack.pop_back();
}

bool CurrentQueueStack::contains(const void* queue) {
  for (const Entry& entry : tStack) {
    if (entry.queue == queue) {
      return true;
    }
  }
  return false;
}

bool CurrentQueueStack::containsExclusive(const void* queue) {
  for (const Entry& entry : tStack) {
    if (entry.queue == queue && entry.exclusive) {
      return true;
    }
  }
  return false;
}

}  // namespace daskel::platform
