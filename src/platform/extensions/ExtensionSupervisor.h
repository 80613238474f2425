// ExtensionSupervisor: the AppExtension of one plug-in record on Linux. It runs the bundle's
// executable as an ExtensionProcess when a request begins and none runs, and gives every
// request a socketpair: the daemon's end becomes the request's IpcConnection (exporting the
// context class's host interface with no operations behind it, its remote interface the
// vendor interface), the other end goes to the extension in a {"begin": uuid} packet.
//
// Lifecycle of the process:
// - beginRequest() launches it if none runs; requests arriving while it starts wait for the
//   same launch. If it cannot be started, exits or closes its control socket before it is
//   ready, or is not ready in time, every waiting request fails with the reason.
// - Once a request has begun on a running process, the next one is handed over ahead of
//   need: its begin packet goes out while the extension works on the current one, and the
//   next beginRequest() takes it up with no packet and no new socket on its way. Until it is
//   taken it is no open request (openRequestCount(), idleness); it is cancelled when the
//   process stops or is replaced, and lost with a process that dies.
// - A request ends by cancelRequest() ({"cancel": uuid}, then the connection is closed), or
//   when its connection closes by itself (a cancel is still sent while the process runs).
// - With no open request for the idle time, the process is stopped (control socket closed,
//   killed after a grace time if it lingers). The next request starts it again. When the
//   scheduler's time is known (the real scheduler, or Timing::clock), one timer at a time
//   watches for that, re-armed for the rest of the idle time when it finds the process was
//   busy meanwhile; so a request that ends does not schedule a timer of its own.
// - When the process dies, its requests are forgotten; their connections see the peer gone,
//   so proxies' error handlers hear ConnectionInterrupted. The next request relaunches.
// - Destroying the supervisor stops its process and closes every open request connection.
//
// Ownership: shared (create()); holds its record, its current process and its requests'
// connections. Callbacks from processes, connections and timers hold it weakly.
// THREADING NOTES: every member may be called from any thread. A request that begins on a
// process that is already running completes on the caller's thread, before beginRequest()
// returns (so the caller must hold no lock its completion takes); one that waited for a
// launch, or whose launch failed, completes on the completion queue (the global queue unless
// given).
// Failure: beginRequest() completions carry POSIX-domain errors when the executable cannot
// be started (path, errno text), IPC-domain errors (ConnectionInterrupted) when the process
// ended before it was ready (with its exit status), ConnectionInvalid when the request could
// not be handed to the extension. Process exits, kills and idle stops are logged.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/extensions/AppExtension.h"
#include "platform/extensions/ExtensionProcess.h"
#include "platform/extensions/PluginRecord.h"
#include "platform/identity/ScopedFd.h"

