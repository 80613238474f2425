#include "platform/extensions/ExtensionProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "platform/errors/DKErrors.h"
#include "platform/extensions/ExtensionPidRegistry.h"
#include "platform/extensions/PluginRecord.h"
#include "platform/filesystem/FileSystem.h"
#include "platform/log/Log.h"

extern char** environ;

namespace daskel::platform {

namespace {

constexpr char kControlFdVariable[] = "DASKEL_EXTENSION_CONTROL_FD";
constexpr char kIdentifierVariable[] = "DASKEL_EXTENSION_IDENTIFIER";
constexpr int kControlFd = 3;

// The daemon's environment without the two variables the extension gets from us, then ours.
std::vector<std::string> extensionEnvironment(const std::string& identifier) {
  std::vector<std::string> result;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view text(*entry);
    const std::string_view name = text.substr(0, text.find('='));
    if (name != kControlFdVariable && name != kIdentifierVariable)
      result.emplace_back(text);
  }
  result.push_back(std::string(kControlFdVariable) + "=" + std::to_string(kControlFd));
  result.push_back(std::string(kIdentifierVariable) + "=" + identifier);
  return result;
}

std::string secondsText(std::chrono::steady_clock::duration duration) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
  if (ms % 1000 == 0)
    return std::to_string(ms / 1000) + " s";
  return std::to_string(ms) + " ms";
}

// Owns the posix_spawn attribute objects for the length of one launch.
struct SpawnSetup {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  SpawnSetup() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;
};

}  // namespace

