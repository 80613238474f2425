// ExtensionPidRegistry: the process ids of the extension processes that run now. The
// transparent file-coordination front-end asks it whether the process opening a file is an
// extension: an extension opens files in its own storage directory while it provides them,
// and would wait on itself if those opens were held for the provider.
//
// ExtensionProcess adds a pid right after posix_spawn, before any request reaches the
// process, and removes it when it reaps the process (so the pid cannot name another process
// while it is listed). Only the extension's own process is listed: processes it starts in
// turn are not.
//
// Ownership: shared() is process-wide and never destroyed.
// THREADING NOTES: every member may be called from any thread; a mutex guards the set.
// Failure: none to report.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <unordered_set>

namespace daskel::platform {

class ExtensionPidRegistry {
 public:
  static ExtensionPidRegistry& shared();

  ExtensionPidRegistry() = default;
  ExtensionPidRegistry(const ExtensionPidRegistry&) = delete;
  ExtensionPidRegistry& operator=(const ExtensionPidRegistry&) = delete;

  void add(pid_t pid);
  void remove(pid_t pid);
  bool contains(pid_t pid) const;

 private:
  mutable std::mutex mutex_;
  std::unordered_set<pid_t> pids_;
};

}  // namespace daskel::platform
