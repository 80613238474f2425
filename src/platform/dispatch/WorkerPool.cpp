#include "platform/dispatch/WorkerPool.h"

#include <algorithm>
#include <cstdio>
#include <system_error>
#include <utility>

namespace daskel::platform {

namespace {

// The pool whose worker the calling thread is, if any.
thread_local WorkerPool* tCurrentPool = nullptr;
// Who hears of BlockingScopes on a thread that is no worker.
thread_local WorkerPool::BlockingObserver* tBlockingObserver = nullptr;
// The keeper of the calling thread's next job, between JobKeeper::keep() and take().
thread_local WorkerPool::JobKeeper* tJobKeeper = nullptr;

int defaultBaseThreads() {
  const unsigned hardware = std::thread::hardware_concurrency();
  return static_cast<int>(std::clamp(hardware, 2u, 32u));
}

}  // namespace

// A worker waiting for a job; lives on that worker's stack while it is listed in idle_.
struct WorkerPool::IdleWorker {
  std::condition_variable cv;
  bool woken = false;
};

WorkerPool::BlockingScope::BlockingScope()
    : pool_(tCurrentPool), observer_(tCurrentPool ? nullptr : tBlockingObserver) {
  if (tJobKeeper) {
    tJobKeeper->release();  // what this thread waits for may be that very job
  }
  if (pool_) {
    pool_->threadWillBlock();
  } else if (observer_) {
    observer_->threadWillBlock();
  }
}

WorkerPool::BlockingScope::~BlockingScope() {
  if (pool_) {
    pool_->threadDidUnblock();
  } else if (observer_) {
    observer_->threadDidUnblock();
  }
}

WorkerPool::JobKeeper::~JobKeeper() {
  if (tJobKeeper == this) {
    tJobKeeper = nullptr;
  }
  release();
}

void WorkerPool::JobKeeper::keep() {
  tJobKeeper = this;
}

WorkerPool::Job WorkerPool::JobKeeper::take() {
  if (tJobKeeper == this) {
    tJobKeeper = nullptr;
  }
  std::lock_guard lock(mutex_);
  pool_ = nullptr;
  return std::move(job_);
}

void WorkerPool::JobKeeper::release(std::chrono::steady_clock::duration age) {
  WorkerPool* pool;
  Job job;
  {
    std::lock_guard lock(mutex_);
    if (!job_ || (age > age.zero() && std::chrono::steady_clock::now() - keptAt_ < age)) {
      return;
    }
    pool = std::exchange(pool_, nullptr);
    job = std::move(job_);
  }
  pool->enqueue(std::move(job));
}

bool WorkerPool::JobKeeper::offer(WorkerPool* pool, Job& job) {
  {
    std::lock_guard lock(mutex_);
    if (!job_) {
      pool_ = pool;
      job_ = std::move(job);
      keptAt_ = std::chrono::steady_clock::now();
      return true;
    }
  }
  // A second job: the kept one goes first, so this thread's jobs start in their order.
  release();
  return false;
}

void WorkerPool::observeBlockingOfThisThread(BlockingObserver* observer) {
  tBlockingObserver = observer;
}

WorkerPool& WorkerPool::shared() {
  // Never destroyed: blocks may still be running while the process exits.
  static WorkerPool* const pool = new WorkerPool(Options{});
  return *pool;
}

WorkerPool::WorkerPool(Options options)
    : baseThreads_(options.baseThreads > 0 ? options.baseThreads : defaultBaseThreads()),
      maxThreads_(std::max(options.maxThreads, baseThreads_)),
      stallInterval_(options.stallInterval),
      idleTimeout_(options.idleTimeout) {}

WorkerPool::~WorkerPool() {
  std::deque<Job> discarded;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    discarded.swap(jobs_);
    for (const auto& worker : idle_) {
      worker->cv.notify_one();
    }
    monitorCv_.notify_all();
  }
  // Outside the lock: a job's captures may submit again while being destroyed.
  discarded.clear();
  if (monitor_.joinable()) {
    monitor_.join();
  }
  {
    std::unique_lock lock(mutex_);
    exitCv_.wait(lock, [&] { return threads_ == 0; });
  }
  for (std::thread& thread : exited_) {
    thread.join();
  }
}

void WorkerPool::submit(Job job) {
  if (tJobKeeper && tJobKeeper->offer(this, job)) {
    return;
  }
  enqueue(std::move(job));
}

