#include "platform/ipc/IpcStream.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "platform/errors/DKErrors.h"

namespace daskel::platform {

namespace {

// One read takes at most this much; one wake-up reads at most kReadsPerWakeup times, so a
// busy connection cannot keep the loop from the others.
constexpr std::size_t kReadChunk = 64 * 1024;
constexpr int kReadsPerWakeup = 16;
// Queued frames written with one sendmsg.
constexpr std::size_t kMaxWriteBatch = 16;

// Blocking, so that the holder of the read side can wait in recv() itself; the loop passes
// MSG_DONTWAIT on every call instead.
Result<void> makeBlockingCloexec(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ((flags & O_NONBLOCK) && ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0)) {
    return failure(IpcError(IpcErrorCode::ConnectionInvalid,
                            std::string("cannot make socket blocking: ") + std::strerror(errno)));
  }
  const int fdFlags = ::fcntl(fd, F_GETFD);
  if (fdFlags < 0 ||
      (!(fdFlags & FD_CLOEXEC) && ::fcntl(fd, F_SETFD, fdFlags | FD_CLOEXEC) != 0)) {
    return failure(IpcError(IpcErrorCode::ConnectionInvalid,
                            std::string("cannot make socket close-on-exec: ") +
                                std::strerror(errno)));
  }
  return {};
}

}  // namespace

Result<std::shared_ptr<IpcStream>> IpcStream::adopt(int fd, bool alreadyBlockingCloseOnExec) {
  if (fd < 0) {
    return failure(IpcError(IpcErrorCode::ConnectionInvalid, "no socket to adopt"));
  }
  if (alreadyBlockingCloseOnExec) {
    return std::shared_ptr<IpcStream>(new IpcStream(fd));
  }
  if (auto made = makeBlockingCloexec(fd); !made) {
    ::close(fd);
    return failure(made.error());
  }
  return std::shared_ptr<IpcStream>(new IpcStream(fd));
}

IpcStream::IpcStream(int fd) : fd_(fd) {}

IpcStream::~IpcStream() {
  std::lock_guard lock(mutex_);
  if (registration_) {
    IoLoop::shared().remove(*registration_, fd_);
  }
  if (fd_ >= 0) {
    ::close(fd_);
  }
  if (closedWhilePolled_ >= 0) {
    ::close(closedWhilePolled_);
  }
}

int IpcStream::fd() const {
  std::lock_guard lock(mutex_);
  return fd_;
}

bool IpcStream::isClosed() const {
  std::lock_guard lock(mutex_);
  return closed_;
}

Result<void> IpcStream::start(FrameHandler onFrame, EndHandler onEnd, bool inputSent) {
  std::lock_guard lock(mutex_);
  if (closed_) {
    return failure(IpcError(IpcErrorCode::ConnectionInvalid, "the connection is closed"));
  }
  handlers_ = std::make_shared<const Handlers>(Handlers{std::move(onFrame), std::move(onEnd)});
  reading_ = true;
  updateInterestLocked();
  if (!registration_) {
    reading_ = false;
    handlers_.reset();
    return failure(IpcError(IpcErrorCode::ConnectionInvalid,
                            "cannot watch socket " + std::to_string(fd_) + " for input"));
  }
  if (inputSent) {
    IoLoop::shared().handleSoon(*registration_, EPOLLIN);
  }
  return {};
}

void IpcStream::send(std::vector<std::uint8_t> frame) {
  std::lock_guard lock(mutex_);
  if (closed_ || writeFailed_) {
    return;
  }
  writes_.push_back(std::move(frame));
  if (!writeBlocked_) {
    flushLocked();
  }
}

void IpcStream::consumed(std::size_t bytes) {
  std::lock_guard lock(mutex_);
  outstandingBytes_ -= std::min(bytes, outstandingBytes_);
  if (readPaused_ && outstandingBytes_ <= kReadPauseBytes / 2) {
    readPaused_ = false;
    updateInterestLocked();
  }
}

