#include "client/DaskelClient.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "platform/dispatch/WorkerPool.h"
#include "platform/log/Log.h"

namespace daskel {

using platform::ErrorPtr;
using platform::IpcConnection;
using platform::Result;
using platform::Value;

// One call's handler. Whichever outcome comes first (the reply, or an error) is delivered;
// anything later is ignored, so a handler never runs twice.
class DaskelClient::PendingCall {
 public:
  explicit PendingCall(DaskelClient::ReplyHandler handler) : handler_(std::move(handler)) {}

  void finish(Result<DaskelClient::Values> outcome) {
    if (finished_.exchange(true)) {
      return;
    }
    // Only the thread that won the exchange touches the handler.
    DaskelClient::ReplyHandler handler = std::move(handler_);
    if (handler) {
      handler(std::move(outcome));
    }
  }

 private:
  std::atomic<bool> finished_{false};
  DaskelClient::ReplyHandler handler_;
};

namespace {

// What callAndWait waits for; shared with the handler, which may run after the wait gave up.
struct Rendezvous {
  std::mutex mutex;
  std::condition_variable arrived;
  std::optional<Result<DaskelClient::Values>> outcome;
};

ErrorPtr clientError(DaskelClientErrorCode code, std::string description) {
  return platform::makeError(kDaskelClientErrorDomain, static_cast<std::int64_t>(code),
                             std::move(description));
}

}  // namespace

Result<std::unique_ptr<DaskelClient>> DaskelClient::connect(
    const std::string& serviceName,
    platform::IpcInterface remoteInterface) {
  auto connection = IpcConnection::connectToService(serviceName);
  if (!connection) {
    return platform::failure(connection.error());
  }
  (*connection)->setRemoteInterface(std::move(remoteInterface));
  (*connection)->resume();
  return std::unique_ptr<DaskelClient>(new DaskelClient(std::move(*connection)));
}

DaskelClient::DaskelClient(std::shared_ptr<IpcConnection> connection)
    : connection_(std::move(connection)) {}

DaskelClient::~DaskelClient() {
  // A resumed connection keeps itself alive until it closes; nobody else would close it.
  connection_->invalidate();
}

std::shared_ptr<platform::IpcRemoteProxy> DaskelClient::proxyFor(
    std::shared_ptr<PendingCall> pending) {
  // One proxy per call: the connection reports a failure once per proxy with replies
  // outstanding, so a proxy of its own gives every call its own error.
  return connection_->remoteObjectProxyWithErrorHandler(
      [pending = std::move(pending)](const ErrorPtr& error) {
        pending->finish(platform::failure(error));
      });
}

void DaskelClient::call(std::string selector, Values arguments, ReplyHandler handler) {
  auto pending = std::make_shared<PendingCall>(std::move(handler));
  proxyFor(pending)->call(std::move(selector), std::move(arguments),
                          [pending](Values values) { pending->finish(std::move(values)); });
}

void DaskelClient::send(std::string selector, Values arguments) {
  connection_->remoteObjectProxy()->call(std::move(selector), std::move(arguments));
}

Result<DaskelClient::Values> DaskelClient::callAndWait(std::string selector,
                                                       Values arguments,
                                                       Timeout timeout) {
  if (connection_->queue()->isCurrent()) {
    DKLogError(
        "A blocking call of %s to service %s was made on the client's own queue, "
        "where its reply would be delivered; it fails instead of waiting for ever",
        selector, serviceName());
    return platform::failure(clientError(DaskelClientErrorCode::WouldDeadlock,
                                         "cannot wait for " + selector +
                                             " on the queue that delivers the replies of service " +
                                             serviceName()));
  }
  std::optional<std::chrono::steady_clock::time_point> deadline;
  if (timeout) {
    deadline = std::chrono::steady_clock::now() + *timeout;
  }
  auto rendezvous = std::make_shared<Rendezvous>();
  auto pending = std::make_shared<PendingCall>([rendezvous](Result<Values> outcome) {
    {
      std::lock_guard lock(rendezvous->mutex);
      rendezvous->outcome = std::move(outcome);
    }
    // Notified after unlocking, so the waiter does not wake only to block on the mutex; the
    // capture keeps the rendezvous alive even if the waiter has returned by now.
    rendezvous->arrived.notify_one();
  });
  std::string selectorForError = timeout ? selector : std::string();

  // A dispatch worker waiting here lets the pool add a thread, so the reply (delivered by
  // the pool) can still arrive; a loop thread waiting here hands the loop on.
  platform::WorkerPool::BlockingScope blocking;
  // This thread reads the reply itself while it waits; usually the reply's handler has run
  // by the time this returns, and the wait below ends without sleeping.
  proxyFor(pending)->callAndReadReply(
      std::move(selector), std::move(arguments),
      [pending](Values values) { pending->finish(std::move(values)); }, deadline);

  std::unique_lock lock(rendezvous->mutex);
  const auto hasOutcome = [&] { return rendezvous->outcome.has_value(); };
  if (!deadline) {
    rendezvous->arrived.wait(lock, hasOutcome);
  } else if (!rendezvous->arrived.wait_until(lock, *deadline, hasOutcome)) {
    return platform::failure(clientError(DaskelClientErrorCode::TimedOut,
                                         "timed out: no reply to " + selectorForError +
                                             " from service " + serviceName() + " within " +
                                             std::to_string(timeout->count()) + " ms"));
  }
  return std::move(*rendezvous->outcome);
}

void DaskelClient::setInvalidationHandler(std::function<void(ErrorPtr error)> handler) {
  if (!handler) {
    connection_->setInvalidationHandler(nullptr);
    return;
  }
  // The handler holds the connection for its close reason. That cycle lasts only while the
  // connection is open, which keeps itself alive anyway; closing releases the handler.
  connection_->setInvalidationHandler([connection = connection_, handler = std::move(handler)] {
    handler(connection->closeError());
  });
}

void DaskelClient::invalidate() {
  connection_->invalidate();
}

}  // namespace daskel
