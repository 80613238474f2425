#include "platform/notify/InotifyNotifyCenter.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>

#include "platform/filesystem/FileSystem.h"
#include "platform/log/Log.h"

namespace daskel::platform {

namespace {

// The events that a post causes: creating the file (IN_CREATE, then IN_CLOSE_WRITE), touching
// an existing one (IN_ATTRIB), or renaming a prepared file into place (IN_MOVED_TO).
constexpr std::uint32_t kWatchedEvents =
    IN_CREATE | IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_TO | IN_ONLYDIR;

// Like `mkdir -p` with mode 0755 (less the umask) for every directory it makes.
Result<void> makeDirectories(const std::string& path) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string prefix = path.substr(0, slash);
    if (!prefix.empty() && ::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
      return failure(posixError(errno, "Cannot create notifications directory", prefix));
    }
    if (slash == std::string::npos)
      break;
  }
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return failure(posixError(errno, "Cannot read notifications directory", path));
  }
  if (!S_ISDIR(status.st_mode)) {
    return failure(posixError(ENOTDIR, "Notifications directory is not a directory", path));
  }
  return {};
}

// strerror is not thread-safe; the watcher logs from its own thread.
std::string errnoText(int error) {
  char buffer[128];
  return ::strerror_r(error, buffer, sizeof buffer);
}

}  // namespace

Result<std::shared_ptr<InotifyNotifyCenter>> InotifyNotifyCenter::create(std::string directory) {
  if (directory.empty()) {
    return failure(posixError(EINVAL, "Empty notifications directory", directory));
  }
  if (auto made = makeDirectories(directory); !made)
    return failure(made.error());

  const int inotifyFd = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (inotifyFd < 0) {
    return failure(posixError(errno, "Cannot start watching notifications", directory));
  }
  if (::inotify_add_watch(inotifyFd, directory.c_str(), kWatchedEvents) < 0) {
    const int error = errno;
    ::close(inotifyFd);
    return failure(posixError(error, "Cannot watch notifications directory", directory));
  }
  const int stopFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (stopFd < 0) {
    const int error = errno;
    ::close(inotifyFd);
    return failure(posixError(error, "Cannot start watching notifications", directory));
  }

  // From here the center owns both descriptors; its destructor closes them on every path.
  std::shared_ptr<InotifyNotifyCenter> center(
      new InotifyNotifyCenter(std::move(directory), inotifyFd, stopFd));
  try {
    center->watcher_ = std::thread([raw = center.get()] { raw->watch(); });
  } catch (const std::system_error& e) {
    return failure(
        posixError(e.code().value(), "Cannot start the notifications watcher", center->directory_));
  }
  return center;
}

InotifyNotifyCenter::InotifyNotifyCenter(std::string directory, int inotifyFd, int stopFd)
    : directory_(std::move(directory)), inotifyFd_(inotifyFd), stopFd_(stopFd) {}

InotifyNotifyCenter::~InotifyNotifyCenter() {
  if (watcher_.joinable()) {
    const std::uint64_t one = 1;
    while (::write(stopFd_, &one, sizeof one) < 0 && errno == EINTR) {
    }
    watcher_.join();
  }
  ::close(stopFd_);
  ::close(inotifyFd_);
}

void InotifyNotifyCenter::addObserver(std::string name,
                                      Callback callback,
                                      std::shared_ptr<DispatchQueue> queue) {
  if (!callback)
    return;
  if (!queue)
    queue = DispatchQueue::global();
  Observer observer{std::make_shared<const Callback>(std::move(callback)), std::move(queue)};
  std::lock_guard lock(mutex_);
  observers_[std::move(name)].push_back(std::move(observer));
}

Result<void> InotifyNotifyCenter::post(std::string_view name) {
  if (!isValidName(name)) {
    return failure(posixError(EINVAL, "Invalid notification name", std::string(name)));
  }
  const std::string path = appendingPathComponent(directory_, std::string(name));

  // Creating the file is the first post of this name; afterwards the post touches it, which
  // the watcher sees as an attribute change. A file removed between the two steps is simply
  // created on the second try.
  for (int attempt = 0; attempt < 2; ++attempt) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) {
      ::close(fd);
      return {};
    }
    if (errno != EEXIST) {
      return failure(posixError(errno, "Cannot post notification", path));
    }
    if (::utimensat(AT_FDCWD, path.c_str(), nullptr, AT_SYMLINK_NOFOLLOW) == 0) {
      return {};
    }
    if (errno != ENOENT) {
      return failure(posixError(errno, "Cannot post notification", path));
    }
  }
  return failure(posixError(ENOENT, "Cannot post notification", path));
}

void InotifyNotifyCenter::watch() {
  pollfd fds[2] = {{inotifyFd_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
  for (;;) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR)
        continue;
      DKLogError("Notifications watcher for %@ stopped: poll failed: %s", directory_,
                 errnoText(errno));
      return;
    }
    if (fds[1].revents != 0)
      return;  // the destructor asks us to stop
    if (fds[0].revents & POLLIN) {
      if (!drainEvents())
        return;
    } else if (fds[0].revents != 0) {
      DKLogError("Notifications watcher for %@ stopped: inotify descriptor failed", directory_);
      return;
    }
  }
}

bool InotifyNotifyCenter::drainEvents() {
  alignas(inotify_event) char buffer[16 * 1024];
  for (;;) {
    const ssize_t length = ::read(inotifyFd_, buffer, sizeof buffer);
    if (length < 0) {
      if (errno == EINTR)
        continue;
      if (errno == EAGAIN)
        return true;
      DKLogError("Notifications watcher for %@ stopped: read failed: %s", directory_,
                 errnoText(errno));
      return false;
    }
    for (ssize_t offset = 0; offset < length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
      offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);

      if (event->mask & IN_Q_OVERFLOW) {
        DKLogError("Notification events for %@ were lost; calling every observer", directory_);
        deliverToEveryObserver();
      } else if (event->mask & IN_IGNORED) {
        DKLogError("Notifications directory %@ is no longer watched (removed or unmounted)",
                   directory_);
      } else if (event->len > 0) {
        deliver(std::string(event->name, ::strnlen(event->name, event->len)));
      }
    }
  }
}

void InotifyNotifyCenter::deliver(const std::string& name) {
  std::vector<Observer> observers;
  {
    std::lock_guard lock(mutex_);
    auto found = observers_.find(name);
    if (found == observers_.end())
      return;
    observers = found->second;
  }
  DKLogDebug("Delivering notification %@ to %zu observers", name, observers.size());
  for (const Observer& observer : observers) {
    observer.queue->async([callback = observer.callback, name] { (*callback)(name); });
  }
}

void InotifyNotifyCenter::deliverToEveryObserver() {
  std::vector<std::string> names;
  {
    std::lock_guard lock(mutex_);
    for (const auto& entry : observers_)
      names.push_back(entry.first);
  }
  for (const std::string& name : names)
    deliver(name);
}

}  // namespace daskel::platform
