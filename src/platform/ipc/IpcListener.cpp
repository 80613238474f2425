#include "platform/ipc/IpcListener.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcStream.h"
#include "platform/log/Log.h"

namespace daskel::platform {

namespace {

// Connections taken per wake-up, so a flood of connects cannot hold the loop.
constexpr int kAcceptsPerWakeup = 64;
// How long accepting pauses when the process is out of descriptors or memory.
constexpr std::chrono::milliseconds kAcceptRetryDelay{100};

}  // namespace

Result<std::shared_ptr<IpcListener>> IpcListener::create(const std::string& serviceName) {
  auto socket = IpcServiceSocket::open(serviceName);
  if (!socket) {
    DKLogError("Cannot start service %s: %s", serviceName,
               socket.error()->localizedDescription());
    return failure(socket.error());
  }
  if (socket->isInherited()) {
    DKLogInfo("Service %s listens on the socket it was started with (descriptor %d)",
              serviceName, socket->fd());
  }
  return std::shared_ptr<IpcListener>(new IpcListener(serviceName, std::move(*socket)));
}

IpcListener::IpcListener(std::string serviceName, IpcServiceSocket socket)
    : serviceName_(std::move(serviceName)),
      socketPath_(socket.path()),
      socketActivated_(socket.isInherited()),
      queue_(DispatchQueue::createSerial("com.orvane.ipc.listener " + serviceName_)),
      socket_(std::move(socket)) {}

IpcListener::~IpcListener() {
  invalidate();
}

void IpcListener::setDelegate(std::weak_ptr<IpcListenerDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

void IpcListener::setIdentityResolver(std::shared_ptr<const IpcIdentityResolver> resolver) {
  std::lock_guard lock(mutex_);
  identityResolver_ = std::move(resolver);
}

void IpcListener::resume() {
  std::lock_guard lock(mutex_);
  if (invalidated_ || resumed_) {
    return;
  }
  resumed_ = true;
  watchLocked();
}

void IpcListener::invalidate() {
  std::lock_guard lock(mutex_);
  if (invalidated_) {
    return;
  }
  invalidated_ = true;
  if (registration_) {
    IoLoop::shared().remove(*registration_, socket_.fd());
    registration_.reset();
  }
  socket_.close();
}

void IpcListener::watchLocked() {
  auto added = IoLoop::shared().add(socket_.fd(), EPOLLIN, [weak = weak_from_this()](std::uint32_t) {
    if (auto self = weak.lock()) {
      self->handleReadable();
    }
  });
  if (!added) {
    DKLogError("Service %s cannot accept connections: %s", serviceName_,
               added.error()->localizedDescription());
    return;
  }
  registration_ = *added;
}

void IpcListener::handleReadable() {
  std::vector<int> accepted;
  int pauseError = 0;
  {
    std::lock_guard lock(mutex_);
    if (invalidated_ || !registration_) {
      return;
    }
    for (int round = 0; round < kAcceptsPerWakeup; ++round) {
      const int fd = ::accept4(socket_.fd(), nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0) {
        accepted.push_back(fd);
        continue;
      }
      if (errno == EINTR || errno == ECONNABORTED) {
        continue;
      }
      if (errno != EAGAIN && errno != EWOULDBLOCK) {
        // Out of descriptors or memory: the socket stays readable, so stop watching it for a
        // moment instead of spinning.
        pauseError = errno;
        IoLoop::shared().remove(*registration_, socket_.fd());
        registration_.reset();
      }
      break;
    }
  }
  if (pauseError != 0) {
    DKLogError("Service %s cannot accept connections for now: %s", serviceName_,
               std::strerror(pauseError));
    queue_->after(kAcceptRetryDelay, [weak = weak_from_this()] {
      if (auto self = weak.lock()) {
        std::lock_guard lock(self->mutex_);
        if (!self->invalidated_ && !self->registration_) {
          self->watchLocked();
        }
      }
    });
  }
  for (int fd : accepted) {
    auto stream = IpcStream::adopt(fd, /*alreadyBlockingCloseOnExec=*/true);
    if (!stream) {
      DKLogError("Service %s cannot use a new connection: %s", serviceName_,
                 stream.error()->localizedDescription());
      continue;
    }
    // The identity and the delegate are for the listener's queue, off the loop thread.
    queue_->async([weak = weak_from_this(), stream = std::move(*stream)]() mutable {
      auto self = weak.lock();
      if (!self) {
        return;  // the stream closes its socket
      }
      std::shared_ptr<const IpcIdentityResolver> resolver;
      {
        std::lock_guard lock(self->mutex_);
        resolver = self->identityResolver_;
      }
      auto connection = IpcConnection::accepted(std::move(stream), self->serviceName_,
                                                std::move(resolver));
      if (connection) {
        self->offer(std::move(*connection));
      }
    });
  }
}

void IpcListener::offer(std::shared_ptr<IpcConnection> connection) {
  std::shared_ptr<IpcListenerDelegate> delegate;
  {
    std::lock_guard lock(mutex_);
    if (invalidated_) {
      connection->invalidate();
      return;
    }
    delegate = delegate_.lock();
  }
  if (!delegate) {
    DKLogError("Service %s has no listener delegate; closing the %@", serviceName_, *connection);
    connection->invalidate();
    return;
  }
  if (!delegate->shouldAcceptNewConnection(connection)) {
    DKLogDebug("The delegate of service %s refused the %@", serviceName_, *connection);
    connection->invalidate();
  }
}

}  // namespace daskel::platform
