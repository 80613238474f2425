#include "platform/ipc/IoLoop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/errors/DKErrors.h"
#include "platform/log/Log.h"

namespace daskel::platform {

namespace {

constexpr int kMaxEventsPerWait = 64;

ErrorPtr epollFailure(const char* what, int fd, int error) {
  return IpcError(IpcErrorCode::ConnectionInvalid, std::string("cannot ") + what + " socket " +
                                                       std::to_string(fd) + " with epoll: " +
                                                       std::strerror(error));
}

}  // namespace

IoLoop& IoLoop::shared() {
  // Never destroyed: connections may still be registered while the process exits, and the
  // loop thread must not outlive its object.
  static IoLoop* const loop = new IoLoop();
  return *loop;
}

IoLoop::IoLoop() : epollFd_(::epoll_create1(EPOLL_CLOEXEC)) {
  if (epollFd_ < 0) {
    // Without epoll no socket of this process can work; there is nothing to fall back to.
    DKLogError("Cannot create the IPC epoll instance: %s", std::strerror(errno));
    std::abort();
  }
  std::thread thread([this] { run(); });
  loopThreadId_ = thread.get_id();
  thread.detach();
}

Result<IoLoop::RegistrationId> IoLoop::add(int fd, std::uint32_t events, Handler handler) {
  std::lock_guard lock(mutex_);
  const RegistrationId id = nextId_++;
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  // Registered in the table first: the loop may report the descriptor the moment epoll_ctl
  // returns.
  handlers_.emplace(id, std::make_shared<Handler>(std::move(handler)));
  if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event) != 0) {
    const int error = errno;
    handlers_.erase(id);
    return failure(epollFailure("watch", fd, error));
  }
  return id;
}

Result<void> IoLoop::modify(RegistrationId id, int fd, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  if (::epoll_ctl(epollFd_, EPOLL_CTL_MOD, fd, &event) != 0) {
    return failure(epollFailure("change the events of", fd, errno));
  }
  return {};
}

void IoLoop::remove(RegistrationId id, int fd) {
  std::shared_ptr<Handler> handler;
  {
    std::lock_guard lock(mutex_);
    auto found = handlers_.find(id);
    if (found == handlers_.end()) {
      return;
    }
    handler = std::move(found->second);
    handlers_.erase(found);
    ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
  }
  // `handler` (and what it captured) is released here, outside the lock: its captures may
  // own objects whose destructors register or remove descriptors themselves.
}

bool IoLoop::isLoopThread() const {
  return std::this_thread::get_id() == loopThreadId_;
}

void IoLoop::run() {
  epoll_event events[kMaxEventsPerWait];
  for (;;) {
    const int count = ::epoll_wait(epollFd_, events, kMaxEventsPerWait, -1);
    if (count < 0) {
      if (errno == EINTR) {
        continue;
      }
      DKLogError("The IPC epoll wait failed: %s", std::strerror(errno));
      std::abort();
    }
    for (int i = 0; i < count; ++i) {
      std::shared_ptr<Handler> handler;
      {
        std::lock_guard lock(mutex_);
        auto found = handlers_.find(events[i].data.u64);
        if (found == handlers_.end()) {
          continue;  // removed after the kernel reported it
        }
        handler = found->second;
      }
      (*handler)(events[i].events);
    }
  }
}

}  // namespace daskel::platform