void IpcStream::close() {
  const auto self = weak_from_this().lock();  // the handlers may hold the last owner
  std::shared_ptr<const Handlers> handlers;
  {
    std::lock_guard lock(mutex_);
    if (closed_) {
      return;
    }
    closed_ = true;
    reading_ = false;
    updateInterestLocked();
    if (pollingHere_) {
      // A thread waits in poll() or recv() on it: closing now could let the number be
      // reused under that wait. Shutting down wakes it; the waiting thread closes it.
      ::shutdown(fd_, SHUT_RDWR);
      closedWhilePolled_ = fd_;
    } else {
      ::close(fd_);
    }
    fd_ = -1;
    writes_.clear();
    inbox_.clear();
    end_.reset();
    handlers = std::move(handlers_);
  }
  // The handlers (and the connection they keep alive) are released here, outside the lock.
}

void IpcStream::handleEvents(std::uint32_t events) {
  std::unique_lock lock(mutex_);
  if (closed_) {
    return;
  }
  if (writeBlocked_ && (events & (EPOLLOUT | EPOLLERR | EPOLLHUP))) {
    writeBlocked_ = false;
    flushLocked();
  }
  if (reading_ && !readPaused_ && !readHeld_ &&
      (events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR))) {
    readLocked();
  }
  deliverLocked(lock);
}

void IpcStream::deliverLocked(std::unique_lock<std::mutex>& lock) {
  if (delivering_ || (inbox_.empty() && !end_)) {
    return;  // the thread that is delivering takes what was added
  }
  delivering_ = true;
  // Held for the whole run: close() clears the member meanwhile.
  const std::shared_ptr<const Handlers> handlers = handlers_;
  drainLocked(lock, *handlers);
  delivering_ = false;
  // The handlers (and the connection they may hold last) go after the lock.
  lock.unlock();
}

void IpcStream::drainLocked(std::unique_lock<std::mutex>& lock, const Handlers& handlers) {
  std::vector<std::vector<std::uint8_t>> batch;
  while (!closed_) {
    if (!inbox_.empty()) {
      batch.swap(inbox_);
      lock.unlock();
      for (auto& frame : batch) {
        handlers.onFrame(std::move(frame));
      }
      batch.clear();
      lock.lock();
    } else if (end_) {
      auto [end, reason] = std::move(*end_);
      end_.reset();
      lock.unlock();
      handlers.onEnd(end, std::move(reason));
      lock.lock();
    } else {
      break;
    }
  }
}

bool IpcStream::takeReadSide() {
  std::lock_guard lock(mutex_);
  if (closed_ || !reading_ || readPaused_ || readHeld_ || delivering_ || !inbox_.empty() ||
      end_) {
    return false;
  }
  readHeld_ = true;
  delivering_ = true;
  updateInterestLocked();
  return true;
}

template <typename Wait>
auto IpcStream::waitUnlocked(std::unique_lock<std::mutex>& lock, Wait wait) {
  pollingHere_ = true;
  lock.unlock();
  const auto result = wait();
  lock.lock();
  pollingHere_ = false;
  if (closedWhilePolled_ >= 0) {
    ::close(closedWhilePolled_);
    closedWhilePolled_ = -1;
  }
  return result;
}

