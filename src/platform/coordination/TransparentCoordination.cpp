#include "platform/coordination/TransparentCoordination.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "platform/coordination/TransparentCoordinationMounts.h"
#include "platform/filesystem/FileSystem.h"
#include "platform/identity/AuditToken.h"
#include "platform/identity/ApplicationRegistry.h"
#include "platform/identity/ProcessAncestry.h"
#include "platform/identity/ProcessInfo.h"
#include "platform/log/Log.h"

namespace daskel::platform {

namespace {

constexpr std::uint64_t kWatchedEvents = FAN_OPEN_PERM | FAN_CLOSE_WRITE;

std::string errnoText(int error) { return std::strerror(error); }


// The executable `pid` runs, "" when it cannot be read (the process is gone). A readlink
// in /proc, cheap enough for the event loop.
std::string executableOf(pid_t pid) {
  auto executable = readProcessExecutablePath(pid);
  return executable ? *executable : std::string();
}

bool isPlaceholderName(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash != std::string::npos && slash + 1 < path.size() && path[slash + 1] == '.';
}

std::string durationText(std::chrono::steady_clock::duration duration) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
  if (ms % 1000 == 0)
    return std::to_string(ms / 1000) + " s";
  return std::to_string(ms) + " ms";
}

}  // namespace

namespace {

// A denial that makes the open fail with `error` (FAN_DENY_ERRNO of Linux 6.14; the C
// library's headers may predate it): the errno in the response's top byte.
std::uint32_t denyWithErrno(int error) {
  constexpr unsigned kErrnoShift = 24;
  constexpr std::uint32_t kErrnoMask = 0xff;
  return FAN_DENY | ((static_cast<std::uint32_t>(error) & kErrnoMask) << kErrnoShift);
}

}  // namespace

std::chrono::steady_clock::duration TransparentCoordination::boundFromEnvironment() {
  const char* text = std::getenv(kBoundVariable);
  if (text == nullptr || *text == '\0')
    return kDefaultBound;
  char* end = nullptr;
  const double seconds = std::strtod(text, &end);
  if (end == text || *end != '\0' || !std::isfinite(seconds) || seconds <= 0 || seconds > 86400) {
    DKLogError("Ignoring %s=%s: not a number of seconds; using %s", kBoundVariable, text,
               durationText(kDefaultBound));
    return kDefaultBound;
  }
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(seconds));
}

std::shared_ptr<TransparentCoordination> TransparentCoordination::start(
    FileCoordinator& coordinator, TransparentCoordinationOptions options) {
  // The pre-content class lets a denial carry an errno of our choosing (Linux 6.14 and
  // later; older kernels take the class and refuse only the errno, see respondLocked).
  constexpr unsigned kInitFlags = FAN_CLOEXEC | FAN_NONBLOCK;
  constexpr unsigned kEventFlags = O_RDONLY | O_LARGEFILE | O_CLOEXEC;
  int fanotifyFd = ::fanotify_init(FAN_CLASS_PRE_CONTENT | kInitFlags, kEventFlags);
  if (fanotifyFd < 0 && errno == EINVAL)
    fanotifyFd = ::fanotify_init(FAN_CLASS_CONTENT | kInitFlags, kEventFlags);
  if (fanotifyFd < 0) {
    const int error = errno;
    DKLogNotice("Transparent file coordination is off (fanotify: %s; it needs CAP_SYS_ADMIN): "
                "only the cooperative front-end is available.",
                errnoText(error));
    return nullptr;
  }
  ScopedFd fanotify(fanotifyFd);
  const int wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd < 0) {
    const int error = errno;
    DKLogNotice("Transparent file coordination is off (eventfd: %s): only the cooperative "
                "front-end is available.",
                errnoText(error));
    return nullptr;
  }
  if (options.applications == nullptr)
    options.applications = std::make_shared<const ApplicationRegistry>();
  std::shared_ptr<TransparentCoordination> front(new TransparentCoordination(
      coordinator, std::move(options), std::move(fanotify), ScopedFd(wakeFd)));
  // The loop thread runs until stop(), which the destructor calls and joins, so `this` is
  // valid for as long as the thread runs.
  front->loop_ = std::thread([raw = front.get()] { raw->runEventLoop(); });
  std::weak_ptr<TransparentCoordination> weak = front;
  const auto token = coordinator.addObserver(
      [weak](const std::shared_ptr<CoordinationProvider>&, FileCoordinator::Change) {
        if (auto self = weak.lock())
          self->reconcile();
      });
  {
    std::lock_guard lock(front->mutex_);
    front->observer_ = token;
  }
  front->reconcile();
  DKLogNotice("Transparent file coordination is on: opens under the storage directories wait "
              "for their providers (at most %s).",
              durationText(front->options_.bound));
  return front;
}

