// DescriptorWatcher: one epoll thread that tells its clients when a descriptor becomes
// readable or hangs up. The extension machinery watches every extension process's control
// socket and pidfd here, so no extension and no request has a thread of its own.
//
// Watches are one-shot: a handler is called once when its descriptor is readable (or has
// hung up or failed), and not again until rearm(). Handlers run on the watcher thread, one
// at a time; they must be short and must not block on anything that waits for the watcher.
//
// Ownership: shared() is the process-wide instance, started on first use and never
// destroyed. A watch keeps its handler (and what it captures) until unwatch(); the caller
// keeps its descriptor and must unwatch it before closing it.
// THREADING NOTES: watch, rearm and unwatch may be called from any thread, handlers too.
// A handler already picked up by the watcher thread may still run once after unwatch()
// returns, so handlers check that what they refer to is still current.
// Failure: watch() returns POSIX-domain errors (epoll_ctl); a watcher thread that cannot
// start makes every watch() fail with the reason.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/value/Result.h"

namespace daskel::platform {

class DescriptorWatcher {
 public:
  using Handler = std::function<void()>;
  using Token = std::uint64_t;

  static DescriptorWatcher& shared();

  DescriptorWatcher(const DescriptorWatcher&) = delete;
  DescriptorWatcher& operator=(const DescriptorWatcher&) = delete;

  // Calls `handler` once `fd` is readable or hung up.
  Result<Token> watch(int fd, Handler handler);
  // Arms the watch `token` for one more call.
  void rearm(Token token);
  // Ends the watch `token`; unknown tokens are ignored.
  void unwatch(Token token);

 private:
  struct Watch {
    int fd;
    std::shared_ptr<Handler> handler;
  };

  DescriptorWatcher();
  ~DescriptorWatcher() = default;
  void watcherThreadRun();

  int epollFd_ = -1;
  ErrorPtr startError_;
  std::mutex mutex_;
  Token nextToken_ = 1;
  std::map<Token, Watch> watches_;
  std::thread thread_;
};

}  // namespace daskel::platform
