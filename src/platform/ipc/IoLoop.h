// IoLoop: the one thread of the process that waits on epoll for every IPC socket (listening
// sockets and connections alike), so the number of connections never sets the number of
// threads.
//
// A registration names a file descriptor (borrowed: the registrant keeps owning and closing
// it), the events of interest (level-triggered epoll events) and a handler that runs on the
// loop thread with the events the kernel reported. Handlers must be short and must not block:
// they read or write what the nonblocking socket allows and hand everything else to a
// dispatch queue.
//
// Ownership: the loop holds each handler (and whatever it captures) until remove(). The
// process-wide loop from shared() is created on first use and lives for the rest of the
// process.
//
// THREADING NOTES: add, modify and remove may be called from any thread, the loop thread
// included. A handler may still run once after remove() returns when it was called from
// another thread while the loop had already picked up an event (it is never called for a
// registration removed *before* the loop looked the registration up); handlers therefore
// check their own state before touching their descriptor. Remove before closing the
// descriptor.
//
// Failure: add and modify return IpcError(ConnectionInvalid) with the errno text of epoll_ctl.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "platform/value/Result.h"

namespace daskel::platform {

class IoLoop {
 public:
  using Handler = std::function<void(std::uint32_t events)>;
  using RegistrationId = std::uint64_t;

  // The process-wide loop; its thread starts on first use.
  static IoLoop& shared();

  IoLoop(const IoLoop&) = delete;
  IoLoop& operator=(const IoLoop&) = delete;

  // Starts reporting `events` (EPOLLIN, EPOLLOUT, ...) of `fd` to `handler`.
  Result<RegistrationId> add(int fd, std::uint32_t events, Handler handler);
  // Changes the events of interest of a registration.
  Result<void> modify(RegistrationId id, int fd, std::uint32_t events);
  // Stops reporting and releases the handler. Unknown ids are ignored.
  void remove(RegistrationId id, int fd);

  // True on the loop thread (inside a handler).
  bool isLoopThread() const;

 private:
  IoLoop();
  // The loop thread: waits and calls handlers, for ever.
  void run();

  const int epollFd_;
  std::thread::id loopThreadId_;
  std::mutex mutex_;
  RegistrationId nextId_ = 1;
  std::unordered_map<RegistrationId, std::shared_ptr<Handler>> handlers_;
};

}  // namespace daskel::platform
