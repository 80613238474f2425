// IoLoop: waits on one epoll instance for every IPC socket of the process (listening sockets
// and connections alike) and runs the handlers of ready descriptors, so the number of
// connections never sets the number of threads.
//
// A registration names a file descriptor (borrowed: the registrant keeps owning and closing
// it), the events of interest (level-triggered epoll events) and a handler that runs on a loop
// thread with the events the kernel reported. Handlers may do real work: IpcConnection runs a
// request or a reply handler right there when the connection's queue is idle, and those may
// block (a synchronous read, a sync onto a busy queue, a blocking call to another service).
//
// THREADING MODEL (leader/followers):
// - At most one loop thread waits in epoll_wait at a time; it takes a batch of events and runs
//   their handlers itself, one after the other. A batch of one (a single busy connection, a
//   client waiting for its reply) costs no thread switch. A larger batch that keeps its thread
//   busy for more than a few tens of microseconds wakes one more loop thread (up to one per
//   core) that takes events from the same batch and waits on epoll once the batch is taken,
//   so busy connections are served on several cores while short batches cost no wake-up.
// - A loop thread whose handler blocks hands the loop on: at once when it blocks in a
//   WorkerPool::BlockingScope (DispatchQueue::sync, blocking IPC calls), otherwise when a
//   watchdog sees that nobody has waited on epoll or started a handler for `stallInterval`.
//   An idle loop thread (or a new one, up to `maxThreads`) then takes the rest of the batch and
//   the epoll wait. So one slow or blocked handler never stops other sockets from being served.
// - The first job a handler submits to a worker pool (a reply sent through a dispatch queue)
//   is kept for the handler's thread, which runs it as soon as the handler returns instead of
//   waking a worker (WorkerPool::JobKeeper). A handler that blocks in a BlockingScope, or that
//   the watchdog sees running for `stallInterval` after it submitted, lets the job go to its
//   pool, so a handler that waits for its own job without saying so is only delayed.
// - A thread that has just run handlers polls epoll without sleeping for a few tens of
//   microseconds before it waits: the next message of an exchange usually comes sooner than a
//   sleeping core can be woken for it. Bounded per burst of work, so an idle process sleeps.
// - One registration's handler never runs on two threads at once. When its descriptor is
//   reported again while its handler still runs elsewhere, the descriptor is disarmed until
//   that handler returns and then re-armed with its current events (nothing is lost: the
//   kernel reports what is still ready when it is re-armed).
// - Loop threads beyond the first leave after `idleTimeout` without work.
//
// Ownership: the loop holds each handler (and whatever it captures) until remove() (or, when
// removed while running, until the running call returns). The process-wide loop from shared()
// is created on first use and lives for the rest of the process.
//
// THREADING NOTES: add, modify and remove may be called from any thread, loop threads and
// handlers included. A handler may still run once after remove() returns when it was called
// from another thread while a loop thread had already picked up the event (it is never called
// for a registration removed *before* the loop looked the registration up); handlers therefore
// check their own state before touching their descriptor. Remove before closing the
// descriptor: once removed, the loop never touches the descriptor again.
//
// Failure: add and modify return IpcError(ConnectionInvalid) with the errno text of epoll_ctl.
#pragma once

#include <sys/epoll.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "platform/dispatch/WorkerPool.h"
#include "platform/value/Result.h"

namespace daskel::platform {

class IoLoop final : private WorkerPool::BlockingObserver {
 public:
  using Handler = std::function<void(std::uint32_t events)>;
  using RegistrationId = std::uint64_t;

  struct Stats {
    int threads = 0;
    int idle = 0;  // loop threads waiting to be needed
  };

  // The process-wide loop; its first thread starts on first use.
  static IoLoop& shared();

  IoLoop(const IoLoop&) = delete;
  IoLoop& operator=(const IoLoop&) = delete;

  // Starts reporting `events` (EPOLLIN, EPOLLOUT, ...) of `fd` to `handler`.
  Result<RegistrationId> add(int fd, std::uint32_t events, Handler handler);
  // Changes the events of interest of a registration. Unknown ids are ignored.
  Result<void> modify(RegistrationId id, int fd, std::uint32_t events);
  // Stops reporting and releases the handler. Unknown ids are ignored.
  void remove(RegistrationId id, int fd);

  // Called on a loop thread: the handler of `id` runs with `events` as soon as the calling
  // handler returns, ahead of the other descriptors the kernel has reported, without waiting
  // for the kernel to report it. For a descriptor whose input is on its way already (a
  // request socket handed over right before its request): the request is served before the
  // clean-up of older ones. Called elsewhere, it does nothing: the kernel reports the input.
  void handleSoon(RegistrationId id, std::uint32_t events);

  // True on a loop thread (inside a handler).
  bool isLoopThread() const;

  Stats stats() const;

 private:
  struct Registration;

  IoLoop();
  ~IoLoop() = default;  // never destroyed

  void threadMain();
  void watchdogMain();
  // Runs the handler of `event` unless it runs elsewhere; called and returns with the lock.
  // `keeper` is the calling thread's, for the handler's first pool job.
  void dispatchLocked(std::unique_lock<std::mutex>& lock,
                      const epoll_event& event,
                      WorkerPool::JobKeeper& keeper);
  // Makes sure some loop thread other than the busy ones takes over the epoll wait.
  void handOnLocked();
  // Gets a second thread going on a batch of several ready sockets.
  void shareBatchLocked();
  void spawnLocked();

  void threadWillBlock() override;
  void threadDidUnblock() override;

  const int epollFd_;
  const int maxThreads_;
  const std::chrono::milliseconds stallInterval_;
  const std::chrono::milliseconds idleTimeout_;
  const int helpers_;  // threads that share batches: the number of cores

  mutable std::mutex mutex_;
  RegistrationId nextId_ = 1;
  std::unordered_map<RegistrationId, std::shared_ptr<Registration>> registrations_;
  std::deque<epoll_event> ready_;  // reported by the kernel, not yet handled
  std::vector<WorkerPool::JobKeeper*> keepers_;  // one per loop thread, on its stack
  bool polling_ = false;           // a thread waits in epoll_wait
  int threads_ = 0;
  int idle_ = 0;
  int running_ = 0;                // handlers running now
  std::uint64_t started_ = 0;      // handlers started, ever
  std::uint64_t polls_ = 0;        // epoll waits begun, ever
  bool watchdogSleeping_ = false;  // waiting without a deadline: no handler runs
  std::condition_variable idleCv_;
  std::condition_variable watchdogCv_;
};

}  // namespace daskel::platform