namespace daskel::platform {

struct ExtensionSupervisorOptions {
  ExtensionContextClass contextClass;
  // How long a process with no open request keeps running; DASKEL_EXTENSION_IDLE_SECONDS
  // (extensionIdleSeconds()) when not given.
  std::optional<std::chrono::steady_clock::duration> idleTime;
  // Ready timeout, stop grace and the scheduler that times them (and the idle time).
  ExtensionProcess::Timing timing;
  // Where beginRequest() completions run; DispatchQueue::global() when null.
  std::shared_ptr<DispatchQueue> completionQueue;
};

class ExtensionSupervisor final : public AppExtension,
                                  public std::enable_shared_from_this<ExtensionSupervisor> {
 public:
  static std::shared_ptr<ExtensionSupervisor> create(std::shared_ptr<const PluginRecord> record,
                                                     ExtensionSupervisorOptions options);
  ~ExtensionSupervisor() override;
  ExtensionSupervisor(const ExtensionSupervisor&) = delete;
  ExtensionSupervisor& operator=(const ExtensionSupervisor&) = delete;

  const std::shared_ptr<const PluginRecord>& record() const { return record_; }
  // The pid of the process that runs (or is starting) for new requests; 0 when none.
  pid_t processIdentifier() const;
  // How many requests are open, whichever process serves them.
  std::size_t openRequestCount() const;

  std::string identifier() const override;
  std::string description() const override;
  bool isEqual(const AppExtension& other) const override;
  void beginRequest(BeginRequestCompletion completion) override;
  void cancelRequest(const std::string& requestUuid) override;
  std::shared_ptr<ExtensionContext> contextForRequest(const std::string& requestUuid) override;

 private:
  class RequestContext;
  struct Request {
    std::shared_ptr<IpcConnection> connection;
    std::shared_ptr<ExtensionContext> context;
    std::weak_ptr<ExtensionProcess> process;
    std::uint64_t generation;
  };
  // A request handed to the extension: its begin packet has gone out (when beginSent) and
  // this side's connection is set up but not yet reading.
  struct Handover {
    std::string uuid;
    std::shared_ptr<IpcConnection> connection;
    ScopedFd extensionEnd;  // our copy of the extension's end
    bool beginSent = false;
    ErrorPtr error;
  };
  // The request handed over ahead of need to process_ (launch `generation`).
  struct Standby {
    std::string uuid;
    std::shared_ptr<IpcConnection> connection;
    std::uint64_t generation;
  };

  ExtensionSupervisor(std::shared_ptr<const PluginRecord> record,
                      ExtensionSupervisorOptions options);

  // Opens one request on `process` (launch `generation`) and completes `completion`, on this
  // thread when `completeInline`, else on the completion queue. The caller has counted it in
  // pendingOpens_ while `generation` was current.
  void openRequest(const std::shared_ptr<ExtensionProcess>& process,
                   std::uint64_t generation,
                   BeginRequestCompletion completion,
                   bool completeInline);
  void complete(BeginRequestCompletion completion, std::string uuid, ErrorPtr error);
  Handover handOver(ExtensionProcess& process);
  // Takes up the standby request for `completion` when there is a usable one. Called with
  // `lock` held on a ready process_; returns with it released when it took the standby.
  bool beginOnStandby(std::unique_lock<std::mutex>& lock, BeginRequestCompletion& completion);
  // Hands the next request over to `process` ahead of need, unless one is already.
  void prepareStandby(const std::shared_ptr<ExtensionProcess>& process, std::uint64_t generation);
  // Ends a standby request nobody will take: cancelled when `process` can still hear it.
  static void discardStandby(Standby standby, ExtensionProcess* process);
  std::optional<Standby> takeStandbyLocked(std::uint64_t generation);

  // ExtensionProcess callbacks.
  void processReady(std::uint64_t generation);
  void processControlClosed(std::uint64_t generation);
  void processExited(std::uint64_t generation, const std::string& reason);

  void requestConnectionClosed(const std::string& requestUuid);
  // Starts the idle timer when the current process is ready and serves nothing.
  void scheduleIdleStopIfIdleLocked();
  void idleTimeElapsed(std::uint64_t generation, std::uint64_t token);
  // With a clock: the one idle timer, armed to fire `delay` from now. Caller holds mutex_.
  void armIdleTimerLocked(std::chrono::steady_clock::duration delay);
  void idleTimerFired();
  // Stops a process taken from process_ because it served nothing for idleTime_.
  void stopIdleProcess(ExtensionProcess& process);
  bool currentProcessIsIdleLocked() const;

  const std::shared_ptr<const PluginRecord> record_;
  const ExtensionContextClass contextClass_;
  // The context class's interfaces, built once and shared by every request connection.
  const std::shared_ptr<const IpcInterface> hostInterface_;
  const std::shared_ptr<const IpcInterface> vendorInterface_;
  const std::chrono::steady_clock::duration idleTime_;
  const ExtensionProcess::Timing timing_;
  const std::shared_ptr<DispatchQueue> completionQueue_;

  mutable std::mutex mutex_;
  std::shared_ptr<ExtensionProcess> process_;  // the process new requests go to
  std::uint64_t generation_ = 0;               // of process_; one more per launch
  bool processReady_ = false;
  std::vector<BeginRequestCompletion> waiters_;  // for process_ to become ready
  std::size_t pendingOpens_ = 0;                 // requests being opened on process_
  std::uint64_t idleToken_ = 0;                  // bumped whenever an idle timer goes stale
  // The scheduler's time when it is known (else every idle period has a timer of its own).
  const std::function<std::chrono::steady_clock::time_point()> clock_;
  bool idleTimerArmed_ = false;                     // with clock_: the one idle timer
  std::chrono::steady_clock::time_point idleSince_;  // with clock_: when process_ went idle
  std::map<std::string, Request> requests_;
  std::optional<Standby> standby_;
  bool preparingStandby_ = false;
};

}  // namespace daskel::platform
