#include "platform/ipc/IpcConnection.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <algorithm>
#include <atomic>
#include <utility>

#include "platform/errors/DKErrors.h"
#include "platform/ipc/IpcServiceSocket.h"
#include "platform/log/Log.h"

namespace daskel::platform {

namespace {

std::string reasonText(const ErrorPtr& error) {
  if (!error) {
    return "(no reason)";
  }
  std::string text = error->localizedDescription();
  return text.empty() ? error->description() : text;
}

// What the thread reading for a synchronous caller waits for; see sendRequestAndReadReply.
struct AwaitedReply {
  const IpcConnection* connection;
  std::uint64_t id;
  bool read = false;
};
thread_local AwaitedReply* tAwaitedReply = nullptr;

// The frame around an encoded payload.
Result<std::vector<std::uint8_t>> frameOf(const Result<std::vector<std::uint8_t>>& payload) {
  if (!payload) {
    return failure(payload.error());
  }
  return encodeFrame(*payload);
}

}  // namespace

// ---- creation ----

Result<std::shared_ptr<IpcConnection>> IpcConnection::connectToService(
    const std::string& serviceName) {
  if (auto valid = IpcServiceSocket::checkServiceName(serviceName); !valid) {
    return failure(valid.error());
  }
  const std::string path = IpcServiceSocket::pathForService(serviceName);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return failure(IpcError(IpcErrorCode::ConnectionInvalid,
                            "cannot connect to service " + serviceName + " (" + path +
                                ": the path is too long for a socket)"));
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);

  // Blocking while it connects: a listener that has not resumed yet keeps the connection in
  // its backlog, and a full backlog is waited out rather than failed.
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return failure(IpcError(IpcErrorCode::ConnectionInvalid,
                            "cannot connect to service " + serviceName + " (socket: " +
                                std::strerror(errno) + ")"));
  }
  int result;
  do {
    result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    const int error = errno;
    ::close(fd);
    const bool nobodyListens = error == ENOENT || error == ECONNREFUSED;
    return failure(IpcError(IpcErrorCode::ConnectionInvalid,
                            (nobodyListens ? "service " + serviceName + " is not running ("
                                           : "cannot connect to service " + serviceName + " (") +
                                path + ": " + std::strerror(error) + ")"));
  }
  // socket() above made it blocking and close-on-exec.
  return make(fd, Role::Client, serviceName, /*alreadyBlockingCloseOnExec=*/true);
}

Result<std::shared_ptr<IpcConnection>> IpcConnection::adoptSocket(
    int fd, std::string name, bool alreadyBlockingCloseOnExec) {
  return make(fd, Role::Adopted, std::move(name), alreadyBlockingCloseOnExec);
}

Result<std::shared_ptr<IpcConnection>> IpcConnection::make(int fd,
                                                           Role role,
                                                           std::string name,
                                                           bool alreadyBlockingCloseOnExec) {
  auto stream = IpcStream::adopt(fd, alreadyBlockingCloseOnExec);
  if (!stream) {
    return failure(stream.error());
  }
  // A client's peer is fixed now, at connect time; an adopted socket's when first asked.
  auto token = role == Role::Adopted ? std::nullopt : AuditToken::fromSocket((*stream)->fd());
  return std::shared_ptr<IpcConnection>(
      new IpcConnection(std::move(*stream), role, std::move(name), std::move(token)));
}

Result<std::shared_ptr<IpcConnection>> IpcConnection::accepted(
    std::shared_ptr<IpcStream> stream,
    std::string serviceName,
    std::shared_ptr<const IpcIdentityResolver> resolver) {
  auto token = AuditToken::fromSocket(stream->fd());
  auto connection = std::shared_ptr<IpcConnection>(
      new IpcConnection(std::move(stream), Role::Server, std::move(serviceName), std::move(token)));
  connection->identityResolver_ = std::move(resolver);
  return connection;
}

IpcConnection::IpcConnection(std::shared_ptr<IpcStream> stream,
                             Role role,
                             std::string name,
                             std::optional<AuditToken> auditToken)
    : role_(role),
      name_(std::move(name)),
      auditToken_(std::move(auditToken)),
      stream_(std::move(stream)),
      queue_(DispatchQueue::createSerial("com.orvane.ipc.connection " + name_)),
      loopReads_(role != Role::Client) {
  if (!loopReads_) {
    stream_->setLoopReading(false);
  }
}