TransparentCoordination::TransparentCoordination(FileCoordinator& coordinator,
                                                 TransparentCoordinationOptions options,
                                                 ScopedFd fanotifyFd, ScopedFd wakeFd)
    : coordinator_(coordinator),
      options_(std::move(options)),
      ownPid_(::getpid()),
      fanotifyFd_(std::move(fanotifyFd)),
      wakeFd_(std::move(wakeFd)) {}

TransparentCoordination::~TransparentCoordination() { stop(); }

void TransparentCoordination::stop() {
  std::optional<FileCoordinator::ObserverToken> observer;
  {
    std::lock_guard lock(mutex_);
    if (stopped_)
      return;
    stopped_ = true;
    observer = observer_;
    observer_.reset();
    const std::uint64_t one = 1;
    (void)::write(wakeFd_.get(), &one, sizeof one);
  }
  if (observer)
    coordinator_.removeObserver(*observer);
  if (loop_.joinable() && loop_.get_id() != std::this_thread::get_id())
    loop_.join();
  else if (loop_.joinable())
    loop_.detach();
  std::lock_guard lock(mutex_);
  // Opens still waiting are denied: their items may not be present.
  for (auto& [path, request] : pendingByPath_) {
    for (int eventFd : request.eventFds)
      respondLocked(eventFd, EAGAIN);
  }
  pendingByPath_.clear();
  std::vector<std::string> paths;
  for (const auto& [path, watched] : watched_)
    paths.push_back(path);
  for (const std::string& path : paths)
    unwatchLocked(path);
  fanotifyFd_.reset();
  wakeFd_.reset();
}

std::vector<std::string> TransparentCoordination::watchedDirectories() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> paths;
  for (const auto& [path, watched] : watched_)
    paths.push_back(path);
  return paths;
}

void TransparentCoordination::reconcile() {
  // Under mutex_ from the snapshot to the last change: the last reconcile to run has seen
  // every change that was complete when it began, so concurrent additions and removals
  // cannot leave a stale picture behind.
  std::lock_guard lock(mutex_);
  if (stopped_)
    return;
  std::map<std::string, std::string> wanted;  // path -> provider
  for (const auto& provider : coordinator_.providers()) {
    const std::optional<Url> directory = provider->_providedItemsURL();
    if (!directory)
      continue;
    std::error_code error;
    const std::string given = directory->path();
    std::string path = std::filesystem::canonical(given, error).string();
    if (error)
      path = std::filesystem::path(given).lexically_normal().string();
    while (path.size() > 1 && path.back() == '/')
      path.pop_back();
    wanted.emplace(path, provider->_fileReactorID());
  }
  std::vector<std::string> gone;
  for (const auto& [path, watched] : watched_) {
    if (!wanted.contains(path))
      gone.push_back(path);
  }
  for (const std::string& path : gone)
    unwatchLocked(path);
  for (const auto& [path, provider] : wanted) {
    if (!watched_.contains(path))
      watchLocked(path, provider);
  }
}

void TransparentCoordination::watchLocked(const std::string& path, const std::string& provider) {
  std::error_code error;
  if (!std::filesystem::is_directory(path, error)) {
    DKLogError("Transparent file coordination cannot watch the storage directory %s of %s: %s",
               path, provider, error ? error.message() : std::string("not a directory"));
    return;
  }
  auto mounted = TransparentCoordinationMounts::shared().attach(path);
  if (!mounted) {
    DKLogError("Transparent file coordination cannot watch the storage directory of %s: %@",
               provider, mounted.error());
    return;
  }
  if (::fanotify_mark(fanotifyFd_.get(), FAN_MARK_ADD | FAN_MARK_MOUNT, kWatchedEvents, AT_FDCWD,
                      path.c_str()) != 0) {
    const int markError = errno;
    DKLogError("Transparent file coordination cannot watch the storage directory %s of %s: "
               "fanotify_mark: %s",
               path, provider, errnoText(markError));
    TransparentCoordinationMounts::shared().detach(path);
    return;
  }
  watched_[path] = WatchedDirectory{path, true};
  DKLogInfo("Transparent file coordination watches %s for %s%s", path, provider,
            *mounted ? " (bind-mounted onto itself)" : " (already a mount point)");
}

