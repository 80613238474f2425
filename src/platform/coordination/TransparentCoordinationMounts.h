// TransparentCoordinationMounts: gives each storage directory that the transparent
// coordination front-end watches a mount of its own, so that a fanotify mount mark on it
// covers that directory tree and nothing else of its file system.
//
// attach(path): when `path` is already the root of a mount it is used as it is (nothing is
// stacked on it, and it is never unmounted here: that covers a mount left behind by a daemon
// that was killed with SIGKILL, and a file system the administrator mounted there);
// otherwise the directory is bind-mounted onto itself, and that mount belongs to this
// object. detach(path) unmounts (MNT_DETACH) a mount made here; detachAll() every one.
//
// A terminating signal (SIGTERM, SIGINT, SIGHUP) would end the daemon without running any
// destructor, so while it holds mounts the process has a handler for those signals that
// detaches them (umount2 only, which is safe in a handler), then lets the signal have its
// usual effect (a handler installed before is called instead). SIGKILL leaves the mounts in
// place; the next start reuses them.
//
// Side effect of a bind mount: rename(2) between the storage directory and the rest of its
// file system fails with EXDEV (mv falls back to copying).
//
// Ownership: shared() is process-wide and never destroyed (the signal handler reads it).
// THREADING NOTES: every member may be called from any thread; a mutex guards the table.
// Failure: attach() returns a POSIX-domain error naming the path and the errno text.
#pragma once

#include <mutex>
#include <string>

#include "platform/value/Result.h"

namespace daskel::platform {

class TransparentCoordinationMounts {
 public:
  // How many mounts one process can hold.
  static constexpr int kMaximumMounts = 128;

  static TransparentCoordinationMounts& shared();

  TransparentCoordinationMounts(const TransparentCoordinationMounts&) = delete;
  TransparentCoordinationMounts& operator=(const TransparentCoordinationMounts&) = delete;

  // Makes `path` (absolute, symbolic links resolved) a mount root; true when a mount was made
  // here, false when it already was one.
  Result<bool> attach(const std::string& path);
  // Unmounts `path` if this object mounted it; logs a failure.
  void detach(const std::string& path);
  void detachAll();

  // Whether `path` is the root of a mount now.
  static Result<bool> isMountRoot(const std::string& path);

 private:
  TransparentCoordinationMounts() = default;
  static void installSignalHandlers();

  std::mutex mutex_;
};

}  // namespace daskel::platform