void IpcConnection::readByLoop() {
  if (!loopReads_.exchange(true)) {
    stream_->setLoopReading(true);
  }
}

IpcConnection::~IpcConnection() {
  // Only reached before resume() or after closing: a resumed connection holds itself.
  stream_->close();
}

std::string IpcConnection::routineDescription() const {
  // An adopted socket's name already says what it is; its peer is named only once somebody
  // has asked who that is.
  if (role_ == Role::Adopted && !tokenRead_.load(std::memory_order_acquire)) {
    return "connection " + name_;
  }
  return description();
}

std::string IpcConnection::description() const {
  const auto& token = auditToken();
  const std::string peer = token ? token->description() : "an unknown process";
  switch (role_) {
    case Role::Server:
      return "connection from " + peer + " on " + name_;
    case Role::Client:
      return "connection to " + name_ + " (" + peer + ")";
    case Role::Adopted:
      break;
  }
  return "connection " + name_ + " (" + peer + ")";
}

// ---- configuration ----

void IpcConnection::setExportedInterface(IpcInterface interface) {
  setExportedInterface(std::make_shared<const IpcInterface>(std::move(interface)));
}

void IpcConnection::setExportedInterface(std::shared_ptr<const IpcInterface> interface) {
  std::lock_guard lock(mutex_);
  exportedInterface_ = std::move(interface);
}

void IpcConnection::setExportedObject(std::shared_ptr<IpcExportedObject> object) {
  if (object) {
    readByLoop();  // the peer's requests come at any time
  }
  std::lock_guard lock(mutex_);
  if (state_ != State::Closed) {
    exportedObject_ = std::move(object);
  }
}

void IpcConnection::setRemoteInterface(IpcInterface interface) {
  setRemoteInterface(std::make_shared<const IpcInterface>(std::move(interface)));
}

void IpcConnection::setRemoteInterface(std::shared_ptr<const IpcInterface> interface) {
  std::lock_guard lock(mutex_);
  remoteInterface_ = std::move(interface);
}

std::shared_ptr<IpcRemoteProxy> IpcConnection::remoteObjectProxyWithErrorHandler(
    IpcRemoteProxy::ErrorHandler errorHandler) {
  auto state = std::make_shared<IpcRemoteProxy::State>();
  state->errorHandler = std::move(errorHandler);
  return std::shared_ptr<IpcRemoteProxy>(new IpcRemoteProxy(shared_from_this(), std::move(state)));
}

void IpcConnection::setInterruptionHandler(EventHandler handler) {
  std::lock_guard lock(mutex_);
  if (state_ != State::Closed) {
    interruptionHandler_ = std::move(handler);
  }
}

void IpcConnection::setInvalidationHandler(EventHandler handler) {
  std::lock_guard lock(mutex_);
  if (state_ != State::Closed) {
    invalidationHandler_ = std::move(handler);
  }
}

void IpcConnection::setIdentityResolver(std::shared_ptr<const IpcIdentityResolver> resolver) {
  std::lock_guard lock(mutex_);
  identityResolver_ = std::move(resolver);
}

// ---- life cycle ----

void IpcConnection::resume(PeerInput input) {
  {
    std::lock_guard lock(mutex_);
    if (state_ != State::Initial) {
      return;
    }
    state_ = State::Resumed;
  }
  // The stream's handlers hold the connection: that is what keeps a resumed connection
  // alive until it closes.
  auto self = shared_from_this();
  auto started = stream_->start(
      [self](std::vector<std::uint8_t> payload) { self->streamDidReceiveFrame(std::move(payload)); },
      [self](IpcStream::End end, ErrorPtr reason) { self->streamDidEnd(end, std::move(reason)); },
      input == PeerInput::Sent);
  if (!started) {
    close(started.error(), Cause::Local,
          description() + ": cannot start reading: " + reasonText(started.error()));
  }
}

void IpcConnection::invalidate() {
  close(IpcError(IpcErrorCode::ConnectionInvalid,
                 "the " + routineDescription() + " was invalidated"),
        Cause::Local);
}

bool IpcConnection::isValid() const {
  std::lock_guard lock(mutex_);
  return state_ != State::Closed;
}

ErrorPtr IpcConnection::closeError() const {
  std::lock_guard lock(mutex_);
  return closeError_;
}