void TransparentCoordination::unwatchLocked(const std::string& path) {
  auto found = watched_.find(path);
  if (found == watched_.end())
    return;
  if (found->second.markedMount && fanotifyFd_.get() >= 0) {
    // Fails harmlessly when the mount is already gone.
    (void)::fanotify_mark(fanotifyFd_.get(), FAN_MARK_REMOVE | FAN_MARK_MOUNT, kWatchedEvents,
                          AT_FDCWD, path.c_str());
  }
  TransparentCoordinationMounts::shared().detach(path);
  watched_.erase(found);
  DKLogInfo("Transparent file coordination no longer watches %s", path);
}

bool TransparentCoordination::isExempt(pid_t pid) const {
  // The daemon's own descendants are not exempt for being its descendants: its children
  // are the extensions, listed themselves, and a test playing the daemon starts its readers.
  return pid == ownPid_ ||
         (options_.isExemptProcess && isProcessOrDescendantOf(pid, options_.isExemptProcess));
}

std::string TransparentCoordination::processIdentifier(pid_t pid, std::string executable) const {
  std::string text = "pid " + std::to_string(pid);
  if (auto token = AuditToken::ofProcess(pid)) {
    if (auto bundleIdentifier = options_.applications->bundleIdentifier(*token))
      return text + " (" + *bundleIdentifier + ")";
  }
  if (executable.empty())
    executable = executableOf(pid);
  if (!executable.empty())
    text += " (" + executable + ")";
  return text;
}

void TransparentCoordination::runEventLoop() {
  // Aligned for fanotify_event_metadata, big enough for many events per read.
  alignas(struct fanotify_event_metadata) char buffer[16384];
  for (;;) {
    pollfd fds[2] = {{fanotifyFd_.get(), POLLIN, 0}, {wakeFd_.get(), POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR)
        continue;
      const int error = errno;
      DKLogError("Transparent file coordination stops: poll: %s", errnoText(error));
      return;
    }
    if (fds[1].revents != 0)
      return;
    const ssize_t length = ::read(fanotifyFd_.get(), buffer, sizeof buffer);
    if (length < 0) {
      if (errno == EAGAIN || errno == EINTR)
        continue;
      const int error = errno;
      DKLogError("Transparent file coordination stops: reading fanotify events: %s",
                 errnoText(error));
      return;
    }
    auto* event = reinterpret_cast<struct fanotify_event_metadata*>(buffer);
    ssize_t left = length;
    for (; FAN_EVENT_OK(event, left); event = FAN_EVENT_NEXT(event, left)) {
      if (event->vers != FANOTIFY_METADATA_VERSION) {
        DKLogError("Transparent file coordination stops: fanotify metadata version %d, "
                   "expected %d",
                   static_cast<int>(event->vers), FANOTIFY_METADATA_VERSION);
        return;
      }
      if ((event->mask & FAN_Q_OVERFLOW) != 0) {
        DKLogError("%s", "Transparent file coordination lost events: the fanotify queue "
                         "overflowed");
      }
      if (event->fd < 0)
        continue;
      if ((event->mask & FAN_OPEN_PERM) != 0)
        handlePermission(event->fd, event->pid);
      else if ((event->mask & FAN_CLOSE_WRITE) != 0)
        handleCloseWrite(event->fd, event->pid);
      else
        ::close(event->fd);
    }
  }
}