void WorkerPool::enqueue(Job job) {
  std::unique_lock lock(mutex_);
  if (stopping_) {
    lock.unlock();
    return;  // `job` is destroyed here, outside the lock
  }
  jobs_.push_back(std::move(job));
  if (!idle_.empty()) {
    std::shared_ptr<IdleWorker> worker = std::move(idle_.back());
    idle_.pop_back();
    worker->woken = true;
    lock.unlock();
    // Signalled outside the lock, so the worker does not wake only to wait for it; `worker`
    // keeps the condition variable alive even if the worker has moved on meanwhile.
    worker->cv.notify_one();
  } else if (threads_ - blocked_ < baseThreads_ && threads_ < maxThreads_) {
    spawnLocked();
  } else if (threads_ < maxThreads_ && monitorSleeping_) {
    // A monitor that is timing a stall already will see these jobs when its interval ends.
    monitorSleeping_ = false;
    lock.unlock();
    monitorCv_.notify_one();
  }
}

WorkerPool::Stats WorkerPool::stats() const {
  std::lock_guard lock(mutex_);
  return Stats{threads_, static_cast<int>(idle_.size()), blocked_, jobs_.size()};
}

bool WorkerPool::isWorkerThread() {
  return tCurrentPool != nullptr;
}

bool WorkerPool::starvedLocked() const {
  return !jobs_.empty() && idle_.empty() && threads_ < maxThreads_;
}

void WorkerPool::spawnLocked() {
  if (stopping_ || threads_ >= maxThreads_) {
    return;
  }
  joinExitedLocked();
  auto self = workers_.emplace(workers_.end());
  try {
    // The new thread touches its list entry only under mutex_, which is held here.
    *self = std::thread(&WorkerPool::workerMain, this, self);
  } catch (const std::system_error& error) {
    workers_.erase(self);
    std::fprintf(stderr, "dispatch: cannot start a worker thread (%d running): %s\n", threads_,
                 error.what());
    return;
  }
  ++threads_;
  if (!monitor_.joinable()) {
    try {
      monitor_ = std::thread(&WorkerPool::monitorMain, this);
    } catch (const std::system_error& error) {
      std::fprintf(stderr, "dispatch: cannot start the pool monitor thread: %s\n", error.what());
    }
  }
}

void WorkerPool::joinExitedLocked() {
  // An exited worker listed itself here while holding mutex_ and then only returns, so it
  // needs nothing that the caller holds.
  for (std::thread& thread : exited_) {
    thread.join();
  }
  exited_.clear();
}

void WorkerPool::workerMain(std::list<std::thread>::iterator self) {
  tCurrentPool = this;
  std::unique_lock lock(mutex_);
  while (true) {
    if (!jobs_.empty()) {
      Job job = std::move(jobs_.front());
      jobs_.pop_front();
      ++jobsStarted_;
      lock.unlock();
      job();
      job = nullptr;  // release the captures before taking the lock again
      lock.lock();
      continue;
    }
    if (stopping_) {
      break;
    }
    const auto idle = std::make_shared<IdleWorker>();
    idle_.push_back(idle);
    idle->cv.wait_for(lock, idleTimeout_, [&] { return idle->woken || stopping_; });
    if (!idle->woken) {
      idle_.erase(std::find(idle_.begin(), idle_.end(), idle));
      if (!stopping_ && threads_ > baseThreads_ && jobs_.empty()) {
        break;
      }
    }
  }
  --threads_;
  exited_.splice(exited_.end(), workers_, self);
  exitCv_.notify_all();
  monitorSleeping_ = false;
  monitorCv_.notify_one();  // the monitor joins exited workers
  tCurrentPool = nullptr;
}

void WorkerPool::monitorMain() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    joinExitedLocked();
    if (!starvedLocked()) {
      monitorSleeping_ = true;
      monitorCv_.wait(lock);
      monitorSleeping_ = false;
      continue;
    }
    // Jobs wait and nobody is free to take them. If none starts within the interval, the
    // workers are stuck in waits the pool cannot see: add one.
    const std::uint64_t seen = jobsStarted_;
    const auto deadline = std::chrono::steady_clock::now() + stallInterval_;
    monitorCv_.wait_until(lock, deadline, [&] { return stopping_; });
    if (!stopping_ && starvedLocked() && jobsStarted_ == seen) {
      spawnLocked();
    }
  }
}

void WorkerPool::threadWillBlock() {
  std::lock_guard lock(mutex_);
  ++blocked_;
  if (!jobs_.empty() && idle_.empty()) {
    spawnLocked();
  }
}

void WorkerPool::threadDidUnblock() {
  std::lock_guard lock(mutex_);
  --blocked_;
}

}  // namespace daskel::platform
