#include "platform/coordination/TransparentCoordinationMounts.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "platform/filesystem/FileSystem.h"
#include "platform/log/Log.h"

namespace daskel::platform {

namespace {

// The mounts made here, in a form the signal handler can read without locks or allocation:
// a slot's path is written before `used` is set and left alone until it is cleared.
struct MountSlot {
  std::atomic<bool> used{false};
  char path[PATH_MAX];
};
MountSlot gSlots[TransparentCoordinationMounts::kMaximumMounts];

constexpr int kTerminatingSignals[] = {SIGTERM, SIGINT, SIGHUP};
struct sigaction gPreviousActions[3];

void detachOnSignal(int signal) {
  const int savedErrno = errno;
  for (MountSlot& slot : gSlots) {
    if (slot.used.load(std::memory_order_acquire))
      ::umount2(slot.path, MNT_DETACH);
  }
  for (std::size_t i = 0; i < std::size(kTerminatingSignals); ++i) {
    if (kTerminatingSignals[i] != signal)
      continue;
    const struct sigaction& previous = gPreviousActions[i];
    if ((previous.sa_flags & SA_SIGINFO) == 0 && previous.sa_handler != SIG_DFL &&
        previous.sa_handler != SIG_IGN) {
      previous.sa_handler(signal);
    } else if ((previous.sa_flags & SA_SIGINFO) == 0 && previous.sa_handler == SIG_IGN) {
      // Ignored before: stays without effect.
    } else {
      // The default action, once this handler returns (the signal is blocked until then).
      ::signal(signal, SIG_DFL);
      ::raise(signal);
    }
  }
  errno = savedErrno;
}

int findSlotLocked(const std::string& path) {
  for (int i = 0; i < TransparentCoordinationMounts::kMaximumMounts; ++i) {
    if (gSlots[i].used.load(std::memory_order_relaxed) && path == gSlots[i].path)
      return i;
  }
  return -1;
}

}  // namespace

TransparentCoordinationMounts& TransparentCoordinationMounts::shared() {
  static TransparentCoordinationMounts* const mounts = new TransparentCoordinationMounts();
  return *mounts;
}

void TransparentCoordinationMounts::installSignalHandlers() {
  static std::once_flag once;
  std::call_once(once, [] {
    for (std::size_t i = 0; i < std::size(kTerminatingSignals); ++i) {
      struct sigaction action {};
      action.sa_handler = detachOnSignal;
      sigemptyset(&action.sa_mask);
      action.sa_flags = SA_RESTART;
      ::sigaction(kTerminatingSignals[i], &action, &gPreviousActions[i]);
    }
  });
}

Result<bool> TransparentCoordinationMounts::isMountRoot(const std::string& path) {
  struct statx status {};
  if (::statx(AT_FDCWD, path.c_str(), AT_NO_AUTOMOUNT, STATX_BASIC_STATS, &status) != 0)
    return failure(posixError(errno, "Cannot inspect storage directory", path));
  if ((status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0)
    return failure(posixError(ENOTSUP, "The kernel does not tell mount roots", path));
  return (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

Result<bool> TransparentCoordinationMounts::attach(const std::string& path) {
  if (path.size() >= PATH_MAX)
    return failure(posixError(ENAMETOOLONG, "Cannot mount storage directory", path));
  std::lock_guard lock(mutex_);
  if (findSlotLocked(path) >= 0)
    return true;
  auto root = isMountRoot(path);
  if (!root)
    return failure(root.error());
  if (*root)
    return false;
  int free = -1;
  for (int i = 0; i < kMaximumMounts && free < 0; ++i) {
    if (!gSlots[i].used.load(std::memory_order_relaxed))
      free = i;
  }
  if (free < 0)
    return failure(posixError(EMFILE, "Too many storage directories to mount", path));
  installSignalHandlers();
  if (::mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0)
    return failure(posixError(errno, "Cannot bind-mount storage directory onto itself", path));
  std::memcpy(gSlots[free].path, path.c_str(), path.size() + 1);
  gSlots[free].used.store(true, std::memory_order_release);
  return true;
}

void TransparentCoordinationMounts::detach(const std::string& path) {
  std::lock_guard lock(mutex_);
  const int slot = findSlotLocked(path);
  if (slot < 0)
    return;
  gSlots[slot].used.store(false, std::memory_order_release);
  if (::umount2(path.c_str(), MNT_DETACH) != 0) {
    const int error = errno;
    DKLogError("Cannot unmount storage directory %s: %s", path, std::strerror(error));
  }
}

void TransparentCoordinationMounts::detachAll() {
  std::lock_guard lock(mutex_);
  for (MountSlot& slot : gSlots) {
    if (!slot.used.load(std::memory_order_relaxed))
      continue;
    slot.used.store(false, std::memory_order_release);
    if (::umount2(slot.path, MNT_DETACH) != 0) {
      const int error = errno;
      DKLogError("Cannot unmount storage directory %s: %s", slot.path, std::strerror(error));
    }
  }
}

}  // namespace daskel::platform