void TransparentCoordination::handlePermission(int eventFd, pid_t pid) {
  if (isExempt(pid)) {
    std::lock_guard lock(mutex_);
    respondLocked(eventFd, kAllow);
    return;
  }
  const std::string path = pathOfDescriptor(eventFd).value_or("");
  std::optional<Url> url;
  if (!path.empty() && !isPlaceholderName(path))
    url = Url::fileUrlWithPath(path, false);
  std::shared_ptr<CoordinationProvider> provider;
  if (url)
    provider = coordinator_.providerForURL(*url);
  if (!provider) {
    // Not an item of any provider (or one that was just removed): nothing to wait for.
    std::lock_guard lock(mutex_);
    respondLocked(eventFd, kAllow);
    return;
  }

  std::uint64_t id = 0;
  const std::string reader = "pid " + std::to_string(pid);
  {
    std::lock_guard lock(mutex_);
    if (stopped_) {
      respondLocked(eventFd, EAGAIN);
      return;
    }
    auto pending = pendingByPath_.find(path);
    if (pending != pendingByPath_.end()) {
      DKLogDebug("Open of %s by %s joins the request for %s", path, reader,
                 pending->second.reader);
      pending->second.eventFds.push_back(eventFd);
      return;
    }
    id = nextRequestId_++;
    pendingByPath_.emplace(path, PendingRequest{id, path, provider->_fileReactorID(), reader,
                                                {eventFd}});
  }

  std::weak_ptr<TransparentCoordination> weak = weak_from_this();
  DispatchQueue::global()->after(
      options_.bound,
      [weak, id, path] {
        if (auto self = weak.lock())
          self->finish(id, path, Outcome::TimedOut, nullptr);
      },
      options_.scheduler);
  // Naming the reader may block on the file system: off the event loop, and off the
  // provider's queue, which has its own work.
  DispatchQueue::global()->async([weak, id, path, url = *url, pid, provider] {
    if (auto self = weak.lock())
      self->askProvider(id, path, url, pid, provider);
  });
}

void TransparentCoordination::askProvider(std::uint64_t id,
                                          const std::string& path,
                                          const Url& url,
                                          pid_t pid,
                                          const std::shared_ptr<CoordinationProvider>& provider) {
  // The reader is blocked in open() until answered, so its pid names it throughout.
  const std::string reader = processIdentifier(pid, {});
  {
    std::lock_guard lock(mutex_);
    auto pending = pendingByPath_.find(path);
    if (pending == pendingByPath_.end() || pending->second.id != id)
      return;  // answered already: the bound, or stop()
    pending->second.reader = reader;
  }
  std::weak_ptr<TransparentCoordination> weak = weak_from_this();
  auto ask = [weak, provider, url, reader, id, path] {
    provider->_provideItemAtURL(url, Value(reader), [weak, id, path](const ErrorPtr& error) {
      if (auto self = weak.lock())
        self->finish(id, path, error ? Outcome::Failed : Outcome::Provided, error);
    });
  };
  if (auto queue = provider->_providedItemsOperationQueue())
    queue->addOperation(std::move(ask));
  else
    DispatchQueue::global()->async(std::move(ask));
}

void TransparentCoordination::handleCloseWrite(int eventFd, pid_t pid) {
  const std::string path = pathOfDescriptor(eventFd).value_or("");
  ::close(eventFd);
  if (isExempt(pid) || path.empty() || isPlaceholderName(path))
    return;
  const std::optional<Url> url = Url::fileUrlWithPath(path, false);
  if (!url)
    return;
  auto provider = coordinator_.providerForURL(*url);
  if (!provider)
    return;
  // The writer may have exited by the time it is named: its executable is read now.
  std::weak_ptr<TransparentCoordination> weak = weak_from_this();
  DispatchQueue::global()->async([weak, provider, url = *url, pid, executable = executableOf(pid)] {
    auto self = weak.lock();
    if (!self)
      return;
    auto tell = [provider, url, writer = self->processIdentifier(pid, executable)] {
      provider->_writerWithID(Value(writer), url);
    };
    if (auto queue = provider->_providedItemsOperationQueue())
      queue->addOperation(std::move(tell));
    else
      DispatchQueue::global()->async(std::move(tell));
  });
}