void IpcStream::readHere(const std::function<bool()>& stop,
                         std::optional<std::chrono::steady_clock::time_point> deadline) {
  // Declared before the lock, so they are released after it.
  std::shared_ptr<const Handlers> handlers;
  std::unique_lock lock(mutex_);
  if (!readHeld_) {
    return;
  }
  handlers = handlers_;
  bool canBlock = !deadline;
  while (!closed_ && reading_ && !readPaused_) {
    if (canBlock) {
      // No deadline: wait in recv() itself, one system call per reply.
      canBlock = receiveBlockingLocked(lock);
      if (closed_) {
        return;
      }
      if (canBlock) {
        drainLocked(lock, *handlers);
        if (stop()) {
          return;
        }
        continue;
      }
    }
    int timeoutMs = -1;
    if (deadline) {
      const auto left = *deadline - std::chrono::steady_clock::now();
      if (left <= left.zero()) {
        return;
      }
      timeoutMs = static_cast<int>(std::min<std::chrono::milliseconds::rep>(
          std::chrono::ceil<std::chrono::milliseconds>(left).count(), INT_MAX));
    }
    pollfd watched{fd_, POLLIN | POLLRDHUP, 0};
    int error = 0;
    const int ready = waitUnlocked(lock, [&] {
      const int result = ::poll(&watched, 1, timeoutMs);
      error = errno;
      return result;
    });
    if (closed_) {
      return;
    }
    if (ready < 0 && error != EINTR) {
      return;  // not expected of poll on a valid descriptor; the loop reads instead
    }
    if (ready <= 0) {
      continue;  // interrupted, or the deadline (checked above)
    }
    readLocked();
    drainLocked(lock, *handlers);
    if (stop()) {
      return;
    }
  }
}

bool IpcStream::receiveBlockingLocked(std::unique_lock<std::mutex>& lock) {
  // Only the holder of the read side reads, so the buffer and the descriptor are safe to use
  // without the lock; close() meanwhile shuts the socket down (which ends this recv) and
  // leaves closing it to us.
  std::array<std::uint8_t, kReadChunk> buffer;
  const int fd = fd_;
  int error = 0;
  const ssize_t count = waitUnlocked(lock, [&] {
    ssize_t result;
    do {
      result = ::recv(fd, buffer.data(), buffer.size(), 0);
    } while (result < 0 && errno == EINTR);
    error = errno;
    return result;
  });
  if (closed_) {
    return true;
  }
  if (count < 0 && (error == EAGAIN || error == EWOULDBLOCK)) {
    return false;
  }
  if (absorbLocked(count, error, buffer.data(), buffer.size())) {
    readLocked();  // a full buffer: there may be more
  } else {
    finishReadLocked();
  }
  return true;
}

void IpcStream::setLoopReading(bool on) {
  std::unique_lock lock(mutex_);
  if (loopReading_ == on) {
    return;
  }
  loopReading_ = on;
  // What came while the loop did not read waits in the socket; level-triggered epoll reports
  // it as soon as the loop reads again.
  updateInterestLocked();
}

void IpcStream::releaseReadSide() {
  std::unique_lock lock(mutex_);
  if (!readHeld_) {
    return;
  }
  readHeld_ = false;
  delivering_ = false;
  updateInterestLocked();
  // readHere() delivers all it reads; this is for a holder that stopped in between.
  deliverLocked(lock);
}

void IpcStream::readLocked() {
  std::array<std::uint8_t, kReadChunk> buffer;
  for (int round = 0; round < kReadsPerWakeup && !end_; ++round) {
    const ssize_t count = ::recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (!absorbLocked(count, errno, buffer.data(), buffer.size())) {
      break;
    }
  }
  finishReadLocked();
}

bool IpcStream::absorbLocked(ssize_t count,
                             int error,
                             const std::uint8_t* data,
                             std::size_t capacity) {
  if (end_) {
    return false;  // ended before; what follows the end is not read
  }
  if (count < 0) {
    if (error == EAGAIN || error == EWOULDBLOCK) {
      return false;
    }
    // ECONNRESET and the like: the peer went away, whatever it was in the middle of.
    end_.emplace(End::PeerClosed, nullptr);
    return false;
  }
  if (count == 0) {
    if (auto finished = reader_.finish(); !finished) {
      end_.emplace(End::Violation, finished.error());
    } else {
      end_.emplace(End::PeerClosed, nullptr);
    }
    return false;
  }
  if (auto appended = reader_.append({data, static_cast<std::size_t>(count)}); !appended) {
    end_.emplace(End::Violation, appended.error());
    return false;
  }
  for (;;) {
    auto next = reader_.nextFrame();
    if (!next) {
      end_.emplace(End::Violation, next.error());
      return false;
    }
    if (!*next) {
      break;
    }
    outstandingBytes_ += (*next)->size();
    inbox_.push_back(std::move(**next));
  }
  // A short read drained the socket; the loop (or the next wait) sees what comes later.
  return static_cast<std::size_t>(count) == capacity;
}