void IpcConnection::close(ErrorPtr error, Cause cause, std::optional<std::string> logLine) {
  const auto self = shared_from_this();
  std::map<std::uint64_t, PendingReply> pending;
  EventHandler interruptionHandler;
  EventHandler invalidationHandler;
  std::shared_ptr<IpcExportedObject> exportedObject;
  {
    std::lock_guard lock(mutex_);
    if (state_ == State::Closed) {
      return;
    }
    state_ = State::Closed;
    closeError_ = error;
    pending = std::move(pendingReplies_);
    pendingReplies_.clear();
    interruptionHandler = std::move(interruptionHandler_);
    invalidationHandler = std::move(invalidationHandler_);
    exportedObject = std::move(exportedObject_);
  }
  // Written before the socket closes, so whoever sees the close can find the reason logged.
  if (logLine) {
    DKLogError("%s", *logLine);
  } else {
    DKLogDebug("%s closed: %s", routineDescription(), reasonText(error));
  }
  stream_->close();

  // Each proxy with replies outstanding hears once, in the order of its first request.
  std::vector<std::shared_ptr<IpcRemoteProxy::State>> proxies;
  for (auto& [id, entry] : pending) {
    if (std::find(proxies.begin(), proxies.end(), entry.proxy) == proxies.end()) {
      proxies.push_back(entry.proxy);
    }
  }
  if (pending.empty() && !invalidationHandler &&
      (cause != Cause::PeerClosed || !interruptionHandler) &&
      (!exportedObject || exportedObject.use_count() > 1)) {
    // Nobody to tell and nothing that would be destroyed here (an exported object shared
    // with other connections only loses one owner): no hand-off to the queue.
    return;
  }
  queue_->async([proxies = std::move(proxies), error, cause,
                 interruptionHandler = std::move(interruptionHandler),
                 invalidationHandler = std::move(invalidationHandler),
                 pending = std::move(pending), exportedObject = std::move(exportedObject)]() mutable {
    for (const auto& proxy : proxies) {
      if (proxy->errorHandler) {
        proxy->errorHandler(error);
      }
    }
    if (cause == Cause::PeerClosed && interruptionHandler) {
      interruptionHandler();
    }
    if (invalidationHandler) {
      invalidationHandler();
    }
    // The uncalled reply handlers and the exported object go here, on the queue.
    pending.clear();
    exportedObject.reset();
  });
}

// ---- incoming ----

void IpcConnection::streamDidReceiveFrame(std::vector<std::uint8_t> payload) {
  AwaitedReply* const awaited = tAwaitedReply;
  if (awaited && awaited->connection == this) {
    // Read by a caller that waits for one reply. That reply runs here when the queue is idle:
    // it is what wakes the caller. Anything else goes to the queue as usual; the caller's
    // thread is not a loop thread and runs none of the connection's other messages.
    const std::size_t size = payload.size();
    Result<Message> message = decodeMessage(payload);
    const Reply* reply = message ? std::get_if<Reply>(&*message) : nullptr;
    const bool isAwaited = reply && reply->reply == awaited->id;
    auto block = [self = shared_from_this(), message = std::move(message), size]() mutable {
      self->queueHandleMessage(std::move(message));
      self->stream_->consumed(size);
    };
    if (isAwaited) {
      awaited->read = true;
      queue_->runHereOrAsync(std::move(block));
    } else {
      queue_->async(std::move(block));
    }
    return;
  }
  // Run right here on the loop thread when the queue is idle: that saves waking a pool
  // worker for every message, and the stream hands frames out one at a time, so the queue
  // still sees them in stream order.
  queue_->runHereOrAsync([self = shared_from_this(), payload = std::move(payload)] {
    self->queueHandleMessage(decodeMessage(payload));
    self->stream_->consumed(payload.size());
  });
}

void IpcConnection::streamDidEnd(IpcStream::End end, ErrorPtr reason) {
  queue_->runHereOrAsync([self = shared_from_this(), end, reason = std::move(reason)] {
    if (end == IpcStream::End::Violation) {
      self->refuse(reason);
    } else {
      self->close(IpcError(IpcErrorCode::ConnectionInterrupted,
                           "the peer closed the " + self->routineDescription()),
                  Cause::PeerClosed);
    }
  });
}

