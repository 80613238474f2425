// TransparentCoordination: the privileged front-end of file coordination. It turns a plain
// open() of an item under a registered provider's storage directory, by any process, into a
// provide-before-read, and a close after writing into a finished-write notice, without the
// process knowing: fanotify (FAN_CLASS_CONTENT) permission events on those directories.
//
// What it watches: the storage directory (_providedItemsURL) of every provider the
// FileCoordinator knows, followed as providers are added and removed. Each gets a mount of
// its own (TransparentCoordinationMounts: bound onto itself unless it already is a mount
// root) carrying a FAN_MARK_MOUNT mark for FAN_OPEN_PERM and FAN_CLOSE_WRITE, so nothing
// outside the storage directories is ever held. A storage directory that does not exist is
// skipped with an error line (the SDK creates it before the provider registers).
//
// What an open gets:
// - allowed at once: opens by the daemon itself and by the running extension processes
//   (isExemptProcess; they open their own items while providing them and would wait on
//   themselves), opens of directories (no FAN_ONDIR), and opens of names that begin with "."
//   (placeholders, ".<name>", are present by construction, and the SDK's temporary files);
// - otherwise the owning provider is asked, on its operation queue,
//   _provideItemAtURL(url, readerID, completion) with a reader identifier "pid <pid>
//   (<executable>)"; the open is allowed when the completion reports no error and denied
//   when it reports one. Opens of an item while a request for it is still out share that
//   request. Every open is answered asynchronously: the event loop never waits for a
//   provider, so opens of other items go on meanwhile.
// - fanotify sees opens of files that exist: an open of a name with nothing at it fails
//   with ENOENT before any event. An item therefore needs a file at its path (an empty
//   stand-in, a stale copy) for an open to fetch it; names with nothing there are the
//   cooperative front-end's. When the provider replaces the file by a rename while the open
//   waits, the provided contents are copied into the file the reader opened before it is let
//   through (bringOpenedFileUpToDate).
// - Bound: a request unanswered after `bound` (30 s, DASKEL_COORDINATION_TIMEOUT_SECONDS) is
//   denied, with an error line naming the path, the provider and the reader. A provider
//   whose extension crashes fails the request's connection, so its completion reports an
//   error at once and the open is denied without waiting for the bound.
// A denied open fails in the reading process with EPERM ("Operation not permitted"): that
// is what a fanotify denial gives, whatever the provider's error was.
//
// A close after writing (FAN_CLOSE_WRITE) by any process but the exempt ones calls the
// owning provider's _writerWithID(writerID, url) on its operation queue.
//
// Ownership: start() returns the front-end; it borrows the FileCoordinator (not owned; must
// outlive it) and keeps an observer on it. Destroying it (or stop()) denies the opens still
// waiting, removes its marks and unmounts the mounts it made.
// THREADING NOTES: one thread of its own reads the fanotify descriptor; completions and
// timers run on dispatch queues; members may be called from any thread.
// Failure: start() logs one notice line and returns null when fanotify cannot be used (no
// CAP_SYS_ADMIN, an old kernel); the daemon then offers only the cooperative front-end.
// Problems with one storage directory are logged and leave the others watched.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/coordination/FileCoordinator.h"
#include "platform/dispatch/DispatchQueue.h"
#include "platform/identity/ScopedFd.h"
#include "platform/value/Result.h"

namespace daskel::platform {

struct TransparentCoordinationOptions {
  // How long an open may wait for its provider before it is denied.
  std::chrono::steady_clock::duration bound = std::chrono::seconds(30);
  // Processes (besides the daemon itself) whose opens and writes are let through untouched:
  // the running extensions. Null: none.
  std::function<bool(pid_t)> isExemptProcess;
  // Times the bound; the real clock when null. Not owned; must outlive the front-end.
  Scheduler* scheduler = nullptr;
};

class TransparentCoordination : public std::enable_shared_from_this<TransparentCoordination> {
 public:
  static constexpr char kBoundVariable[] = "DASKEL_COORDINATION_TIMEOUT_SECONDS";
  static constexpr std::chrono::seconds kDefaultBound{30};

  // The bound from DASKEL_COORDINATION_TIMEOUT_SECONDS (seconds, fractions allowed, more
  // than 0), or 30 s when it is unset or not such a number (with an error line then).
  static std::chrono::steady_clock::duration boundFromEnvironment();

  // Starts watching the storage directories of `coordinator`'s providers. Null, after one
  // notice line, when fanotify permission events are not available to this process.
  static std::shared_ptr<TransparentCoordination> start(FileCoordinator& coordinator,
                                                        TransparentCoordinationOptions options);

  ~TransparentCoordination();
  TransparentCoordination(const TransparentCoordination&) = delete;
  TransparentCoordination& operator=(const TransparentCoordination&) = delete;

  // Idempotent; see the ownership note.
  void stop();

  // The storage directories watched now (absolute, symbolic links resolved), sorted.
  std::vector<std::string> watchedDirectories() const;

 private:
  // One request to a provider, shared by the opens of one item that arrive while it is out.
  struct PendingRequest {
    std::uint64_t id = 0;
    std::string path;
    std::string provider;
    std::string reader;
    // The event descriptors to answer, one per waiting open.
    std::vector<int> eventFds;
  };
  struct WatchedDirectory {
    std::string path;
    bool markedMount = false;
  };

  TransparentCoordination(FileCoordinator& coordinator, TransparentCoordinationOptions options,
                          ScopedFd fanotifyFd, ScopedFd wakeFd);

  // Brings the watched directories in line with the coordinator's providers.
  void reconcile();
  void watchLocked(const std::string& path, const std::string& provider);
  void unwatchLocked(const std::string& path);

  void runEventLoop();
  void handlePermission(int eventFd, pid_t pid);
  void handleCloseWrite(int eventFd, pid_t pid);
  bool isExempt(pid_t pid) const;
  enum class Outcome { Provided, Failed, TimedOut };
  // Answers every open waiting on request `id` (if it is still out): allowed when Provided.
  void finish(std::uint64_t id, const std::string& path, Outcome outcome, const ErrorPtr& error);
  // After a provider answered: when the item at `path` is now another file than the one the
  // open found (the provider renamed a new one over it), copies its contents into the opened
  // file, so the reader reads what was provided.
  void bringOpenedFileUpToDate(int eventFd, const std::string& path);
  // Writes one answer and closes the event descriptor. Caller holds mutex_.
  void respondLocked(int eventFd, bool allow);

  FileCoordinator& coordinator_;
  const TransparentCoordinationOptions options_;
  const pid_t ownPid_;

  mutable std::mutex mutex_;
  // Closed (reset) by stop() under mutex_, so no answer is ever written to a reused number.
  ScopedFd fanotifyFd_;
  ScopedFd wakeFd_;
  bool stopped_ = false;
  std::optional<FileCoordinator::ObserverToken> observer_;
  std::map<std::string, WatchedDirectory> watched_;
  std::map<std::string, PendingRequest> pendingByPath_;
  std::uint64_t nextRequestId_ = 1;
  std::thread loop_;
};

}  // namespace daskel::platform
