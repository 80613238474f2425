#include "platform/identity/AuditToken.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/identity/ProcessInfo.h"
#include "platform/identity/ScopedFd.h"
#include "platform/log/Log.h"

namespace daskel::platform {
namespace {

// Linux 6.5 and later; the C library's headers may predate it.
#ifdef SO_PEERPIDFD
constexpr int kSoPeerPidfd = SO_PEERPIDFD;
#else
constexpr int kSoPeerPidfd = 77;
#endif

bool isExitedState(char state) {
  return state == 'Z' || state == 'X' || state == 'x';
}

}  // namespace

std::optional<AuditToken> AuditToken::fromSocket(int fd, PidfdUse use) {
  struct ucred credentials = {};
  socklen_t length = sizeof credentials;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
    int error = errno;
    DKLogError("Cannot read the peer credentials of socket %d: %s", fd, std::strerror(error));
    return std::nullopt;
  }
  // An unconnected socket reports no process.
  if (length != sizeof credentials || credentials.pid <= 0) {
    DKLogError("Socket %d has no peer process", fd);
    return std::nullopt;
  }
  AuditToken token(credentials.pid, credentials.uid, credentials.gid);

  auto adoptPidfd = [&token](int pidfd) {
    // Both sources hand it out close-on-exec; make sure, so no child inherits it.
    int flags = ::fcntl(pidfd, F_GETFD);
    if (flags >= 0 && !(flags & FD_CLOEXEC))
      ::fcntl(pidfd, F_SETFD, flags | FD_CLOEXEC);
    token.pinned_ = std::make_shared<Pinned>(pidfd);
  };

  bool openByPid = use == PidfdUse::OpenedByPid;
  if (use == PidfdUse::WhenAvailable) {
    int pidfd = -1;
    socklen_t pidfdLength = sizeof pidfd;
    if (::getsockopt(fd, SOL_SOCKET, kSoPeerPidfd, &pidfd, &pidfdLength) == 0 && pidfd >= 0) {
      adoptPidfd(pidfd);
      return token;
    }
    int error = errno;
    if (error == ESRCH) {
      // The peer has already been reaped: the connection has no identity.
      token.goneAtAccept_ = true;
      return token;
    }
    if (error == EINVAL || error == ENOPROTOOPT) {
      openByPid = true;
    } else {
      DKLogError(
          "Cannot get a pidfd for the peer of socket %d (pid %d): %s; using its start "
          "time",
          fd, static_cast<int>(token.pid_), std::strerror(error));
    }
  }
  if (openByPid) {
    token.pinByPid();
    return token;
  }
  auto stat = readProcessStat(token.pid_);
  if (!stat || isExitedState(stat->state)) {
    token.goneAtAccept_ = true;
  } else {
    token.startTime_ = stat->startTime;
  }
  return token;
}

std::optional<AuditToken> AuditToken::ofProcess(pid_t pid) {
  struct stat st;
  if (pid <= 0 || ::stat(("/proc/" + std::to_string(pid)).c_str(), &st) != 0) {
    return std::nullopt;
  }
  AuditToken token(pid, st.st_uid, st.st_gid);
  token.pinByPid();
  if (token.goneAtAccept_) {
    return std::nullopt;
  }
  return token;
}

void AuditToken::pinByPid() {
  // Opened now, the pidfd names whichever process has the pid now: for a socket's peer that
  // is the peer unless it died and its pid was reused since its connect(); from here on it
  // is exact.
  const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
  if (pidfd >= 0) {
    pinned_ = std::make_shared<Pinned>(pidfd);  // pidfd_open makes it close-on-exec
    return;
  }
  if (errno == ESRCH) {
    goneAtAccept_ = true;
    return;
  }
  // ENOSYS (before Linux 5.3): the start time is all there is.
  auto stat = readProcessStat(pid_);
  if (!stat || isExitedState(stat->state)) {
    goneAtAccept_ = true;
  } else {
    startTime_ = stat->startTime;
  }
}

struct AuditToken::Pinned {
  explicit Pinned(int fd) : pidfd(fd) {}
  const ScopedFd pidfd;
  std::mutex mutex;
  std::shared_ptr<const ProcessIdentityMemo> memo;
};

std::shared_ptr<const ProcessIdentityMemo> AuditToken::identityMemo() const {
  if (!pinned_)
    return nullptr;
  std::lock_guard lock(pinned_->mutex);
  return pinned_->memo;
}

void AuditToken::setIdentityMemo(std::shared_ptr<const ProcessIdentityMemo> memo) const {
  if (!pinned_)
    return;
  std::lock_guard lock(pinned_->mutex);
  pinned_->memo = std::move(memo);
}

int AuditToken::pidfd() const {
  return pinned_ ? pinned_->pidfd.get() : -1;
}

bool AuditToken::isAlive() const {
  if (goneAtAccept_)
    return false;
  if (pinned_) {
    // A pidfd becomes readable when its process exits (and reports a hang-up once it is
    // reaped), so any event means the process is gone.
    struct pollfd poll = {pinned_->pidfd.get(), POLLIN, 0};
    int ready;
    do {
      ready = ::poll(&poll, 1, 0);
    } while (ready < 0 && errno == EINTR);
    return ready == 0;
  }
  auto stat = readProcessStat(pid_);
  return stat && !isExitedState(stat->state) && startTime_ && stat->startTime == *startTime_;
}

std::string AuditToken::description() const {
  return "pid " + std::to_string(pid_) + " uid " + std::to_string(uid_) + " gid " +
         std::to_string(gid_);
}

}  // namespace daskel::platform