void IpcConnection::refuse(const ErrorPtr& reason) {
  close(IpcError(IpcErrorCode::MessageRefused, reasonText(reason)), Cause::Refused,
        description() + ": refused the peer's message, closing: " + reasonText(reason));
}

void IpcConnection::queueHandleMessage(Result<Message> message) {
  if (!isValid()) {
    return;  // a frame read before the connection closed
  }
  if (!message) {
    refuse(message.error());
    return;
  }
  if (auto* request = std::get_if<Request>(&*message)) {
    queueHandleRequest(std::move(*request));
  } else {
    queueHandleReply(std::move(std::get<Reply>(*message)));
  }
}

void IpcConnection::queueHandleRequest(Request request) {
  std::shared_ptr<const IpcInterface> interface;
  std::shared_ptr<IpcExportedObject> object;
  {
    std::lock_guard lock(mutex_);
    if (state_ == State::Closed) {
      return;
    }
    interface = exportedInterface_;
    object = exportedObject_;
  }
  if (!interface) {
    refuse(IpcError(IpcErrorCode::MessageRefused,
                    "this side exports no interface, the peer called \"" +
                        request.op.substr(0, 128) + "\""));
    return;
  }
  if (auto fits = interface->check(request); !fits) {
    refuse(fits.error());
    return;
  }
  if (!object) {
    DKLogError("%s: no exported object to handle %s; the request is dropped", description(),
               request.op);
    return;
  }
  std::optional<ReplyBlock> reply;
  if (request.reply) {
    reply = ReplyBlock(weak_from_this(), *request.reply, request.op, interface);
  }
  object->handleRequest(request.op, std::move(request.args), std::move(reply));
}

void IpcConnection::queueHandleReply(Reply reply) {
  std::string selector;
  std::shared_ptr<const IpcInterface> interface;
  {
    std::lock_guard lock(mutex_);
    if (state_ == State::Closed) {
      return;
    }
    auto found = pendingReplies_.find(reply.reply);
    if (found != pendingReplies_.end()) {
      selector = found->second.selector;
      interface = found->second.remoteInterface;
    }
  }
  if (!interface) {
    refuse(IpcError(IpcErrorCode::MessageRefused,
                    "a reply to id " + std::to_string(reply.reply) +
                        ", which no request of this side awaits"));
    return;
  }
  // Checked while the request is still outstanding, so a refusal reaches its proxy.
  if (auto fits = interface->checkReply(selector, reply.values); !fits) {
    refuse(fits.error());
    return;
  }
  IpcRemoteProxy::ReplyHandler handler;
  {
    std::lock_guard lock(mutex_);
    auto found = pendingReplies_.find(reply.reply);
    if (state_ == State::Closed || found == pendingReplies_.end()) {
      return;  // closed in between: the error handler has it
    }
    handler = std::move(found->second.handler);
    pendingReplies_.erase(found);
  }
  handler(std::move(reply.values));
}

// ---- outgoing ----

void IpcConnection::failCall(const std::shared_ptr<IpcRemoteProxy::State>& proxy,
                             ErrorPtr error) {
  queue_->async([proxy, error = std::move(error)] {
    if (proxy->errorHandler) {
      proxy->errorHandler(error);
    }
  });
}

std::optional<std::uint64_t> IpcConnection::sendRequest(
    const std::shared_ptr<IpcRemoteProxy::State>& proxy,
    std::string selector,
    Value::Array arguments,
    IpcRemoteProxy::ReplyHandler replyHandler) {
  const bool wantsReply = static_cast<bool>(replyHandler);
  Request request{std::move(selector), std::move(arguments), std::nullopt};
  std::shared_ptr<const IpcInterface> interface;
  {
    std::lock_guard lock(mutex_);
    if (state_ == State::Closed) {
      if (wantsReply) {
        failCall(proxy, IpcError(IpcErrorCode::ConnectionInvalid,
                                 "the " + description() + " is closed"));
      }
      return std::nullopt;
    }
    interface = remoteInterface_;
    if (wantsReply) {
      request.reply = nextReplyId_++;
    }
  }

  // A request the peer would refuse would cost the whole connection: refuse it here.
  Result<std::vector<std::uint8_t>> frame = [&]() -> Result<std::vector<std::uint8_t>> {
    if (!interface) {
      return failure(IpcError(IpcErrorCode::MessageRefused, "no remote interface is set"));
    }
    if (auto fits = interface->check(request); !fits) {
      return failure(fits.error());
    }
    return frameOf(encodeRequest(request));
  }();
  if (!frame) {
    DKLogError("%s: cannot send %s: %s", description(), request.op,
               reasonText(frame.error()));
    if (wantsReply) {
      failCall(proxy, IpcError(IpcErrorCode::MessageRefused, reasonText(frame.error())));
    }
    return std::nullopt;
  }

  if (wantsReply) {
    std::lock_guard lock(mutex_);
    if (state_ == State::Closed) {
      failCall(proxy,
               IpcError(IpcErrorCode::ConnectionInvalid, "the " + description() + " is closed"));
      return std::nullopt;
    }
    // Registered before sending: the reply may come back before send() returns.
    pendingReplies_.emplace(*request.reply, PendingReply{proxy, std::move(replyHandler),
                                                         request.op, std::move(interface)});
  }
  stream_->send(std::move(*frame));
  return request.reply;
}

