#include "platform/extensions/ExtensionMatcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <system_error>

#include "platform/filesystem/FileSystem.h"
#include "platform/locations/Locations.h"
#include "platform/log/Log.h"

namespace daskel::platform {
namespace {

using Clock = std::chrono::steady_clock;

// Entries appearing, vanishing or being renamed (bundles in a search directory, Info.plist or
// the executable in a bundle, the next directory in an ancestor), files written (a copy in
// place) or changing owner or mode (the trust rule), and the watched directory itself going.
constexpr std::uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                     IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB | IN_DELETE_SELF |
                                     IN_MOVE_SELF | IN_ONLYDIR;
// A bundle directory is watched for its entries only: an extension may keep files of its own
// there (logs, caches) and write them on every request, which must not wake this thread. The
// two files that matter are watched themselves for writes in place (kBundleFileMask).
constexpr std::uint32_t kBundleMask = kWatchMask & ~(IN_CLOSE_WRITE | IN_MODIFY);
constexpr std::uint32_t kBundleFileMask = IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB;
constexpr std::uint32_t kSelfEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;

std::string errnoText(int error) {
  char buffer[128];
  return ::strerror_r(error, buffer, sizeof buffer);
}

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  return path;
}

bool sameRecords(const ExtensionMatcher::Records& a, const ExtensionMatcher::Records& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](const auto& x, const auto& y) { return x == y || *x == *y; });
}

}  // namespace

// The hand-over from the watcher thread to the handler's queue: at most one block of this
// matcher is on the queue or running at any time, which keeps handler calls apart even on a
// concurrent queue; a newer list replaces one that has not been delivered yet.
class ExtensionMatcher::Delivery : public std::enable_shared_from_this<ExtensionMatcher::Delivery> {
 public:
  Delivery(std::shared_ptr<DispatchQueue> queue, Handler handler)
      : queue_(std::move(queue)), handler_(std::move(handler)) {}

  void post(Records records) {
    {
      std::lock_guard lock(mutex_);
      if (stopped_)
        return;
      pending_ = std::move(records);
      if (scheduled_)
        return;  // the block on the queue will take the newest list
      scheduled_ = true;
    }
    submit();
  }

  // No call starts after this returns; a call in progress on another thread is waited for.
  void stop() {
    std::unique_lock lock(mutex_);
    stopped_ = true;
    pending_.reset();
    const auto self = std::this_thread::get_id();
    idle_.wait(lock, [&] { return !running_ || runningThread_ == self; });
  }

 private:
  void submit() {
    queue_->async([self = shared_from_this()] { self->deliverNext(); });
  }

  void deliverNext() {
    Records records;
    {
      std::lock_guard lock(mutex_);
      if (stopped_ || !pending_) {
        scheduled_ = false;
        return;
      }
      records = std::move(*pending_);
      pending_.reset();
      running_ = true;
      runningThread_ = std::this_thread::get_id();
    }
    handler_(records);
    bool again;
    {
      std::lock_guard lock(mutex_);
      running_ = false;
      runningThread_ = {};
      again = pending_.has_value() && !stopped_;
      if (!again)
        scheduled_ = false;
    }
    idle_.notify_all();
    if (again)
      submit();
  }

  const std::shared_ptr<DispatchQueue> queue_;
  const Handler handler_;

  std::mutex mutex_;
  std::condition_variable idle_;
  std::optional<Records> pending_;
  bool scheduled_ = false;  // a deliverNext block is on the queue or running
  bool running_ = false;    // the handler is running
  std::thread::id runningThread_;
  bool stopped_ = false;
};

Result<std::unique_ptr<ExtensionMatcher>> ExtensionMatcher::start(
    std::string extensionPointIdentifier,
    std::shared_ptr<DispatchQueue> queue,
    Handler handler,
    ExtensionMatchingOptions options) {
  if (!handler)
    return failure(
        posixError(EINVAL, "No handler for extension matching", extensionPointIdentifier));
  if (!queue)
    queue = DispatchQueue::global();
  if (!options.directories)
    options.directories = extensionsPath();
  if (!options.groupContainersDirectory)
    options.groupContainersDirectory = groupContainersDirectory();

  const int inotifyFd = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (inotifyFd < 0) {
    const int error = errno;
    return failure(posixError(error, "Cannot watch extensions for", extensionPointIdentifier));
  }
  const int stopFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (stopFd < 0) {
    const int error = errno;
    ::close(inotifyFd);
    return failure(posixError(error, "Cannot watch extensions for", extensionPointIdentifier));
  }
  // From here the matcher owns both descriptors; its destructor closes them on every path.
  auto delivery = std::make_shared<Delivery>(std::move(queue), std::move(handler));
  std::unique_ptr<ExtensionMatcher> matcher(
      new ExtensionMatcher(std::move(extensionPointIdentifier), std::move(delivery),
                           std::move(options), inotifyFd, stopFd));
  try {
    matcher->watcher_ = std::thread([raw = matcher.get()] { raw->watcherThreadRun(); });
  } catch (const std::system_error& e) {
    return failure(posixError(e.code().value(), "Cannot start the extensions watcher for",
                              matcher->extensionPointIdentifier_));
  }
  return matcher;
}