Result<std::shared_ptr<ExtensionProcess>> ExtensionProcess::launch(const PluginRecord& record,
                                                                   Timing timing,
                                                                   Callbacks callbacks) {
  const std::string path = record.executablePath();
  const std::string what = "Cannot start extension " + record.identifier();
  auto sockets = ExtensionControlChannel::makeSocketPair();
  if (!sockets)
    return failure(sockets.error());
  auto& [daemonEnd, extensionEnd] = *sockets;
  if (::fcntl(daemonEnd.get(), F_SETFL, O_NONBLOCK) != 0)
    return failure(posixError(errno, what + ": fcntl", path));

  SpawnSetup setup;
  // dup2 onto 3 clears close-on-exec (also when the descriptor already is 3); everything
  // above 3 the daemon has open stays behind.
  int error = posix_spawn_file_actions_adddup2(&setup.actions, extensionEnd.get(), kControlFd);
  if (error == 0)
    error = posix_spawn_file_actions_addclosefrom_np(&setup.actions, kControlFd + 1);
  if (error == 0)
    error = posix_spawn_file_actions_addchdir_np(&setup.actions, record.bundlePath().c_str());
  // A clean signal state: nothing blocked, nothing ignored (the daemon ignores SIGPIPE).
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  if (error == 0)
    error = posix_spawnattr_setsigmask(&setup.attributes, &none);
  if (error == 0)
    error = posix_spawnattr_setsigdefault(&setup.attributes, &all);
  if (error == 0)
    error = posix_spawnattr_setflags(&setup.attributes,
                                     POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  if (error != 0)
    return failure(posixError(error, what + ": preparing posix_spawn", path));

  std::vector<std::string> environment = extensionEnvironment(record.identifier());
  std::vector<char*> envp;
  for (std::string& entry : environment)
    envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::string argv0 = path;
  char* argv[] = {argv0.data(), nullptr};

  pid_t pid = 0;
  // glibc's posix_spawn reports a failed chdir or exec as its result, so a missing or
  // non-executable file is found here rather than as an exit status.
  error = ::posix_spawn(&pid, path.c_str(), &setup.actions, &setup.attributes, argv, envp.data());
  if (error != 0)
    return failure(posixError(error, what, path));
  extensionEnd.reset();
  // Listed from now until it is reaped, so that the transparent coordination front-end lets
  // its opens through at once (see ExtensionPidRegistry.h).
  ExtensionPidRegistry::shared().add(pid);

  auto abandon = [pid](ErrorPtr why) {
    ::kill(pid, SIGKILL);
    int status;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    ExtensionPidRegistry::shared().remove(pid);
    return failure(std::move(why));
  };
  // Through syscall(): glibc 2.36's <sys/pidfd.h> lacks C linkage for C++ callers.
  const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (pidfd < 0)
    return abandon(posixError(errno, what + ": pidfd_open", path));

  std::shared_ptr<ExtensionProcess> process(new ExtensionProcess(
      record.identifier(), pid, ScopedFd(pidfd), timing, std::move(callbacks)));
  // The channel takes a duplicate: ScopedFd cannot hand its descriptor over.
  const int controlFd = ::fcntl(daemonEnd.get(), F_DUPFD_CLOEXEC, 0);
  if (controlFd < 0)
    return abandon(posixError(errno, what + ": dup", path));
  daemonEnd.reset();
  if (auto started = process->start(controlFd); !started)
    return abandon(started.error());
  DKLogInfo("Launched extension %@ (%s) as pid %d", record.identifier(), path, pid);
  return process;
}

ExtensionProcess::ExtensionProcess(std::string identifier, pid_t pid, ScopedFd pidfd,
                                   Timing timing, Callbacks callbacks)
    : identifier_(std::move(identifier)),
      pid_(pid),
      pidfd_(std::move(pidfd)),
      timing_(timing),
      callbacks_(std::move(callbacks)) {}

ExtensionProcess::~ExtensionProcess() = default;

Result<void> ExtensionProcess::start(int controlFd) {
  std::weak_ptr<ExtensionProcess> weak = weak_from_this();
  std::lock_guard lock(mutex_);
  control_ = std::make_shared<ExtensionControlChannel>(controlFd);
  auto controlWatch = DescriptorWatcher::shared().watch(controlFd, [weak] {
    if (auto self = weak.lock())
      self->controlReadable();
  });
  if (!controlWatch)
    return failure(controlWatch.error());
  controlWatch_ = *controlWatch;
  // The pidfd watch holds the process strongly until it is reaped, whoever else lets go.
  auto self = shared_from_this();
  auto pidfdWatch = DescriptorWatcher::shared().watch(pidfd_.get(), [self] {
    self->pidfdReadable();
  });
  if (!pidfdWatch) {
    closeControlLocked();
    return failure(pidfdWatch.error());
  }
  pidfdWatch_ = *pidfdWatch;

  DispatchQueue::global()->after(
      timing_.readyTimeout,
      [weak] {
        auto self = weak.lock();
        if (!self)
          return;
        std::lock_guard lock(self->mutex_);
        if (self->state_ != State::Launching)
          return;
        self->killReason_ = "it did not report ready within " + secondsText(self->timing_.readyTimeout);
        DKLogError("Killing extension %@: %s", *self, self->killReason_);
        ::kill(self->pid_, SIGKILL);
      },
      timing_.scheduler);
  return {};
}

bool ExtensionProcess::hasExited() const {
  std::lock_guard lock(mutex_);
  return state_ == State::Exited;
}

std::string ExtensionProcess::description() const {
  return identifier_ + " (pid " + std::to_string(pid_) + ")";
}

Result<void> ExtensionProcess::sendBegin(const std::string& requestUuid, int requestSocket) {
  std::shared_ptr<ExtensionControlChannel> control;
  {
    std::lock_guard lock(mutex_);
    control = control_;
  }
  if (!control)
    return failure(makeError(kPosixErrorDomain, ENOTCONN,
                             "the control socket of extension " + description() + " is closed"));
  return control->sendBegin(requestUuid, requestSocket);
}

Result<void> ExtensionProcess::sendCancel(const std::string& requestUuid) {
  std::shared_ptr<ExtensionControlChannel> control;
  {
    std::lock_guard lock(mutex_);
    control = control_;
  }
  if (!control)
    return failure(makeError(kPosixErrorDomain, ENOTCONN,
                             "the control socket of extension " + description() + " is closed"));
  return control->sendCancel(requestUuid);
}

void ExtensionProcess::stop() {
  {
    std::lock_guard lock(mutex_);
    if (!closeControlLocked())
      return;
  }
  DKLogInfo("Stopping extension %@", *this);
  scheduleKill("it did not exit within " + secondsText(timing_.stopGrace) +
               " of its control socket closing");
}

bool ExtensionProcess::closeControlLocked() {
  if (!control_)
    return false;
  DescriptorWatcher::shared().unwatch(controlWatch_);
  control_.reset();
  if (state_ != State::Exited)
    state_ = State::ControlClosed;
  return true;
}

void ExtensionProcess::scheduleKill(std::string why) {
  std::weak_ptr<ExtensionProcess> weak = weak_from_this();
  DispatchQueue::global()->after(
      timing_.stopGrace,
      [weak, why = std::move(why)] {
        auto self = weak.lock();
        if (!self)
          return;
        std::lock_guard lock(self->mutex_);
        // Until it is reaped the pid cannot name another process, and reaping happens
        // under this lock.
        if (self->state_ == State::Exited)
          return;
        self->killReason_ = why;
        DKLogError("Killing extension %@: %s", *self, why);
        ::kill(self->pid_, SIGKILL);
      },
      timing_.scheduler);
}

void ExtensionProcess::controlReadable() {
  bool becameReady = false;
  bool closed = false;
  {
    std::lock_guard lock(mutex_);
    while (control_) {
      auto received = control_->receive();
      if (!received) {
        const ErrorPtr& error = received.error();
        if (error->domain == kPosixErrorDomain && (error->code == EAGAIN || error->code == EWOULDBLOCK)) {
          DescriptorWatcher::shared().rearm(controlWatch_);
          break;
        }
        // A process that dies with packets unread resets the socket: that is its exit,
        // which the pidfd reports, not a fault of the socket.
        if (error->domain == kPosixErrorDomain && error->code == ECONNRESET) {
          closed = closeControlLocked();
          break;
        }
        DKLogError("Extension %@: %@", *this, error);
        if (error->domain == kPosixErrorDomain) {
          closed = closeControlLocked();
          break;
        }
        continue;  // A refused packet; the next one may be fine.
      }
      if (!received->has_value()) {
        closed = closeControlLocked();
        break;
      }
      const ControlMessage& message = **received;
      if (message.kind != ControlMessage::Kind::Ready) {
        DKLogError("Extension %@ sent a packet only the daemon sends; ignoring it", *this);
      } else if (state_ == State::Launching) {
        state_ = State::Ready;
        becameReady = true;
      }
    }
  }
  if (becameReady) {
    DKLogDebug("Extension %@ is ready", *this);
    if (callbacks_.ready)
      callbacks_.ready();
  }
  if (closed) {
    DKLogInfo("Extension %@ closed its control socket", *this);
    scheduleKill("it did not exit within " + secondsText(timing_.stopGrace) +
                 " of closing its control socket");
    if (callbacks_.controlClosed)
      callbacks_.controlClosed();
  }
}

void ExtensionProcess::pidfdReadable() {
  int status = 0;
  pid_t reaped;
  do {
    reaped = ::waitpid(pid_, &status, WNOHANG);
  } while (reaped < 0 && errno == EINTR);
  if (reaped == 0) {
    std::lock_guard lock(mutex_);
    DescriptorWatcher::shared().rearm(pidfdWatch_);
    return;
  }
  if (reaped < 0)
    status = -1;  // ECHILD: reaped by someone else; how it ended is unknown.
  // Reaped: the pid may name another process from now on.
  ExtensionPidRegistry::shared().remove(pid_);

  std::string reason = describeStatus(status);
  bool killed = false;
  DescriptorWatcher::Token pidfdWatch;
  {
    std::lock_guard lock(mutex_);
    state_ = State::Exited;
    closeControlLocked();
    killed = !killReason_.empty();
    if (killed)
      reason += ": " + killReason_;
    pidfdWatch = pidfdWatch_;
  }
  if (!killed && WIFEXITED(status) && WEXITSTATUS(status) == 0)
    DKLogInfo("Extension %@ %s", *this, reason);
  else
    DKLogError("Extension %@ %s", *this, reason);
  if (callbacks_.exited)
    callbacks_.exited(status, reason);
  // Last: this drops the watch's reference to the process.
  DescriptorWatcher::shared().unwatch(pidfdWatch);
}

std::string ExtensionProcess::describeStatus(int status) {
  if (status == -1)
    return "was reaped by someone else";
  if (WIFEXITED(status))
    return "exited with status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) {
    const char* name = ::sigabbrev_np(WTERMSIG(status));
    return std::string("was killed by ") +
           (name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(WTERMSIG(status)));
  }
  return "ended with wait status " + std::to_string(status);
}

}  // namespace daskel::platform
