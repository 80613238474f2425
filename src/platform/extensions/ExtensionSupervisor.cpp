#include "platform/extensions/ExtensionSupervisor.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

#include "platform/errors/DKErrors.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcHandlerTable.h"
#include "platform/locations/Locations.h"
#include "platform/log/Log.h"

namespace daskel::platform {

namespace {

// Connections still open this long after their process was reaped are closed from here.
// Normally the kernel closed the extension's ends when it died and the connections have
// already seen that; this catches ends the extension handed to a process of its own.
constexpr auto kOrphanedConnectionGrace = std::chrono::seconds(1);

// What a request connection exports: the host interface has no operations, so no handlers.
// Read-only, so every request connection shares the one table.
const std::shared_ptr<IpcHandlerTable>& noHostOperations() {
  static const auto table = std::make_shared<IpcHandlerTable>();
  return table;
}

// One socket pair made ahead for the next request, so that a request does not wait for the
// kernel to make one: a few microseconds, most of it accounting for two new sockets. It is
// made right after a request has gone out, while the extension works on that one. One for
// the process, whichever extension the next request goes to. Close-on-exec, like every pair
// made here, so extension processes started meanwhile do not inherit it.
class SpareSocketPair {
 public:
  // A pair nobody has used: the spare when there is one, else a new one. 0 or an errno.
  int take(int fds[2]) {
    {
      std::lock_guard lock(mutex_);
      if (fds_[0] >= 0) {
        fds[0] = std::exchange(fds_[0], -1);
        fds[1] = std::exchange(fds_[1], -1);
        return 0;
      }
    }
    return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0 ? 0 : errno;
  }

  // Makes the spare if there is none; a failure here is met again, and reported, by take().
  void replenish() {
    {
      std::lock_guard lock(mutex_);
      if (fds_[0] >= 0)
        return;
    }
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
      return;
    std::lock_guard lock(mutex_);
    if (fds_[0] >= 0) {
      // Another thread made one meanwhile.
      ::close(fds[0]);
      ::close(fds[1]);
      return;
    }
    fds_[0] = fds[0];
    fds_[1] = fds[1];
  }

 private:
  std::mutex mutex_;
  int fds_[2] = {-1, -1};
};

SpareSocketPair& spareSocketPair() {
  // Never destroyed: requests may still open while the process exits.
  static SpareSocketPair* const spare = new SpareSocketPair();
  return *spare;
}

}  // namespace

class ExtensionSupervisor::RequestContext final : public ExtensionContext {
 public:
  explicit RequestContext(std::shared_ptr<IpcConnection> connection)
      : connection_(std::move(connection)) {}
  std::shared_ptr<IpcConnection> auxiliaryConnection() const override { return connection_; }

