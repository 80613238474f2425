#include "platform/ipc/IoLoop.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <system_error>
#include <thread>

#include "platform/errors/DKErrors.h"
#include "platform/log/Log.h"

namespace daskel::platform {

namespace {

constexpr int kMaxEventsPerWait = 64;
constexpr int kMaxThreads = 64;
constexpr std::chrono::milliseconds kStallInterval{10};
constexpr std::chrono::milliseconds kIdleTimeout{5000};
// A batch of several ready sockets is shared with a second thread only once this thread has
// worked on it for this long: most batches are a request and a close, or a control packet and
// its request, done sooner than a sleeping thread on another core would wake up to help.
constexpr std::chrono::microseconds kShareBatchAfter{50};
// A thread that has just handled events keeps asking the kernel for more, without sleeping,
// for this long before it waits. Messages of one exchange follow each other within tens of
// microseconds (a request to an extension and its reply, a reply and the next request), and
// a core that went to sleep takes about as long again to be woken, more so in a virtual
// machine. An extension hears nothing while the daemon answers one client request and
// checks the next (about 50 microseconds between its last clean-up and the next request's
// begin packet), so the interval covers that with room to spare. The cost is bounded: at
// most this much processor time per burst of work. Each empty poll yields the core, so a
// runnable thread on the same core (often the very peer the reply has to come from) goes
// first.
constexpr std::chrono::microseconds kSpinAfterWork{100};

// The loop whose thread the calling thread is, if any.
thread_local const IoLoop* tCurrentLoop = nullptr;

ErrorPtr epollFailure(const char* what, int fd, int error) {
  return IpcError(IpcErrorCode::ConnectionInvalid, std::string("cannot ") + what + " socket " +
                                                       std::to_string(fd) + " with epoll: " +
                                                       std::strerror(error));
}

}  // namespace

struct IoLoop::Registration {
  Handler handler;
  const int fd;
  std::uint32_t events;
  bool running = false;   // its handler runs on some loop thread
  bool disarmed = false;  // reported while running; waits to be re-armed
  bool removed = false;

  Registration(Handler h, int f, std::uint32_t e) : handler(std::move(h)), fd(f), events(e) {}
};

IoLoop& IoLoop::shared() {
  // Never destroyed: connections may still be registered while the process exits, and the
  // loop threads must not outlive their object.
  static IoLoop* const loop = new IoLoop();
  return *loop;
}

IoLoop::IoLoop()
    : epollFd_(::epoll_create1(EPOLL_CLOEXEC)),
      maxThreads_(kMaxThreads),
      stallInterval_(kStallInterval),
      idleTimeout_(kIdleTimeout),
      helpers_(static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 8u))) {
  if (epollFd_ < 0) {
    // Without epoll no socket of this process can work; there is nothing to fall back to.
    DKLogError("Cannot create the IPC epoll instance: %s", std::strerror(errno));
    std::abort();
  }
  std::lock_guard lock(mutex_);
  spawnLocked();
  if (threads_ == 0) {
    std::abort();  // spawnLocked logged why
  }
  std::thread(&IoLoop::watchdogMain, this).detach();
}

Result<IoLoop::RegistrationId> IoLoop::add(int fd, std::uint32_t events, Handler handler) {
  std::lock_guard lock(mutex_);
  const RegistrationId id = nextId_++;
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  // Registered in the table first: the loop may report the descriptor the moment epoll_ctl
  // returns.
  registrations_.emplace(id, std::make_shared<Registration>(std::move(handler), fd, events));
  if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event) != 0) {
    const int error = errno;
    registrations_.erase(id);
    return failure(epollFailure("watch", fd, error));
  }
  return id;
}

Result<void> IoLoop::modify(RegistrationId id, int fd, std::uint32_t events) {
  std::lock_guard lock(mutex_);
  auto found = registrations_.find(id);
  if (found == registrations_.end()) {
    return {};
  }
  Registration& registration = *found->second;
  registration.events = events;
  if (registration.disarmed) {
    return {};  // re-armed with these events when its handler returns
  }
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  if (::epoll_ctl(epollFd_, EPOLL_CTL_MOD, fd, &event) != 0) {
    return failure(epollFailure("change the events of", fd, errno));
  }
  return {};
}