ExtensionMatcher::ExtensionMatcher(std::string extensionPointIdentifier,
                                   std::shared_ptr<Delivery> delivery,
                                   ExtensionMatchingOptions options,
                                   int inotifyFd,
                                   int stopFd)
    : extensionPointIdentifier_(std::move(extensionPointIdentifier)),
      delivery_(std::move(delivery)),
      options_(std::move(options)),
      catalog_(*options_.directories, *options_.groupContainersDirectory),
      inotifyFd_(inotifyFd),
      stopFd_(stopFd) {}

ExtensionMatcher::~ExtensionMatcher() {
  stop();
  ::close(stopFd_);
  ::close(inotifyFd_);
}

void ExtensionMatcher::stop() {
  std::lock_guard lock(stopMutex_);
  if (watcher_.joinable()) {
    const std::uint64_t one = 1;
    while (::write(stopFd_, &one, sizeof one) < 0 && errno == EINTR) {
    }
    watcher_.join();
  }
  delivery_->stop();
}

void ExtensionMatcher::watcherThreadRun() {
  watcherThreadLastReport_ = watcherThreadRescan();
  delivery_->post(*watcherThreadLastReport_);

  bool rescanDue = false;
  Clock::time_point firstEvent;
  Clock::time_point deadline;
  pollfd fds[2] = {{inotifyFd_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
  for (;;) {
    int timeout = -1;
    if (rescanDue) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
      timeout = static_cast<int>(std::max<std::int64_t>(0, left.count()));
    }
    if (::poll(fds, 2, timeout) < 0) {
      const int error = errno;
      if (error == EINTR)
        continue;
      DKLogError("Extension matching for %@ stopped: poll failed: %s", extensionPointIdentifier_,
                 errnoText(error));
      return;
    }
    if (fds[1].revents != 0)
      return;  // stop() asks us to end
    if (fds[0].revents & POLLIN) {
      bool relevant = false;
      if (!watcherThreadDrainEvents(relevant))
        return;
      if (relevant) {
        const auto now = Clock::now();
        if (!rescanDue) {
          rescanDue = true;
          firstEvent = now;
        }
        deadline = std::min(now + options_.settleTime, firstEvent + options_.maximumDelay);
      }
    } else if (fds[0].revents != 0) {
      DKLogError("Extension matching for %@ stopped: the inotify descriptor failed",
                 extensionPointIdentifier_);
      return;
    }
    if (rescanDue && Clock::now() >= deadline) {
      rescanDue = false;
      Records records = watcherThreadRescan();
      if (!sameRecords(records, *watcherThreadLastReport_)) {
        DKLogDebug("Extensions for %@ changed: %lu matching", extensionPointIdentifier_,
                   records.size());
        watcherThreadLastReport_ = records;
        delivery_->post(std::move(records));
      }
    }
  }
}

bool ExtensionMatcher::watcherThreadDrainEvents(bool& relevant) {
  alignas(inotify_event) char buffer[16 * 1024];
  for (;;) {
    const ssize_t length = ::read(inotifyFd_, buffer, sizeof buffer);
    if (length < 0) {
      const int error = errno;
      if (error == EINTR)
        continue;
      if (error == EAGAIN)
        return true;
      DKLogError("Extension matching for %@ stopped: read failed: %s", extensionPointIdentifier_,
                 errnoText(error));
      return false;
    }
    for (ssize_t offset = 0; offset < length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
      offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      const std::string name =
          event->len > 0 ? std::string(event->name, ::strnlen(event->name, event->len)) : "";
      if (watcherThreadIsRelevant(event->wd, event->mask, name))
        relevant = true;
    }
  }
}

bool ExtensionMatcher::watcherThreadIsRelevant(int wd,
                                               std::uint32_t mask,
                                               const std::string& name) {
  // Events were lost; only a rescan can tell what changed.
  if (mask & IN_Q_OVERFLOW)
    return true;
  auto found = watcherThreadWatches_.find(wd);
  if (found == watcherThreadWatches_.end())
    return false;  // a watch given up at the last rescan
  if (mask & IN_IGNORED) {
    // The kernel dropped the watch (its directory went away); set the watches up anew.
    watcherThreadWatches_.erase(found);
    return true;
  }
  if (mask & kSelfEvents)
    return true;
  for (const WatchPurpose& purpose : found->second) {
    switch (purpose.kind) {
      case WatchPurpose::Kind::SearchDirectory:
        if (ExtensionCatalog::isBundleName(name))
          return true;
        break;
      case WatchPurpose::Kind::Ancestor:
        if (name == purpose.name)
          return true;
        break;
      case WatchPurpose::Kind::Bundle:
        if (name == kInfoPlistFileName || (!purpose.name.empty() && name == purpose.name))
          return true;
        break;
      case WatchPurpose::Kind::BundleFile:
        return true;
    }
  }
  return false;
}

int ExtensionMatcher::watcherThreadAddWatch(const std::string& path) {
  return ::inotify_add_watch(inotifyFd_, path.c_str(), kWatchMask);
}

void ExtensionMatcher::watcherThreadWatchBundleFile(
    const std::string& path,
    std::map<int, std::vector<WatchPurpose>>& watches) {
  // A file that is missing now is not watched: its bundle's directory watch sees it arrive.
  const int wd = ::inotify_add_watch(inotifyFd_, path.c_str(), kBundleFileMask | IN_MASK_ADD);
  if (wd >= 0)
    watches[wd].push_back({WatchPurpose::Kind::BundleFile, path, {}});
}

void ExtensionMatcher::watcherThreadWatchSearchDirectory(
    const std::string& searchDirectory,
    std::map<int, std::vector<WatchPurpose>>& watches) {
  const std::string directory = withoutTrailingSlashes(searchDirectory);
  if (directory.empty() || directory.front() != '/')
    return;  // the catalog ignores it (and says so)
  const int wd = watcherThreadAddWatch(directory);
  if (wd >= 0) {
    watcherThreadWatchErrors_.erase(directory);
    watches[wd].push_back({WatchPurpose::Kind::SearchDirectory, directory, {}});
    return;
  }
  int error = errno;
  // Missing (or a file stands where it should be): watch the nearest existing ancestor for
  // the one entry that leads towards it.
  std::string path = directory;
  while (error == ENOENT || error == ENOTDIR) {
    const std::size_t slash = path.rfind('/');
    const std::string child = path.substr(slash + 1);
    path = slash == 0 ? "/" : path.substr(0, slash);
    const int ancestorWd = watcherThreadAddWatch(path);
    if (ancestorWd >= 0) {
      watcherThreadWatchErrors_.erase(directory);
      watches[ancestorWd].push_back({WatchPurpose::Kind::Ancestor, path, child});
      return;
    }
    error = errno;
    if (path == "/")
      break;
  }
  auto [it, inserted] = watcherThreadWatchErrors_.try_emplace(directory, error);
  if (inserted || it->second != error) {
    it->second = error;
    DKLogError("Cannot watch extensions directory %@: %s", directory, errnoText(error));
  }
}

ExtensionMatcher::Records ExtensionMatcher::watcherThreadRescan() {
  // Watches go on before anything is read, so a change made while we read is not missed: at
  // worst it causes one more rescan.
  std::map<int, std::vector<WatchPurpose>> watches;
  for (const std::string& directory : catalog_.directories())
    watcherThreadWatchSearchDirectory(directory, watches);

  std::map<std::string, int> bundleWatches;
  const Records records = catalog_.scan([&](const std::string& bundlePath) {
    const int wd = ::inotify_add_watch(inotifyFd_, bundlePath.c_str(), kBundleMask);
    if (wd < 0) {
      // A bundle that is no directory (or just vanished) cannot be watched; the catalog says
      // what is wrong with it. Anything else (the watch limit) is ours to report, once.
      const int error = errno;
      if (error != ENOENT && error != ENOTDIR) {
        auto [it, inserted] = watcherThreadWatchErrors_.try_emplace(bundlePath, error);
        if (inserted || it->second != error) {
          it->second = error;
          DKLogError("Cannot watch extension bundle %@: %s", bundlePath, errnoText(error));
        }
      }
      return;
    }
    watcherThreadWatchErrors_.erase(bundlePath);
    watches[wd].push_back({WatchPurpose::Kind::Bundle, bundlePath, {}});
    bundleWatches[bundlePath] = wd;
    watcherThreadWatchBundleFile(appendingPathComponent(bundlePath, kInfoPlistFileName),
                                 watches);
  });
  for (const auto& record : records) {
    auto wd = bundleWatches.find(record->bundlePath());
    if (wd == bundleWatches.end())
      continue;
    for (WatchPurpose& purpose : watches[wd->second]) {
      if (purpose.kind == WatchPurpose::Kind::Bundle && purpose.path == record->bundlePath())
        purpose.name = record->bundle().executableName();
    }
    if (!record->bundle().executableName().empty()) {
      watcherThreadWatchBundleFile(
          appendingPathComponent(record->bundlePath(), record->bundle().executableName()),
          watches);
    }
  }

  for (const auto& [wd, purposes] : watcherThreadWatches_) {
    if (!watches.contains(wd))
      ::inotify_rm_watch(inotifyFd_, wd);  // EINVAL when the kernel dropped it already
  }
  watcherThreadWatches_ = std::move(watches);
  return ExtensionCatalog::matching(records, extensionPointIdentifier_);
}

}  // namespace daskel::platform
