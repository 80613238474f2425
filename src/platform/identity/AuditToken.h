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
// A token with a pidfd also carries what an identity look-up found out about its process
// (identityMemo), so that later look-ups through the same connection can check that rather
// than find it out again. Without a pidfd it carries none: the pid might meanwhile name
// another process.
//
// Ownership: the token owns its pidfd and its memo, shared between copies; the last copy
// closes the pidfd. Copies are cheap.
//
// THREADING NOTES: immutable after creation apart from the memo, which is replaced whole
// under a lock; every member may be called from any thread.
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
// What ApplicationRegistry learnt about a token's process (ApplicationRegistry.h).
struct ProcessIdentityMemo;

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
  bool hasPidfd() const { return pinned_ != nullptr; }
  // The pidfd, borrowed from the token (valid while a copy lives), or -1 without one.
  int pidfd() const;

  // True while the process the token names exists and has not exited, which also means its
  // pid still names it. Reads of /proc/<pid> made before a true answer were about this
  // process.
  bool isAlive() const;

  // "pid 1234 uid 1000 gid 1000"; what "%@" prints.
  std::string description() const;

  // What the last identity look-up through this token (or a copy) left for the next one;
  // null when there is none, or the token has no pidfd.
  std::shared_ptr<const ProcessIdentityMemo> identityMemo() const;
  // Replaces the memo; ignored for a token without a pidfd.
  void setIdentityMemo(std::shared_ptr<const ProcessIdentityMemo> memo) const;

 private:
  AuditToken(pid_t pid, uid_t uid, gid_t gid) : pid_(pid), uid_(uid), gid_(gid) {}
  // Pins the process by a pidfd opened by pid, else by its start time; marks the token gone
  // when the process is.
  void pinByPid();

  pid_t pid_;
  uid_t uid_;
  gid_t gid_;
  // The pidfd, and the identity memo that is only trusted as long as the pidfd pins the
  // process.
  struct Pinned;
  std::shared_ptr<Pinned> pinned_;
  // Without a pidfd: the start time (clock ticks after boot) read at accept time.
  std::optional<std::uint64_t> startTime_;
  // The peer had already gone when its connection was accepted.
  bool goneAtAccept_ = false;
};

}  // namespace daskel::platform
