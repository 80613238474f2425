// DaskelClient: an application's connection to one named Daskel service, for calling the
// operations of the service's interface and receiving their replies.
//
//   auto client = DaskelClient::connect("com.orvane.Daskel", DKDaemonInterface());
//   if (!client) { report(client.error()->localizedDescription()); }
//   (*client)->call("wakeUpCompletion:", {}, [](Result<Value::Array> reply) { ... });
//
// Every call made with a handler hears exactly once: the reply's values, or an error.
// - The values were checked against the interface's reply classes before they arrive (a
//   reply of the wrong shape or class makes the IPC layer refuse it and close the
//   connection; see IpcConnection).
// - Errors are IPC errors (domain com.orvane.ipc): ConnectionInterrupted when the service
//   closed or died with the call outstanding, ConnectionInvalid when this side closed the
//   connection or it was already closed, MessageRefused when the arguments do not fit the
//   interface or the connection refused the service's message.
// - callAndWait() with a timeout gives up after it with a TimedOut error of this library's
//   domain (below); a reply that comes later is dropped. The connection stays usable. The
//   wire has no way to withdraw a request, so a call that timed out stays registered with
//   the connection (a few hundred bytes) until its reply comes or the connection closes.
//
// The connection is made once, in connect(); a closed connection stays closed (calls then
// fail at once with ConnectionInvalid). An application that wants to go on after losing the
// service connects again.
//
// Ownership: the client owns its connection; destroying the client closes it, and the calls
// still outstanding then fail with ConnectionInvalid.
//
// THREADING NOTES: every member may be called from any thread. Handlers, and the invalidation
// handler, run on the connection's serial queue (queue()), one at a time, in the order the
// replies arrived. callAndWait() blocks the calling thread; called on queue() it would wait
// for itself, so it fails at once with WouldDeadlock instead.
//
// Failure: connect() returns the IPC error of the failed connect (ConnectionInvalid, its
// description naming the service, the socket path and the errno text); everything later is
// reported to the handlers.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcInterface.h"
#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel {

// Errors of the client library itself (the service never sends them).
inline constexpr char kDaskelClientErrorDomain[] = "com.orvane.Daskel.client";

enum class DaskelClientErrorCode : std::int64_t {
  // No reply came within the caller's timeout.
  TimedOut = 1,
  // A blocking call was made on the client's own queue, where its reply would be delivered.
  WouldDeadlock = 2,
};

class DaskelClient {
 public:
  using Values = platform::Value::Array;
  using ReplyHandler = std::move_only_function<void(platform::Result<Values> reply)>;
  using Timeout = std::optional<std::chrono::milliseconds>;

  // Connects to <runtime dir>/<serviceName>; `remoteInterface` is what the service exports.
  static platform::Result<std::unique_ptr<DaskelClient>> connect(
      const std::string& serviceName,
      platform::IpcInterface remoteInterface);

  ~DaskelClient();
  DaskelClient(const DaskelClient&) = delete;
  DaskelClient& operator=(const DaskelClient&) = delete;

  const std::string& serviceName() const { return connection_->serviceName(); }

  // Sends `selector` with `arguments` (without the reply block); `handler` hears once.
  void call(std::string selector, Values arguments, ReplyHandler handler);
  // Sends an operation that takes no reply block. Nothing reports whether it arrived.
  void send(std::string selector, Values arguments);
  // call(), waiting for the outcome; with a timeout, at most that long.
  platform::Result<Values> callAndWait(std::string selector,
                                       Values arguments,
                                       Timeout timeout = std::nullopt);

  // Runs once when the connection closes, for whatever reason, after the outstanding calls
  // have heard. The error says why (see IpcConnection::closeError). Set it right after
  // connect(): set on a connection that has closed already, it never runs.
  void setInvalidationHandler(std::function<void(platform::ErrorPtr error)> handler);

  // Closes the connection. Idempotent.
  void invalidate();
  bool isValid() const { return connection_->isValid(); }

  // Where handlers run.
  const std::shared_ptr<platform::DispatchQueue>& queue() const { return connection_->queue(); }
  const std::shared_ptr<platform::IpcConnection>& connection() const { return connection_; }

 private:
  class PendingCall;

  explicit DaskelClient(std::shared_ptr<platform::IpcConnection> connection);

  // A proxy whose error handler finishes `pending`.
  std::shared_ptr<platform::IpcRemoteProxy> proxyFor(std::shared_ptr<PendingCall> pending);

  const std::shared_ptr<platform::IpcConnection> connection_;
};

}  // namespace daskel
