// WorkerPool: the threads that run the async work of every dispatch queue and operation queue.
//
// Jobs run in submission order (a job may start before an earlier one finishes; there are many
// threads). Threads start lazily, up to `baseThreads` busy at once. The pool grows past that,
// up to `maxThreads`, in two cases:
// - a worker announces that it is about to wait for other pool work (BlockingScope, used by
//   sync() and waitUntilAllOperationsAreFinished()) while jobs are waiting: a thread is added
//   at once, so a job waiting for a later job cannot deadlock the pool;
// - jobs have been waiting with no idle worker and no job has started for `stallInterval`
//   (workers stuck in waits the pool cannot see): one thread is added per interval.
// Threads beyond `baseThreads` exit after `idleTimeout` without work.
//
// Wake-ups are kept off the submitter's path: an idle worker is signalled after the pool's
// lock is released, and the monitor is signalled only when it sleeps without a deadline (it
// is already timing a stall otherwise).
//
// Threads that are not workers but run other code that may wait (the IPC loop's threads) can
// hear of BlockingScopes on themselves through a BlockingObserver.
//
// A thread that is about to be done with what it runs may keep the next job it submits for
// itself (JobKeeper) instead of waking a worker for it: the IPC loop does so around each
// handler, so a reply that a request handler sends through a queue goes out on the loop
// thread as soon as the handler returns, without a thread switch. The kept job still runs
// after its submitter has moved on, as any submitted job does. A second submission from that
// thread submits the kept job first (submission order holds for one thread's jobs; jobs of
// other threads may start before a kept one). The kept job goes to its pool as usual when
// the thread enters a BlockingScope, and when its keeper's owner releases it (the loop's
// watchdog does for a handler that takes long), so nothing waits on a busy thread.
//
// shared() is the process-wide pool; it lives until the process exits. Separate pools exist
// for tests. Destroying a pool discards jobs that have not started and joins its threads
// (waiting for running jobs), so it must not be destroyed from one of its own jobs.
//
// THREADING NOTES: every member may be called from any thread. Jobs must not throw.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace daskel::platform {

class WorkerPool {
 public:
  using Job = std::move_only_function<void()>;

  struct Options {
    int baseThreads = 0;  // 0: the number of hardware threads (at least 2)
    int maxThreads = 128;
    std::chrono::milliseconds stallInterval{20};
    std::chrono::milliseconds idleTimeout{5000};
  };

  struct Stats {
    int threads = 0;
    int idle = 0;
    int blocked = 0;
    std::size_t pendingJobs = 0;
  };

  // Hears of the BlockingScopes of the threads it observes, on those threads.
  class BlockingObserver {
   public:
    virtual void threadWillBlock() = 0;
    virtual void threadDidUnblock() = 0;

   protected:
    ~BlockingObserver() = default;
  };

  // Marks the calling thread, if it is a worker of some pool, as waiting for other pool work
  // for the lifetime of the scope; on a thread with a BlockingObserver, tells the observer.
  // Harmless on any other thread.
  class BlockingScope {
   public:
    BlockingScope();
    ~BlockingScope();
    BlockingScope(const BlockingScope&) = delete;
    BlockingScope& operator=(const BlockingScope&) = delete;

   private:
    WorkerPool* const pool_;              // not owned; null when the thread is not a worker
    BlockingObserver* const observer_;    // not owned; null without one
  };

  // Keeps the first job the owning thread submits (to any pool) between keep() and take().
  // Lives on its owner's stack; release() may be called from any thread.
  class JobKeeper {
   public:
    JobKeeper() = default;
    ~JobKeeper();  // submits a job still kept
    JobKeeper(const JobKeeper&) = delete;
    JobKeeper& operator=(const JobKeeper&) = delete;

    // On the owning thread: from now on its first submission is kept here.
    void keep();
    // On the owning thread: stops keeping and returns the kept job, if any, for the caller
    // to run now.
    Job take();
    // Submits the kept job to its pool now, if one was kept at least `age` ago.
    void release(std::chrono::steady_clock::duration age = {});

   private:
    friend class WorkerPool;
    // From submit() on the owning thread; false when `job` is to be submitted as usual.
    bool offer(WorkerPool* pool, Job& job);

    std::mutex mutex_;
    WorkerPool* pool_ = nullptr;  // the kept job's pool
    Job job_;
    std::chrono::steady_clock::time_point keptAt_;
  };

  // Makes `observer` (not owned; null to stop) hear of the calling thread's BlockingScopes.
  // For threads that are not pool workers; it must outlive its use on the thread.
  static void observeBlockingOfThisThread(BlockingObserver* observer);

  static WorkerPool& shared();

  explicit WorkerPool(Options options);
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  void submit(Job job);
  Stats stats() const;
  // True when the calling thread is a worker of any pool.
  static bool isWorkerThread();

 private:
  struct IdleWorker;

  // submit() without a keeper.
  void enqueue(Job job);
  bool starvedLocked() const;
  void spawnLocked();
  void joinExitedLocked();
  void workerMain(std::list<std::thread>::iterator self);
  void monitorMain();
  void threadWillBlock();
  void threadDidUnblock();

  const int baseThreads_;
  const int maxThreads_;
  const std::chrono::milliseconds stallInterval_;
  const std::chrono::milliseconds idleTimeout_;

  mutable std::mutex mutex_;
  std::deque<Job> jobs_;
  // Workers waiting for a job, most recent last; shared so that a submitter can signal one
  // after releasing mutex_.
  std::vector<std::shared_ptr<IdleWorker>> idle_;
  std::list<std::thread> workers_;
  std::list<std::thread> exited_;  // workers that left on idle timeout, to be joined
  int threads_ = 0;
  int blocked_ = 0;
  std::uint64_t jobsStarted_ = 0;
  bool stopping_ = false;
  bool monitorSleeping_ = false;  // waiting without a deadline, for a starved pool
  std::condition_variable monitorCv_;
  std::condition_variable exitCv_;
  std::thread monitor_;
};

}  // namespace daskel::platform