void IoLoop::remove(RegistrationId id, int fd) {
  Handler handler;
  {
    std::lock_guard lock(mutex_);
    auto found = registrations_.find(id);
    if (found == registrations_.end()) {
      return;
    }
    Registration& registration = *found->second;
    registration.removed = true;
    if (!registration.running) {
      handler = std::move(registration.handler);
    }
    registrations_.erase(found);
    ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
  }
  // `handler` (and what it captured) is released here, outside the lock: its captures may
  // own objects whose destructors register or remove descriptors themselves. A running
  // handler is released by the thread running it, when it returns.
}

void IoLoop::handleSoon(RegistrationId id, std::uint32_t events) {
  if (tCurrentLoop != this) {
    return;
  }
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  std::lock_guard lock(mutex_);
  // Taken by this thread next (or by a helper sharing the batch, which is as good). Should
  // the kernel report the descriptor as well, the second run finds nothing left to read.
  ready_.push_front(event);
}

bool IoLoop::isLoopThread() const {
  return tCurrentLoop == this;
}

IoLoop::Stats IoLoop::stats() const {
  std::lock_guard lock(mutex_);
  return Stats{threads_, idle_};
}

void IoLoop::spawnLocked() {
  if (threads_ >= maxThreads_) {
    return;
  }
  try {
    std::thread(&IoLoop::threadMain, this).detach();
  } catch (const std::system_error& error) {
    DKLogError("Cannot start an IPC loop thread (%d running): %s", threads_, error.what());
    return;
  }
  ++threads_;
}

void IoLoop::handOnLocked() {
  if (polling_) {
    return;  // somebody listens already
  }
  if (idle_ > 0) {
    idleCv_.notify_one();
  } else {
    spawnLocked();
  }
}

void IoLoop::shareBatchLocked() {
  // More than one socket is ready: a second core may work through them alongside this thread
  // (and wait on epoll once they are taken). One wake-up for a whole batch.
  if (idle_ > 0) {
    idleCv_.notify_one();
  } else if (threads_ < helpers_) {
    spawnLocked();
  }
}

void IoLoop::threadWillBlock() {
  // Only handlers run on loop threads, and a handler that waits holds up whatever the loop
  // has not handled yet.
  std::lock_guard lock(mutex_);
  handOnLocked();
}

void IoLoop::threadDidUnblock() {}

void IoLoop::threadMain() {
  tCurrentLoop = this;
  WorkerPool::observeBlockingOfThisThread(this);
  epoll_event events[kMaxEventsPerWait];
  WorkerPool::JobKeeper keeper;
  std::unique_lock lock(mutex_);
  keepers_.push_back(&keeper);
  // Set when this thread took several events from the kernel and nobody helps with them yet.
  std::optional<std::chrono::steady_clock::time_point> batchUnshared;
  // Whether this thread ran a handler since it last waited on epoll.
  bool worked = false;
  for (;;) {
    if (!ready_.empty()) {
      if (batchUnshared && std::chrono::steady_clock::now() - *batchUnshared >= kShareBatchAfter) {
        batchUnshared.reset();
        shareBatchLocked();
      }
      const epoll_event event = ready_.front();
      ready_.pop_front();
      dispatchLocked(lock, event, keeper);
      worked = true;
      continue;
    }
    batchUnshared.reset();
    if (!polling_) {
      polling_ = true;
      ++polls_;
      lock.unlock();
      int count = 0;
      if (worked) {
        const auto until = std::chrono::steady_clock::now() + kSpinAfterWork;
        do {
          count = ::epoll_wait(epollFd_, events, kMaxEventsPerWait, 0);
          if (count == 0) {
            // Polling must not keep the core from a thread that has work: on a core shared
            // with the peer the reply comes only once the peer has run.
            ::sched_yield();
          }
        } while (count == 0 && std::chrono::steady_clock::now() < until);
      }
      if (count == 0) {
        count = ::epoll_wait(epollFd_, events, kMaxEventsPerWait, -1);
      }
      const int error = errno;
      worked = false;
      lock.lock();
      polling_ = false;
      if (count < 0) {
        if (error == EINTR) {
          continue;
        }
        DKLogError("The IPC epoll wait failed: %s", std::strerror(error));
        std::abort();
      }
      ready_.insert(ready_.end(), events, events + count);
      if (count > 1) {
        batchUnshared = std::chrono::steady_clock::now();
      }
      continue;
    }
    // Another thread listens: wait until it needs help.
    ++idle_;
    const bool needed = idleCv_.wait_for(lock, idleTimeout_, [&] {
      return !ready_.empty() || !polling_;
    });
    --idle_;
    if (!needed && threads_ > 1) {
      break;
    }
  }
  --threads_;
  std::erase(keepers_, &keeper);
  WorkerPool::observeBlockingOfThisThread(nullptr);
  tCurrentLoop = nullptr;
}