 private:
  const std::shared_ptr<IpcConnection> connection_;
};

std::shared_ptr<ExtensionSupervisor> ExtensionSupervisor::create(
    std::shared_ptr<const PluginRecord> record,
    ExtensionSupervisorOptions options) {
  return std::shared_ptr<ExtensionSupervisor>(
      new ExtensionSupervisor(std::move(record), std::move(options)));
}

ExtensionSupervisor::ExtensionSupervisor(std::shared_ptr<const PluginRecord> record,
                                         ExtensionSupervisorOptions options)
    : record_(std::move(record)),
      contextClass_(std::move(options.contextClass)),
      hostInterface_(std::make_shared<const IpcInterface>(contextClass_.hostInterface())),
      vendorInterface_(std::make_shared<const IpcInterface>(contextClass_.vendorInterface())),
      idleTime_(options.idleTime.value_or(std::chrono::seconds(extensionIdleSeconds()))),
      timing_(options.timing),
      completionQueue_(options.completionQueue ? std::move(options.completionQueue)
                                               : DispatchQueue::global()),
      clock_(timing_.clock            ? timing_.clock
             : timing_.scheduler == nullptr ? std::function<std::chrono::steady_clock::time_point()>(
                                                  [] { return std::chrono::steady_clock::now(); })
                                            : nullptr) {}

ExtensionSupervisor::~ExtensionSupervisor() {
  // Nobody can cancel these requests any more, and the process is not needed either.
  // Waiting requests would never hear back (the launch's callbacks hold us weakly): fail them.
  for (BeginRequestCompletion& waiter : waiters_)
    complete(std::move(waiter), "",
             IpcError(IpcErrorCode::ConnectionInvalid,
                      "Extension " + record_->identifier() + " is no longer available"));
  for (auto& [uuid, request] : requests_) {
    if (auto process = request.process.lock())
      (void)process->sendCancel(uuid);
    request.connection->invalidate();
  }
  if (standby_) {
    ExtensionProcess* const owner = standby_->generation == generation_ ? process_.get() : nullptr;
    discardStandby(std::move(*standby_), owner);
  }
  if (process_)
    process_->stop();
}

pid_t ExtensionSupervisor::processIdentifier() const {
  std::lock_guard lock(mutex_);
  return process_ ? process_->pid() : 0;
}

std::size_t ExtensionSupervisor::openRequestCount() const {
  std::lock_guard lock(mutex_);
  return requests_.size();
}

std::string ExtensionSupervisor::identifier() const {
  return record_->identifier();
}

std::string ExtensionSupervisor::description() const {
  return record_->description();
}

bool ExtensionSupervisor::isEqual(const AppExtension& other) const {
  const auto* supervisor = dynamic_cast<const ExtensionSupervisor*>(&other);
  return supervisor != nullptr && *supervisor->record_ == *record_;
}

void ExtensionSupervisor::beginRequest(BeginRequestCompletion completion) {
  std::unique_lock lock(mutex_);
  if (process_ && processReady_ && beginOnStandby(lock, completion))
    return;
  if (process_ && processReady_) {
    auto process = process_;
    const std::uint64_t generation = generation_;
    ++pendingOpens_;  // counted before unlocking, so an idle stop cannot come in between
    lock.unlock();
    // The process runs: the request is opened and reported right here, on the caller's
    // thread, with no hand-off to another queue.
    openRequest(process, generation, std::move(completion), /*completeInline=*/true);
    return;
  }
  if (process_) {
    waiters_.push_back(std::move(completion));
    return;
  }

  // Launch under the lock, so that concurrent requests join this launch; the process's
  // callbacks take the lock too and so cannot overtake the bookkeeping below.
  const std::uint64_t generation = generation_ + 1;
  std::weak_ptr<ExtensionSupervisor> weak = weak_from_this();
  ExtensionProcess::Callbacks callbacks{
      .ready = [weak, generation] {
        if (auto self = weak.lock())
          self->processReady(generation);
      },
      .controlClosed = [weak, generation] {
        if (auto self = weak.lock())
          self->processControlClosed(generation);
      },
      .exited = [weak, generation](int, const std::string& reason) {
        if (auto self = weak.lock())
          self->processExited(generation, reason);
      },
  };
  auto launched = ExtensionProcess::launch(*record_, timing_, std::move(callbacks));
  if (!launched) {
    lock.unlock();
    DKLogError("%@", launched.error());
    complete(std::move(completion), "", launched.error());
    return;
  }
  generation_ = generation;
  process_ = std::move(*launched);
  processReady_ = false;
  pendingOpens_ = 0;
  waiters_.push_back(std::move(completion));
}

ExtensionSupervisor::Handover ExtensionSupervisor::handOver(ExtensionProcess& process) {
  Handover request;
  request.uuid = ExtensionControlChannel::makeRequestUuid();
  int fds[2];
  if (const int failed = spareSocketPair().take(fds); failed != 0) {
    request.error = IpcError(IpcErrorCode::ConnectionInvalid,
                             "Cannot open a request to extension " + process.description() +
                                 ": socketpair: " + std::strerror(failed));
    return request;
  }
  // The begin packet goes first, so that the extension takes up its end while this side
  // sets up its connection. Whatever the extension sends meanwhile waits in the socket.
  request.extensionEnd = ScopedFd(fds[1]);
  if (auto sent = process.sendBegin(request.uuid, request.extensionEnd.get()); !sent) {
    request.error =
        IpcError(IpcErrorCode::ConnectionInvalid, "Cannot hand request " + request.uuid +
                                                      " to extension " + process.description() +
                                                      ": " + sent.error()->localizedDescription());
    ::close(fds[0]);
    return request;
  }
  request.beginSent = true;
  // adoptSocket owns the descriptor from now on, and closes it if it fails.
  // The socketpair above is blocking and close-on-exec.
  auto adopted = IpcConnection::adoptSocket(
      fds[0], "request " + request.uuid + " to extension " + record_->identifier(),
      /*alreadyBlockingCloseOnExec=*/true);
  if (!adopted) {
    request.error = adopted.error();
    return request;
  }
  request.connection = std::move(*adopted);
  request.connection->setExportedInterface(hostInterface_);
  request.connection->setExportedObject(noHostOperations());
  request.connection->setRemoteInterface(vendorInterface_);
  std::weak_ptr<ExtensionSupervisor> weak = weak_from_this();
  request.connection->setInvalidationHandler([weak, uuid = request.uuid] {
    if (auto self = weak.lock())
      self->requestConnectionClosed(uuid);
  });
  return request;
}

void ExtensionSupervisor::openRequest(const std::shared_ptr<ExtensionProcess>& process,
                                      std::uint64_t generation,
                                      BeginRequestCompletion completion,
                                      bool completeInline) {
  // Our copy of the extension's end (in `request`) is closed, like our own end starts being
  // read, only once the request's message has gone out: neither is needed before the
  // extension answers.
  Handover request = handOver(*process);
  const std::string& uuid = request.uuid;
  const std::shared_ptr<IpcConnection>& connection = request.connection;
  ErrorPtr error = std::move(request.error);
  {
    std::lock_guard lock(mutex_);
    if (generation == generation_ && pendingOpens_ > 0)
      --pendingOpens_;
    if (!error && process->hasExited()) {
      // Its exit has been (or is about to be) handled without this request; do not leave a
      // request behind that nothing will end.
      error = IpcError(IpcErrorCode::ConnectionInterrupted,
                       "Extension " + process->description() +
                           " ended before request " + uuid + " could begin");
    }
    if (!error) {
      // A connection closed already has run, or will run, its invalidation handler before
      // the request was known: forget it here instead.
      if (!connection->isValid()) {
        error = IpcError(IpcErrorCode::ConnectionInterrupted,
                         "Extension " + process->description() + " closed request " + uuid +
                             " as it began");
      } else {
        requests_.emplace(uuid, Request{connection, std::make_shared<RequestContext>(connection),
                                        process, generation});
      }
    }
    if (error)
      scheduleIdleStopIfIdleLocked();
  }
  if (error) {
    // The extension has the request (or is about to); tell it that the request is over.
    if (request.beginSent)
      (void)process->sendCancel(uuid);
    if (connection)
      connection->invalidate();
    DKLogError("%@", error);
    if (completeInline)
      completion("", error);
    else
      complete(std::move(completion), "", error);
    return;
  }
  DKLogDebug("Began request %s to extension %@", uuid, *process);
  if (completeInline) {
    // Usually sends the request's message: it waits in the socket until we read, so that
    // reading starts only afterwards. A request the completion has already ended stays
    // closed.
    completion(uuid, nullptr);
    connection->resume();
  } else {
    connection->resume();
    complete(std::move(completion), uuid, nullptr);
  }
  request.extensionEnd.reset();
  prepareStandby(process, generation);
  spareSocketPair().replenish();
}

bool ExtensionSupervisor::beginOnStandby(std::unique_lock<std::mutex>& lock,
                                         BeginRequestCompletion& completion) {
  if (!standby_)
    return false;
  Standby standby = std::move(*standby_);
  standby_.reset();
  std::shared_ptr<ExtensionProcess> process = process_;
  const std::uint64_t generation = generation_;
  // Only this side closes a standby connection, as it is not read yet; one closed is one
  // whose process went, and a process that exited is about to be forgotten.
  if (standby.generation != generation || !standby.connection->isValid() || process->hasExited()) {
    lock.unlock();
    discardStandby(std::move(standby), process.get());
    lock.lock();
    return false;
  }
  requests_.emplace(standby.uuid, Request{standby.connection,
                                          std::make_shared<RequestContext>(standby.connection),
                                          process, generation});
  lock.unlock();
  DKLogDebug("Began request %s to extension %@", standby.uuid, *process);
  completion(standby.uuid, nullptr);
  standby.connection->resume();
  prepareStandby(process, generation);
  spareSocketPair().replenish();
  return true;
}

void ExtensionSupervisor::prepareStandby(const std::shared_ptr<ExtensionProcess>& process,
                                         std::uint64_t generation) {
  {
    std::lock_guard lock(mutex_);
    if (generation != generation_ || process_ != process || !processReady_ || standby_ ||
        preparingStandby_)
      return;
    preparingStandby_ = true;
  }
  Handover request = handOver(*process);
  request.extensionEnd.reset();
  std::optional<Standby> unused;
  {
    std::lock_guard lock(mutex_);
    preparingStandby_ = false;
    if (request.error) {
      // Whatever failed fails the next request again, which reports it.
    } else if (generation == generation_ && process_ == process && !standby_ &&
               !process->hasExited()) {
      standby_ = Standby{request.uuid, request.connection, generation};
    } else {
      unused = Standby{request.uuid, request.connection, generation};
    }
  }
  if (request.error) {
    DKLogDebug("Cannot hand the next request to extension %@ ahead of need: %@", *process,
               request.error);
    if (request.beginSent)
      (void)process->sendCancel(request.uuid);
    if (request.connection)
      request.connection->invalidate();
  } else if (unused) {
    discardStandby(std::move(*unused), process.get());
  }
}

void ExtensionSupervisor::discardStandby(Standby standby, ExtensionProcess* process) {
  if (process && !process->hasExited())
    (void)process->sendCancel(standby.uuid);
  // Not among the requests: its close has nothing to report.
  standby.connection->setInvalidationHandler(nullptr);
  standby.connection->invalidate();
}

void ExtensionSupervisor::complete(BeginRequestCompletion completion,
                                   std::string uuid,
                                   ErrorPtr error) {
  completionQueue_->async([completion = std::move(completion), uuid = std::move(uuid),
                           error = std::move(error)] { completion(uuid, error); });
}

void ExtensionSupervisor::cancelRequest(const std::string& requestUuid) {
  Request request;
  {
    std::lock_guard lock(mutex_);
    auto it = requests_.find(requestUuid);
    if (it == requests_.end())
      return;
    request = std::move(it->second);
    requests_.erase(it);
    scheduleIdleStopIfIdleLocked();
  }
  if (auto process = request.process.lock())
    (void)process->sendCancel(requestUuid);
  // The request is forgotten already: its connection has nothing left to report, and with no
  // handler its close costs no hand-off to the connection's queue.
  request.connection->setInvalidationHandler(nullptr);
  request.connection->invalidate();
}

std::shared_ptr<ExtensionContext> ExtensionSupervisor::contextForRequest(
    const std::string& requestUuid) {
  std::lock_guard lock(mutex_);
  auto it = requests_.find(requestUuid);
  return it == requests_.end() ? nullptr : it->second.context;
}

void ExtensionSupervisor::requestConnectionClosed(const std::string& requestUuid) {
  std::shared_ptr<ExtensionProcess> process;
  {
    std::lock_guard lock(mutex_);
    auto it = requests_.find(requestUuid);
    if (it == requests_.end())
      return;
    process = it->second.process.lock();
    requests_.erase(it);
    scheduleIdleStopIfIdleLocked();
  }
  // The extension may have closed its end without being told; tell it the request is over.
  if (process && !process->hasExited())
    (void)process->sendCancel(requestUuid);
}

void ExtensionSupervisor::processReady(std::uint64_t generation) {
  std::vector<BeginRequestCompletion> waiters;
  std::shared_ptr<ExtensionProcess> process;
  {
    std::lock_guard lock(mutex_);
    if (generation != generation_ || !process_)
      return;
    processReady_ = true;
    process = process_;
    waiters = std::move(waiters_);
    waiters_.clear();
    pendingOpens_ += waiters.size();
    scheduleIdleStopIfIdleLocked();
  }
  // On the watcher thread, which must not run the callers' code: these go to the queue.
  for (BeginRequestCompletion& waiter : waiters)
    openRequest(process, generation, std::move(waiter), /*completeInline=*/false);
}

void ExtensionSupervisor::processControlClosed(std::uint64_t generation) {
  std::optional<Standby> standby;
  {
    std::lock_guard lock(mutex_);
    // Before it was ready, waiters keep waiting for the exit status (or the kill) to say
    // why. Once ready, new requests go to a new process; open ones stay until their
    // connections close or the old process is reaped.
    if (generation == generation_ && process_ && processReady_) {
      process_.reset();
      processReady_ = false;
    }
    standby = takeStandbyLocked(generation);
  }
  // No cancel: the control socket it would go through is closed.
  if (standby)
    discardStandby(std::move(*standby), nullptr);
}

std::optional<ExtensionSupervisor::Standby> ExtensionSupervisor::takeStandbyLocked(
    std::uint64_t generation) {
  if (!standby_ || standby_->generation != generation)
    return std::nullopt;
  return std::exchange(standby_, std::nullopt);
}

void ExtensionSupervisor::processExited(std::uint64_t generation, const std::string& reason) {
  std::vector<BeginRequestCompletion> waiters;
  std::vector<std::shared_ptr<IpcConnection>> orphans;
  std::string description;
  std::optional<Standby> standby;
  {
    std::lock_guard lock(mutex_);
    standby = takeStandbyLocked(generation);
    if (generation == generation_ && process_) {
      description = process_->description();
      if (!processReady_) {
        waiters = std::move(waiters_);
        waiters_.clear();
      }
      process_.reset();
      processReady_ = false;
    }
    for (auto it = requests_.begin(); it != requests_.end();) {
      if (it->second.generation == generation) {
        orphans.push_back(it->second.connection);
        it = requests_.erase(it);
      } else {
        ++it;
      }
    }
  }
  if (standby)
    discardStandby(std::move(*standby), nullptr);
  for (BeginRequestCompletion& waiter : waiters) {
    complete(std::move(waiter), "",
             IpcError(IpcErrorCode::ConnectionInterrupted,
                      "Extension " + description + " " + reason + " before it was ready"));
  }
  if (!orphans.empty()) {
    DispatchQueue::global()->after(
        kOrphanedConnectionGrace,
        [orphans = std::move(orphans)] {
          for (const auto& connection : orphans)
            connection->invalidate();
        },
        timing_.scheduler);
  }
}

bool ExtensionSupervisor::currentProcessIsIdleLocked() const {
  if (!process_ || !processReady_ || pendingOpens_ > 0)
    return false;
  for (const auto& [uuid, request] : requests_) {
    if (request.generation == generation_)
      return false;
  }
  return true;
}

void ExtensionSupervisor::scheduleIdleStopIfIdleLocked() {
  if (!currentProcessIsIdleLocked())
    return;
  if (clock_) {
    // The armed timer, if any, finds this later start of idleness when it fires.
    idleSince_ = clock_();
    if (!idleTimerArmed_)
      armIdleTimerLocked(idleTime_);
    return;
  }
  const std::uint64_t token = ++idleToken_;
  const std::uint64_t generation = generation_;
  std::weak_ptr<ExtensionSupervisor> weak = weak_from_this();
  DispatchQueue::global()->after(
      idleTime_,
      [weak, generation, token] {
        if (auto self = weak.lock())
          self->idleTimeElapsed(generation, token);
      },
      timing_.scheduler);
}

void ExtensionSupervisor::armIdleTimerLocked(std::chrono::steady_clock::duration delay) {
  idleTimerArmed_ = true;
  std::weak_ptr<ExtensionSupervisor> weak = weak_from_this();
  DispatchQueue::global()->after(
      delay,
      [weak] {
        if (auto self = weak.lock())
          self->idleTimerFired();
      },
      timing_.scheduler);
}

void ExtensionSupervisor::idleTimerFired() {
  std::shared_ptr<ExtensionProcess> process;
  std::optional<Standby> standby;
  {
    std::lock_guard lock(mutex_);
    idleTimerArmed_ = false;
    // Busy (or no process): the next time the process goes idle arms the timer again.
    if (!currentProcessIsIdleLocked())
      return;
    const auto due = idleSince_ + idleTime_;
    const auto now = clock_();
    if (now < due) {
      // Busy for a while since the timer was armed, and idle again since idleSince_.
      armIdleTimerLocked(due - now);
      return;
    }
    process = std::move(process_);
    process_.reset();
    processReady_ = false;
    standby = takeStandbyLocked(generation_);
  }
  if (standby)
    discardStandby(std::move(*standby), process.get());
  stopIdleProcess(*process);
}

void ExtensionSupervisor::stopIdleProcess(ExtensionProcess& process) {
  DKLogInfo("Extension %@ has had no request for %ld s; stopping it", process,
            static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(idleTime_).count()));
  process.stop();
}

void ExtensionSupervisor::idleTimeElapsed(std::uint64_t generation, std::uint64_t token) {
  std::shared_ptr<ExtensionProcess> process;
  std::optional<Standby> standby;
  {
    std::lock_guard lock(mutex_);
    if (generation != generation_ || token != idleToken_ || !currentProcessIsIdleLocked())
      return;
    process = std::move(process_);
    process_.reset();
    processReady_ = false;
    standby = takeStandbyLocked(generation_);
  }
  if (standby)
    discardStandby(std::move(*standby), process.get());
  stopIdleProcess(*process);
}

}  // namespace daskel::platform