void IpcStream::finishReadLocked() {
  if (end_) {
    reading_ = false;
  } else if (outstandingBytes_ > kReadPauseBytes) {
    readPaused_ = true;
  }
  updateInterestLocked();
}

void IpcStream::flushLocked() {
  while (!writes_.empty()) {
    std::array<iovec, kMaxWriteBatch> iov;
    std::size_t count = 0;
    for (auto it = writes_.begin(); it != writes_.end() && count < kMaxWriteBatch; ++it) {
      const std::size_t skip = count == 0 ? writeOffset_ : 0;
      iov[count].iov_base = it->data() + skip;
      iov[count].iov_len = it->size() - skip;
      ++count;
    }
    msghdr message{};
    message.msg_iov = iov.data();
    message.msg_iovlen = count;
    const ssize_t written = ::sendmsg(fd_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        writeBlocked_ = true;
        updateInterestLocked();
        return;
      }
      failWritesLocked();
      return;
    }
    std::size_t left = static_cast<std::size_t>(written);
    while (left > 0) {
      const std::size_t frontLeft = writes_.front().size() - writeOffset_;
      if (left >= frontLeft) {
        left -= frontLeft;
        writes_.pop_front();
        writeOffset_ = 0;
      } else {
        writeOffset_ += left;
        left = 0;
      }
    }
  }
  updateInterestLocked();
}

void IpcStream::failWritesLocked() {
  // The peer cannot take more. Shutting down makes the reading side see the end after what
  // the peer sent before it went, so the end is reported in its place in the stream.
  writeFailed_ = true;
  writeBlocked_ = false;
  writes_.clear();
  writeOffset_ = 0;
  ::shutdown(fd_, SHUT_RDWR);
  updateInterestLocked();
}

void IpcStream::updateInterestLocked() {
  std::uint32_t wanted = 0;
  if (!closed_) {
    if (reading_ && !readPaused_ && !readHeld_ && loopReading_) {
      wanted |= EPOLLIN | EPOLLRDHUP;
    }
    if (writeBlocked_ && !writes_.empty()) {
      wanted |= EPOLLOUT;
    }
    if (wanted == 0 && reading_ && (readHeld_ || !loopReading_)) {
      // Lent to a caller's thread, or read only by callers: registered but quiet. One-shot
      // without input events reports a hang-up at most once, and it costs less than
      // removing and adding around every call.
      wanted = EPOLLONESHOT | EPOLLRDHUP;
    }
  }
  IoLoop& loop = IoLoop::shared();
  if (wanted == 0) {
    // Unregistered rather than registered for nothing: a hung-up socket would otherwise be
    // reported over and over.
    if (registration_) {
      loop.remove(*registration_, fd_);
      registration_.reset();
      registeredEvents_ = 0;
    }
    return;
  }
  if (registration_) {
    if (wanted != registeredEvents_ && loop.modify(*registration_, fd_, wanted)) {
      registeredEvents_ = wanted;
    }
    return;
  }
  auto added = loop.add(fd_, wanted, [weak = weak_from_this()](std::uint32_t events) {
    if (auto self = weak.lock()) {
      self->handleEvents(events);
    }
  });
  if (added) {
    registration_ = *added;
    registeredEvents_ = wanted;
  }
}

}  // namespace daskel::platform