void IpcConnection::sendRequestAndReadReply(
    const std::shared_ptr<IpcRemoteProxy::State>& proxy,
    std::string selector,
    Value::Array arguments,
    IpcRemoteProxy::ReplyHandler replyHandler,
    std::optional<std::chrono::steady_clock::time_point> deadline) {
  // Taken before sending, so that no loop thread can read the reply first: the caller would
  // then wait in poll() for a reply that has come already.
  const bool reading = stream_->takeReadSide();
  if (!reading) {
    readByLoop();  // someone else reads or delivers: the loop must read this reply
  }
  const std::optional<std::uint64_t> id =
      sendRequest(proxy, std::move(selector), std::move(arguments), std::move(replyHandler));
  if (!reading) {
    return;
  }
  if (id) {
    AwaitedReply awaited{this, *id};
    AwaitedReply* const outer = std::exchange(tAwaitedReply, &awaited);
    stream_->readHere([&awaited] { return awaited.read; }, deadline);
    tAwaitedReply = outer;
    if (!awaited.read) {
      readByLoop();  // gave up (deadline, paused input): the reply still has to be read
    }
  }
  stream_->releaseReadSide();
}

void IpcConnection::sendReply(std::uint64_t id,
                              const std::string& selector,
                              const std::shared_ptr<const IpcInterface>& interface,
                              Value::Array values) {
  if (!isValid()) {
    return;
  }
  Reply reply{id, std::move(values)};
  Result<std::vector<std::uint8_t>> frame;
  if (auto fits = interface->checkReply(selector, reply.values); !fits) {
    frame = failure(fits.error());
  } else {
    frame = frameOf(encodeReply(reply));
  }
  if (!frame) {
    // The peer would refuse it, and its request would otherwise wait for ever: close, so its
    // error handler tells it.
    close(IpcError(IpcErrorCode::MessageRefused, reasonText(frame.error())), Cause::Local,
          description() + ": cannot send the reply to " + selector + ", closing: " +
              reasonText(frame.error()));
    return;
  }
  stream_->send(std::move(*frame));
}

// ---- identity ----

const std::optional<AuditToken>& IpcConnection::auditToken() const {
  if (role_ == Role::Adopted) {
    std::call_once(tokenOnce_, [this] {
      const int fd = stream_->fd();
      if (fd >= 0) {
        auditToken_ = AuditToken::fromSocket(fd);
      }
      tokenRead_.store(true, std::memory_order_release);
    });
  }
  return auditToken_;
}

pid_t IpcConnection::processIdentifier() const {
  const auto& token = auditToken();
  return token ? token->pid() : 0;
}

Value IpcConnection::valueForEntitlement(std::string_view key) const {
  const auto& token = auditToken();
  if (!token) {
    return Value();
  }
  std::shared_ptr<const IpcIdentityResolver> resolver;
  {
    std::lock_guard lock(mutex_);
    resolver = identityResolver_;
  }
  if (!resolver) {
    resolver = IpcIdentityResolver::defaultResolver();
  }
  if (resolver->checksLiveness()) {
    return resolver->valueForEntitlement(*token, key);
  }
  if (!token->isAlive()) {
    return Value();
  }
  Value value = resolver->valueForEntitlement(*token, key);
  // The answer is about whoever held the pid while it was read; only a process still alive
  // proves that was the peer.
  if (!token->isAlive()) {
    return Value();
  }
  return value;
}

}  // namespace daskel::platform
