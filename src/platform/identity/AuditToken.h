// AuditToken: the identity of a connected peer process, fixed when its connection is
// accepted, from what the kernel says about the socket's other end: SO_PEERCRED (pid, uid,
// gid, as of the peer's connect() or socketpair()) and, where the kernel has it,
// SO_PEERPIDFD, a pidfd that keeps naming that very process even after its pid is reused.
//
// A token answers whether its process still exists. With a pidfd that is exact: the pid
// cannot name another process until this one has exited and been reaped, and the pidfd
// reports the exit. When the kernel cannot give the peer's pidfd (before Linux 6.5) the
// token opens one by pid at accept time (Linux 5.3 and later), which is exact from then on
// but names a stranger if the peer died and its pid was reused between its connect() and
// our accept. With no pidfd at all the token compares the process start time in
// /proc/<pid>/stat with the one read at accept time; that has the same gap, and misses a
// reuse by a process started within the same clock tick (1/100 s) as the peer. A peer that
// had already gone at accept time gives a token that is never alive.
//
// A process that exited (a zombie included) has no identity: look-ups through a token that
// is not alive answer nothing.
//
// Ownership: the token owns its pidfd, shared between copies; the last copy closes it.
// Copies are cheap.
//
// THREADING NOTES: immutable after creation; every member may be called from any thread.
// Failure: fromSocket returns nullopt when the socket has no peer credentials (not a Unix
// socket, not connected), with an error line naming the descriptor and errno text.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace daskel::platform {

class ScopedFd;

class AuditToken {
 public:
  enum class PidfdUse {
    // The peer's pidfd from the kernel (SO_PEERPIDFD); else one opened by pid; else none.
    WhenAvailable,
    // Skip SO_PEERPIDFD and open a pidfd by pid; else none. For tests of that path.
    OpenedByPid,
    // No pidfd: rely on the start time. For tests of that path.
    Never,
  };

  // The identity of the peer of the connected Unix-domain socket `fd` (borrowed, not
  // closed).
  static std::optional<AuditToken> fromSocket(int fd, PidfdUse use = PidfdUse::WhenAvailable);
  // The identity of process `pid` as it is now, for callers that know a process by pid alone
  // (a fanotify event): pinned with a pidfd opened now (else its start time), owner and group
  // from /proc/<pid>. nullopt when there is no such process.
  static std::optional<AuditToken> ofProcess(pid_t pid);

  pid_t pid() const { return pid_; }
  uid_t uid() const { return uid_; }
  gid_t gid() const { return gid_; }

  // Whether the token holds a pidfd of its process.
  bool hasPidfd() const { return pidfd_ != nullptr; }
  // The pidfd, borrowed from the token (valid while a copy lives), or -1 without one.
  int pidfd() const;

  // True while the process the token names exists and has not exited, which also means its
  // pid still names it. Reads of /proc/<pid> made before a true answer were about this
  // process.
  bool isAlive() const;

  // "pid 1234 uid 1000 gid 1000"; what "%@" prints.
  std::string description() const;

 private:
  AuditToken(pid_t pid, uid_t uid, gid_t gid) : pid_(pid), uid_(uid), gid_(gid) {}
  // Pins the process by a pidfd opened by pid, else by its start time; marks the token gone
  // when the process is.
  void pinByPid();

  pid_t pid_;
  uid_t uid_;
  gid_t gid_;
  std::shared_ptr<const ScopedFd> pidfd_;
  // Without a pidfd: the start time (clock ticks after boot) read at accept time.
  std::optional<std::uint64_t> startTime_;
  // The peer had already gone when its connection was accepted.
  bool goneAtAccept_ = false;
};

}  // namespace daskel::platform
