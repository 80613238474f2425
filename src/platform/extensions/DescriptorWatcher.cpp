#include "platform/extensions/DescriptorWatcher.h"

#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "platform/filesystem/FileSystem.h"
#include "platform/log/Log.h"

namespace daskel::platform {

namespace {

ErrorPtr epollError(int errorNumber, const char* what) {
  return makeError(kPosixErrorDomain, errorNumber,
                   std::string("descriptor watcher: ") + what + ": " + std::strerror(errorNumber));
}

constexpr std::uint32_t kEvents = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;

}  // namespace

DescriptorWatcher& DescriptorWatcher::shared() {
  // Never destroyed: extension processes may be reaped until the very end of the process.
  static DescriptorWatcher* const instance = new DescriptorWatcher();
  return *instance;
}

DescriptorWatcher::DescriptorWatcher() {
  epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
  if (epollFd_ < 0) {
    startError_ = epollError(errno, "epoll_create1");
    DKLogError("%@", startError_);
    return;
  }
  thread_ = std::thread([this] { watcherThreadRun(); });
  thread_.detach();
}

Result<DescriptorWatcher::Token> DescriptorWatcher::watch(int fd, Handler handler) {
  if (startError_)
    return failure(startError_);
  std::lock_guard lock(mutex_);
  const Token token = nextToken_++;
  epoll_event event{};
  event.events = kEvents;
  event.data.u64 = token;
  if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event) != 0)
    return failure(epollError(errno, "epoll_ctl(ADD)"));
  watches_.emplace(token, Watch{fd, std::make_shared<Handler>(std::move(handler))});
  return token;
}

void DescriptorWatcher::rearm(Token token) {
  std::lock_guard lock(mutex_);
  auto it = watches_.find(token);
  if (it == watches_.end())
    return;
  epoll_event event{};
  event.events = kEvents;
  event.data.u64 = token;
  if (::epoll_ctl(epollFd_, EPOLL_CTL_MOD, it->second.fd, &event) != 0)
    DKLogError("%@", epollError(errno, "epoll_ctl(MOD)"));
}

void DescriptorWatcher::unwatch(Token token) {
  std::shared_ptr<Handler> released;
  {
    std::lock_guard lock(mutex_);
    auto it = watches_.find(token);
    if (it == watches_.end())
      return;
    ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, it->second.fd, nullptr);
    released = std::move(it->second.handler);
    watches_.erase(it);
  }
  // `released` may hold the last reference to what the handler captured; let it go outside
  // the lock, since its destructor may call back into the watcher.
}

void DescriptorWatcher::watcherThreadRun() {
  std::array<epoll_event, 16> events;
  for (;;) {
    const int count = ::epoll_wait(epollFd_, events.data(), static_cast<int>(events.size()), -1);
    if (count < 0) {
      if (errno == EINTR)
        continue;
      DKLogError("%@", epollError(errno, "epoll_wait"));
      return;
    }
    for (int i = 0; i < count; ++i) {
      std::shared_ptr<Handler> handler;
      {
        std::lock_guard lock(mutex_);
        auto it = watches_.find(events[i].data.u64);
        if (it != watches_.end())
          handler = it->second.handler;
      }
      if (handler && *handler)
        (*handler)();
    }
  }
}

}  // namespace daskel::platform