void IoLoop::dispatchLocked(std::unique_lock<std::mutex>& lock,
                            const epoll_event& event,
                            WorkerPool::JobKeeper& keeper) {
  auto found = registrations_.find(event.data.u64);
  if (found == registrations_.end()) {
    return;  // removed after the kernel reported it
  }
  std::shared_ptr<Registration> registration = found->second;
  if (registration->running) {
    // Its handler runs on another thread (which must have blocked, or this thread would not
    // be listening). Keep the kernel from reporting it over and over meanwhile: one-shot with
    // no events reports a hang-up at most once more.
    if (!registration->disarmed) {
      epoll_event quiet{};
      quiet.events = EPOLLONESHOT;
      quiet.data.u64 = event.data.u64;
      ::epoll_ctl(epollFd_, EPOLL_CTL_MOD, registration->fd, &quiet);
      registration->disarmed = true;
    }
    return;
  }
  registration->running = true;
  ++running_;
  ++started_;
  if (watchdogSleeping_) {
    watchdogSleeping_ = false;
    watchdogCv_.notify_one();
  }
  lock.unlock();
  keeper.keep();
  registration->handler(event.events);
  WorkerPool::Job kept = keeper.take();
  lock.lock();
  registration->running = false;
  if (registration->removed) {
    Handler handler = std::move(registration->handler);
    lock.unlock();
    handler = nullptr;  // its captures go outside the lock, as in remove()
    registration.reset();
    lock.lock();
  } else if (registration->disarmed) {
    registration->disarmed = false;
    epoll_event armed{};
    armed.events = registration->events;
    armed.data.u64 = event.data.u64;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_MOD, registration->fd, &armed) != 0) {
      DKLogError("Cannot watch socket %d again: %s", registration->fd, std::strerror(errno));
    }
  }
  if (kept) {
    // The handler's job, run here rather than by a worker woken for it. Counted as a running
    // handler, so the watchdog hands the loop on if it takes long.
    lock.unlock();
    kept();
    kept = nullptr;  // its captures go outside the lock
    lock.lock();
  }
  --running_;
}

void IoLoop::watchdogMain() {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (running_ == 0) {
      // Nothing can hold the loop up until a handler starts.
      watchdogSleeping_ = true;
      watchdogCv_.wait(lock, [&] { return !watchdogSleeping_; });
    }
    const std::uint64_t started = started_;
    const std::uint64_t polls = polls_;
    watchdogCv_.wait_for(lock, stallInterval_);
    // Handlers run, nobody listens, and for a whole interval nobody started a handler or a
    // wait: the threads are stuck in handlers.
    if (running_ > 0 && !polling_ && started_ == started && polls_ == polls) {
      handOnLocked();
    }
    // A handler that has kept a job for a whole interval may be waiting for it.
    for (WorkerPool::JobKeeper* keeper : keepers_) {
      keeper->release(stallInterval_);
    }
  }
}

}  // namespace daskel::platform
