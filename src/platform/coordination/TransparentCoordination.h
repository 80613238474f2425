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
// - allowed at once: opens by the daemon itself, by the running extension processes and by
//   the processes they start, up to kDefaultAncestryGenerations generations down
//   (isExemptProcess, asked of the opening process and its ancestors; an extension opens its
//   own items while providing them, and so may a helper it runs to download one, and either
//   would wait on itself), opens of directories (no FAN_ONDIR), and opens of names that begin
//   with "." (placeholders, ".<name>", are present by construction, and the SDK's temporary
//   files);
// - otherwise the owning provider is asked, on its operation queue,
//   _provideItemAtURL(url, readerID, completion); the open is allowed when the completion
//   reports no error and denied when it reports one. Opens of an item while a request for it
//   is still out share that request. Every open is answered asynchronously: the event loop
//   never waits for a provider, so opens of other items go on meanwhile.
// - The reader identifier names the process as the cooperative front-end does, "pid <pid>
//   (<bundle identifier>)", when the application registry knows it (a token taken by pid),
//   and by its executable otherwise, "pid 1234 (/usr/bin/cat)". The look-up reads manifests
//   and /proc, so it runs on a dispatch queue before the provider is asked, never on the
//   event loop; until it is done log lines name the reader "pid <pid>".
// - fanotify sees opens of files that exist: an open of a name with nothing at it fails
//   with ENOENT before any event. An item therefore needs a file at its path for an open to
//   fetch it. The provider SDK makes one: when a provider writes an item's placeholder it
//   also creates an empty stand-in at the item's path if nothing is there, and it offers
//   providers an eviction that leaves a stand-in behind (ProviderExtension::evictToStandIn;
//   ProviderExtension::isStandIn tells a stand-in from a real empty document). Names with
//   nothing there are the cooperative front-end's. When the provider replaces the file by a
//   rename while the open waits, the provided contents are copied into the file the reader
//   opened before it is let through (bringOpenedFileUpToDate).
// - Bound: a request unanswered after `bound` (30 s, DASKEL_COORDINATION_TIMEOUT_SECONDS) is
//   denied, with an error line naming the path, the provider and the reader. A provider
//   whose extension crashes fails the request's connection, so its completion reports an
//   error at once and the open is denied without waiting for the bound.
// A denied open fails in the reading process with an errno that says why: EIO ("Input/output
// error") when the provider failed (it reported an error, could not name the item, or its
// extension crashed), EAGAIN ("Resource temporarily unavailable") when it did not answer
// within the bound or the front-end stopped meanwhile. Kernels before Linux 6.14 cannot give
// a denial a reason; there every denied open fails with EPERM ("Operation not permitted"),
// and the daemon says so once in its log (denialsCarryErrno() tells which).
//
// A close after writing (FAN_CLOSE_WRITE) by any process but the exempt ones calls the
// owning provider's _writerWithID(writerID, url) on its operation queue, with the writer
// named as readers are (its executable is read on the event loop, as the writer may be gone
// by the time the look-up runs).
//
// Ownership: start() returns the front-end; it borrows the FileCoordinator (not owned; must
// outlive it) and keeps an observer on it, and shares the application registry. Destroying
// it (or stop()) denies the opens still waiting, removes its marks and unmounts the mounts
// it made.
// THREADING NOTES: one thread of its own reads the fanotify descriptor; process look-ups,
// completions and timers run on dispatch queues; members may be called from any thread.
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

class ApplicationRegistry;

struct TransparentCoordinationOptions {
  // How long an open may wait for its provider before it is denied.
  std::chrono::steady_clock::duration bound = std::chrono::seconds(30);
  // Processes (besides the daemon itself) whose opens and writes are let through untouched,
  // together with their descendants: the running extensions. Called on the event loop with
  // the opening process and its ancestors in turn; it must answer at once. Null: none.
  std::function<bool(pid_t)> isExemptProcess;
  // Names readers and writers; the manifests of DASKEL_APPLICATIONS_PATH when null.
  std::shared_ptr<const ApplicationRegistry> applications;
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

  // False once the kernel refused to give a denial its errno (before Linux 6.14): denied
  // opens fail with EPERM from then on.
  bool denialsCarryErrno() const;

 private:
  // One request to a provider, shared by the opens of one item that arrive while it is out.
  struct PendingRequest {
    std::uint64_t id = 0;
    std::string path;
    std::string provider;
    // "pid <pid>" until the look-up has named the reader in full.
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
  // "pid <pid> (<bundle identifier>)" for a registered application, else "pid <pid>
  // (<executable>)", with `executable` read earlier or, when it is empty, now; "pid <pid>"
  // when neither is known. May block: never called on the event loop.
  std::string processIdentifier(pid_t pid, std::string executable) const;
  // Names the reader of request `id` and asks `provider` for the item; nothing when the
  // request has been answered meanwhile (bound, stop()). Runs on a dispatch queue.
  void askProvider(std::uint64_t id,
                   const std::string& path,
                   const Url& url,
                   pid_t pid,
                   const std::shared_ptr<CoordinationProvider>& provider);
  enum class Outcome { Provided, Failed, TimedOut };
  // Answers every open waiting on request `id` (if it is still out): allowed when Provided.
  void finish(std::uint64_t id, const std::string& path, Outcome outcome, const ErrorPtr& error);
  // After a provider answered: when the item at `path` is now another file than the one the
  // open found (the provider renamed a new one over it), copies its contents into the opened
  // file, so the reader reads what was provided.
  void bringOpenedFileUpToDate(int eventFd, const std::string& path);
  // Writes one answer and closes the event descriptor. Caller holds mutex_.
  // Answers the open of `eventFd` and closes it: kAllow, or the errno the open fails with.
  static constexpr int kAllow = 0;
  void respondLocked(int eventFd, int denial);

  FileCoordinator& coordinator_;
  // options.applications is never null here.
  const TransparentCoordinationOptions options_;
  const pid_t ownPid_;

  mutable std::mutex mutex_;
  // Closed (reset) by stop() under mutex_, so no answer is ever written to a reused number.
  ScopedFd fanotifyFd_;
  ScopedFd wakeFd_;
  bool stopped_ = false;
  bool denialsCarryErrno_ = true;  // until the kernel refuses one
  std::optional<FileCoordinator::ObserverToken> observer_;
  std::map<std::string, WatchedDirectory> watched_;
  std::map<std::string, PendingRequest> pendingByPath_;
  std::uint64_t nextRequestId_ = 1;
  std::thread loop_;
};

}  // namespace daskel::platform