void TransparentCoordination::finish(std::uint64_t id, const std::string& path, Outcome outcome,
                                     const ErrorPtr& error) {
  PendingRequest request;
  {
    std::lock_guard lock(mutex_);
    auto pending = pendingByPath_.find(path);
    if (pending == pendingByPath_.end() || pending->second.id != id)
      return;  // answered already: the other of completion and bound came first, or stop()
    request = std::move(pending->second);
    pendingByPath_.erase(pending);
  }
  // Outside mutex_: the copy opens files on a watched mount, and the loop thread needs the
  // mutex to let those opens (this process's own) through.
  if (outcome == Outcome::Provided) {
    for (int eventFd : request.eventFds)
      bringOpenedFileUpToDate(eventFd, path);
  }
  {
    std::lock_guard lock(mutex_);
    // A provider that failed: EIO; one that did not answer within the bound: EAGAIN.
    const int denial = outcome == Outcome::Provided ? kAllow
                       : outcome == Outcome::Failed ? EIO
                                                    : EAGAIN;
    for (int eventFd : request.eventFds)
      respondLocked(eventFd, denial);
  }
  if (outcome == Outcome::TimedOut) {
    DKLogError("%s did not provide %s to %s within %s; denied the open", request.provider, path,
               request.reader, durationText(options_.bound));
  } else if (outcome == Outcome::Failed) {
    DKLogError("%s could not provide %s to %s; denied the open: %@", request.provider, path,
               request.reader, error);
  } else {
    DKLogDebug("%s provided %s to %s", request.provider, path, request.reader);
  }
}

void TransparentCoordination::bringOpenedFileUpToDate(int eventFd, const std::string& path) {
  // The reader's open has already found its file. A provider that makes an item present by
  // renaming a new file over the old one leaves the reader holding the old one, so its
  // contents are brought over; a provider that writes in place needs nothing.
  struct stat opened {};
  struct stat present {};
  if (::fstat(eventFd, &opened) != 0 || !S_ISREG(opened.st_mode))
    return;
  if (::stat(path.c_str(), &present) != 0 || !S_ISREG(present.st_mode))
    return;
  if (opened.st_dev == present.st_dev && opened.st_ino == present.st_ino)
    return;
  const std::string reopened = "/proc/self/fd/" + std::to_string(eventFd);
  ScopedFd target(::open(reopened.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
  ScopedFd source(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (target.get() < 0 || source.get() < 0) {
    const int error = errno;
    DKLogError("Transparent file coordination cannot bring the open file %s up to date: %s",
               path, errnoText(error));
    return;
  }
  off_t left = present.st_size;
  while (left > 0) {
    const ssize_t copied =
        ::copy_file_range(source.get(), nullptr, target.get(), nullptr,
                          static_cast<std::size_t>(left), 0);
    if (copied <= 0) {
      if (copied < 0 && errno == EINTR)
        continue;
      const int error = copied < 0 ? errno : EIO;
      DKLogError("Transparent file coordination cannot bring the open file %s up to date: %s",
                 path, errnoText(error));
      return;
    }
    left -= copied;
  }
  DKLogDebug("Copied the provided %s into the file its reader had opened", path);
}

void TransparentCoordination::respondLocked(int eventFd, int denial) {
  if (fanotifyFd_.get() >= 0) {
    struct fanotify_response response = {eventFd, FAN_ALLOW};
    if (denial != kAllow) {
      response.response = denialsCarryErrno_ ? denyWithErrno(denial) : FAN_DENY;
    }
    ssize_t written = ::write(fanotifyFd_.get(), &response, sizeof response);
    if (written < 0 && errno == EINVAL && denial != kAllow && denialsCarryErrno_) {
      // This kernel takes no errno in a denial: the open fails with EPERM from now on.
      denialsCarryErrno_ = false;
      DKLogNotice("%s", "This kernel cannot give a refused open a reason: refused opens fail "
                        "with EPERM");
      response.response = FAN_DENY;
      written = ::write(fanotifyFd_.get(), &response, sizeof response);
    }
    if (written != sizeof response) {
      const int error = errno;
      // ENOENT: the waiting process was killed meanwhile, and its open with it.
      if (error == ENOENT)
        DKLogDebug("%s", "An open that waited for its provider was abandoned by its process");
      else
        DKLogError("Transparent file coordination cannot answer an open: %s", errnoText(error));
    }
  }
  ::close(eventFd);
}

bool TransparentCoordination::denialsCarryErrno() const {
  std::lock_guard lock(mutex_);
  return denialsCarryErrno_;
}

}  // namespace daskel::platform
