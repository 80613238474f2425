// ExtensionProcess: one running process of an extension bundle, from posix_spawn to waitpid.
// It starts the bundle's executable with no arguments, the extension side of a control
// socket as descriptor 3, the daemon's environment plus DASKEL_EXTENSION_CONTROL_FD=3 and
// DASKEL_EXTENSION_IDENTIFIER=<bundle identifier>, in the bundle directory; waits for the
// extension's {"ready": true}; sends begin and cancel packets; stops the process by closing
// the control socket (and kills it if it has not exited after a grace time); and reaps it.
//
// Events are reported through Callbacks, on the DescriptorWatcher's thread (or a timer's
// queue), never while the process's own lock is held:
// - ready: the extension sent {"ready": true};
// - controlClosed: the control socket is gone while the process may still run (the
//   extension closed it, or stop() was called); a kill follows after the grace time;
// - exited: the process has been reaped; `reason` says how it ended ("exited with status
//   3", "was killed by signal 9") and, when it never became ready, why (the ready time
//   ran out). Called exactly once, last.
//
// Ownership: shared. While the process runs, the watch on its pidfd keeps the object alive,
// so a process that nobody holds any more is still stopped, killed if need be, and reaped.
// THREADING NOTES: every member may be called from any thread.
// Failure: launch() returns a POSIX-domain error naming the executable and the errno text
// when the process cannot be started (missing, not executable, exec or chdir failed).
// send*() return the channel's errors (or ENOTCONN once the control socket is closed).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/extensions/DescriptorWatcher.h"
#include "platform/extensions/ExtensionControlChannel.h"
#include "platform/identity/ScopedFd.h"
#include "platform/value/Result.h"

namespace daskel::platform {

class PluginRecord;

class ExtensionProcess : public std::enable_shared_from_this<ExtensionProcess> {
 public:
  struct Callbacks {
    std::function<void()> ready;
    std::function<void()> controlClosed;
    // (exit status as waitpid gave it, why it ended)
    std::function<void(int status, const std::string& reason)> exited;
  };

  struct Timing {
    // How long the extension has to send {"ready": true} before it is killed.
    std::chrono::steady_clock::duration readyTimeout = std::chrono::seconds(10);
    // How long a stopped extension has to exit before it is killed.
    std::chrono::steady_clock::duration stopGrace = std::chrono::seconds(5);
    // Times the two above; Scheduler::real() when null. Not owned; must outlive the process.
    Scheduler* scheduler = nullptr;
    // The scheduler's time, which lets a supervisor time idleness with one timer at a time
    // (see ExtensionSupervisor); the steady clock is used when `scheduler` is null. Without
    // it, a given scheduler times every idle period with a timer of its own.
    std::function<std::chrono::steady_clock::time_point()> clock;
  };

  static Result<std::shared_ptr<ExtensionProcess>> launch(const PluginRecord& record,
                                                          Timing timing,
                                                          Callbacks callbacks);

  ~ExtensionProcess();
  ExtensionProcess(const ExtensionProcess&) = delete;
  ExtensionProcess& operator=(const ExtensionProcess&) = delete;

  pid_t pid() const { return pid_; }
  // True once the process has been reaped (set before the exited callback runs).
  bool hasExited() const;
  // "<identifier> (pid <pid>)", what "%@" prints.
  std::string description() const;

  Result<void> sendBegin(const std::string& requestUuid, int requestSocket);
  Result<void> sendCancel(const std::string& requestUuid);

  // Closes the control socket, which asks the extension to exit; kills it if it has not
  // exited after the grace time. Idempotent.
  void stop();

  // Describes how a process ended from its waitpid status.
  static std::string describeStatus(int status);

 private:
  enum class State { Launching, Ready, ControlClosed, Exited };

  ExtensionProcess(std::string identifier, pid_t pid, ScopedFd pidfd, Timing timing,
                   Callbacks callbacks);

  Result<void> start(int controlFd);
  // Watcher-thread handlers.
  void controlReadable();
  void pidfdReadable();
  // Closes the control socket; returns whether it was open. Caller holds mutex_.
  bool closeControlLocked();
  void scheduleKill(std::string why);

  const std::string identifier_;
  const pid_t pid_;
  const ScopedFd pidfd_;
  const Timing timing_;
  const Callbacks callbacks_;

  mutable std::mutex mutex_;
  State state_ = State::Launching;
  std::shared_ptr<ExtensionControlChannel> control_;
  DescriptorWatcher::Token controlWatch_ = 0;
  DescriptorWatcher::Token pidfdWatch_ = 0;
  // Why the process was killed, when the daemon killed it.
  std::string killReason_;
};

}  // namespace daskel::platform
