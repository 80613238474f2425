// IpcConnection: one connection between two processes, carrying requests and replies of the
// wire protocol over a Unix-domain stream socket.
//
// Where connections come from:
// - connectToService(name): the client side, connected to <runtime dir>/<name>;
// - an IpcListener: the server side, handed to the listener's delegate;
// - adoptSocket(fd): an already connected socket (one end of a socketpair, say).
//
// Configure, then resume():
// - setExportedInterface + setExportedObject: what the peer may call on this side. Every
//   incoming request is checked against the exported interface before it reaches the object;
// - setRemoteInterface + remoteObjectProxyWithErrorHandler: what this side may call on the
//   peer. Replies are checked against the remote interface's reply classes;
// - setInterruptionHandler: runs when the peer closed the connection or died;
//   setInvalidationHandler: runs once whenever the connection closes, for any reason, after
//   the proxies' error handlers and the interruption handler. Set them before resume(): a
//   handler set once the connection has closed never runs.
// resume() starts reading: requests and replies are delivered on the connection's own serial
// queue, in the order the peer sent them, while other connections run concurrently.
// Requests may be sent before resume(); their replies are read after it.
//
// Refusal: a message that cannot be framed or decoded, names an operation the exported
// interface lacks, has the wrong number of values or a class the interface does not allow,
// carries a reply id when the operation takes no reply block or none when it takes one, or
// answers a reply id nobody waits for, is refused: one error line naming the peer and the
// reason, then the connection closes. Nothing in a refused message reaches the exported
// object or a reply handler. A peer that stops in mid-frame is refused the same way.
//
// Closing: invalidate() (idempotent), the peer closing or dying, or a refusal close the
// socket at once; then, on the connection's queue, each proxy with replies outstanding hears
// once through its error handler (see IpcRemoteProxy), and the connection's handlers run.
// Outstanding reply handlers are dropped uncalled, the exported object is released. A close
// with nobody to tell (no reply outstanding, no handler to run) and no last owner of an
// exported object to release skips the queue altogether.
//
// Ownership: after resume() the connection keeps itself alive until it closes, whether or
// not anybody else holds it (the daemon keeps no list of its connections); a connection
// nobody holds before resume() is closed by its destructor. The connection owns its exported
// object; reply blocks and the socket's loop registration refer to it weakly.
//
// Identity: the peer's AuditToken is taken from the kernel when the socket is accepted or
// connected. valueForEntitlement() asks the identity resolver on every call (see
// IpcIdentityResolver); a peer that has exited has no entitlements.
//
// THREADING NOTES: every member may be called from any thread. Exported-object calls, reply
// and error handlers and the interruption/invalidation handlers run on queue(), one at a time
// (queue()->isCurrent() holds in them), in the order the peer sent the messages.
// How a message gets there: an IoLoop thread reads it and, when queue() is idle, runs it at
// once, on that loop thread, as queue()'s turn (no thread switch); when queue() is busy
// (a message before it still runs, or other blocks were submitted to it), the message waits
// in queue() behind them and a pool worker runs it. Handlers may block: the IoLoop then lets
// another thread serve the other connections, and only this connection's later messages wait.
// Requests and replies are written by the thread that sends them, straight to the socket
// while it takes them; only what the socket does not take waits for the loop.
// A synchronous caller (IpcRemoteProxy::callAndReadReply) reads the socket on its own thread
// while it waits, in place of the loop (see IpcStream::takeReadSide): its reply then runs as
// queue()'s turn on that thread when the queue is idle, so the reply wakes the caller and no
// one else. Every other message it reads goes to queue() with async, in its place in the
// order, exactly as if the loop had read it (it never runs on the caller's thread).
//
// Failure: factory functions return Result errors in the IPC domain (ConnectionInvalid, with
// the path and errno text); everything after that is reported through error handlers and
// error lines.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/identity/AuditToken.h"
#include "platform/ipc/IpcExportedObject.h"
#include "platform/ipc/IpcIdentityResolver.h"
#include "platform/ipc/IpcInterface.h"
#include "platform/ipc/IpcRemoteProxy.h"
#include "platform/ipc/IpcStream.h"
#include "platform/ipc/Message.h"
#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel::platform {

class IpcConnection : public std::enable_shared_from_this<IpcConnection> {
 public:
  using EventHandler = std::function<void()>;

  // Connects to the named service at <runtime dir>/<serviceName>. Fails with "service <name>
  // is not running (<path>: <errno text>)" when nobody listens there.
  static Result<std::shared_ptr<IpcConnection>> connectToService(const std::string& serviceName);

  // Wraps the connected Unix stream socket `fd` (owned from now on, closed on failure too).
  // `name` says what the connection is for, in log lines.
  // `alreadyBlockingCloseOnExec`: see IpcStream::adopt.
  static Result<std::shared_ptr<IpcConnection>> adoptSocket(int fd,
                                                            std::string name,
                                                            bool alreadyBlockingCloseOnExec = false);

  ~IpcConnection();
  IpcConnection(const IpcConnection&) = delete;
  IpcConnection& operator=(const IpcConnection&) = delete;

  // The service name (or the name given to adoptSocket).
  const std::string& serviceName() const { return name_; }
  // "connection from pid 12 uid 1000 gid 1000 on com.orvane.Daskel"; what "%@" prints.
  std::string description() const;

  void setExportedInterface(IpcInterface interface);
  // The same for an interface shared by many connections (one request socket each, say),
  // which is then not copied per connection.
  void setExportedInterface(std::shared_ptr<const IpcInterface> interface);
  void setExportedObject(std::shared_ptr<IpcExportedObject> object);
  void setRemoteInterface(IpcInterface interface);
  void setRemoteInterface(std::shared_ptr<const IpcInterface> interface);

  // A proxy of the peer's exported object. The error handler may be empty.
  std::shared_ptr<IpcRemoteProxy> remoteObjectProxyWithErrorHandler(
      IpcRemoteProxy::ErrorHandler errorHandler);
  std::shared_ptr<IpcRemoteProxy> remoteObjectProxy() {
    return remoteObjectProxyWithErrorHandler(nullptr);
  }

  void setInterruptionHandler(EventHandler handler);
  void setInvalidationHandler(EventHandler handler);

  // Overrides the process-wide default resolver for this connection.
  void setIdentityResolver(std::shared_ptr<const IpcIdentityResolver> resolver);

  // Whether the peer has most likely sent its first message by the time of resume().
  enum class PeerInput {
    NotYet,
    // The peer sent it together with the socket (a request socket handed over right before
    // its request): resumed on a loop thread, the socket is read right after the calling
    // handler, ahead of other ready sockets, instead of when the kernel reports it.
    Sent,
  };
  // Starts delivery. Idempotent; does nothing on a closed connection.
  void resume(PeerInput input = PeerInput::NotYet);
  // Closes the connection. Idempotent.
  void invalidate();
  // False once closed.
  bool isValid() const;
  // Why it closed (an IpcError), or null while it is open.
  ErrorPtr closeError() const;

  // The peer's pid as the kernel reported it at connect/accept time, 0 without one.
  pid_t processIdentifier() const;
  // The peer's identity, fixed at connect/accept time; nullopt when the kernel gave none.
  // A connection on an adopted socket (adoptSocket: a request socket between the daemon and
  // its own extension) reads its peer when first asked, as nothing asks on most of them.
  const std::optional<AuditToken>& auditToken() const;
  // The peer's entitlement `key`, looked up now; null when it has none or has exited.
  Value valueForEntitlement(std::string_view key) const;

  // The serial queue on which this connection delivers.
  const std::shared_ptr<DispatchQueue>& queue() const { return queue_; }

 private:
  friend class IpcListener;
  friend class IpcRemoteProxy;
  friend class ReplyBlock;

  enum class Role { Client, Server, Adopted };
  enum class State { Initial, Resumed, Closed };
  enum class Cause { Local, PeerClosed, Refused };

  struct PendingReply {
    std::shared_ptr<IpcRemoteProxy::State> proxy;
    IpcRemoteProxy::ReplyHandler handler;
    std::string selector;
    std::shared_ptr<const IpcInterface> remoteInterface;
  };

  // Server side, for IpcListener: takes the peer's identity from the socket.
  static Result<std::shared_ptr<IpcConnection>> accepted(
      std::shared_ptr<IpcStream> stream,
      std::string serviceName,
      std::shared_ptr<const IpcIdentityResolver> resolver);
  static Result<std::shared_ptr<IpcConnection>> make(int fd,
                                                     Role role,
                                                     std::string name,
                                                     bool alreadyBlockingCloseOnExec = false);

  IpcConnection(std::shared_ptr<IpcStream> stream,
                Role role,
                std::string name,
                std::optional<AuditToken> auditToken);

  // On a loop thread, one call at a time: runs or queues stream events on the queue.
  void streamDidReceiveFrame(std::vector<std::uint8_t> payload);
  void streamDidEnd(IpcStream::End end, ErrorPtr reason);

  // On the queue.
  void queueHandleMessage(Result<Message> message);
  void queueHandleRequest(Request request);
  void queueHandleReply(Reply reply);
  void refuse(const ErrorPtr& reason);

  // From any thread. `logLine`, when given, is written as one error line before the socket
  // closes.
  void close(ErrorPtr error, Cause cause, std::optional<std::string> logLine = std::nullopt);

  // For proxies and reply blocks. Returns the reply id of a request that went out awaiting a
  // reply; nullopt when none (then the proxy's error handler hears, if there is a reply
  // handler).
  std::optional<std::uint64_t> sendRequest(const std::shared_ptr<IpcRemoteProxy::State>& proxy,
                                           std::string selector,
                                           Value::Array arguments,
                                           IpcRemoteProxy::ReplyHandler replyHandler);
  // sendRequest with a reply handler, then reads on the calling thread until the reply has
  // been read (see IpcRemoteProxy::callAndReadReply).
  void sendRequestAndReadReply(const std::shared_ptr<IpcRemoteProxy::State>& proxy,
                               std::string selector,
                               Value::Array arguments,
                               IpcRemoteProxy::ReplyHandler replyHandler,
                               std::optional<std::chrono::steady_clock::time_point> deadline);
  void sendReply(std::uint64_t id,
                 const std::string& selector,
                 const std::shared_ptr<const IpcInterface>& interface,
                 Value::Array values);
  void failCall(const std::shared_ptr<IpcRemoteProxy::State>& proxy, ErrorPtr error);
  // From now on the loop reads this connection's input (see loopReads_). Idempotent.
  void readByLoop();
  // description(), except that an adopted socket whose peer nobody has asked about yet is
  // described by its name alone: for the errors and lines of an ordinary close.
  std::string routineDescription() const;

  const Role role_;
  const std::string name_;
  // Fixed at connect or accept time; for an adopted socket, when auditToken() is first
  // called (tokenOnce_).
  mutable std::optional<AuditToken> auditToken_;
  mutable std::once_flag tokenOnce_;
  // Set once an adopted socket's token has been read, so routineDescription() can name the
  // peer when it is known without asking the kernel (four system calls) just to word the
  // error of an ordinary close.
  mutable std::atomic<bool> tokenRead_{false};
  const std::shared_ptr<IpcStream> stream_;
  const std::shared_ptr<DispatchQueue> queue_;

  mutable std::mutex mutex_;
  State state_ = State::Initial;
  ErrorPtr closeError_;
  std::shared_ptr<const IpcInterface> exportedInterface_;
  std::shared_ptr<IpcExportedObject> exportedObject_;
  std::shared_ptr<const IpcInterface> remoteInterface_;
  EventHandler interruptionHandler_;
  EventHandler invalidationHandler_;
  std::shared_ptr<const IpcIdentityResolver> identityResolver_;
  std::uint64_t nextReplyId_ = 1;
  std::map<std::uint64_t, PendingReply> pendingReplies_;
  // Whether the loop reads the input. A client connection starts without: as long as it only
  // makes blocking calls, each caller reads its own reply, and the loop staying away spares
  // two epoll_ctl calls per call. An exported object or an asynchronous call turns it on for
  // good (and a blocking call that could not read its reply itself). A hang-up is seen either
  // way.
  std::atomic<bool> loopReads_;
};

}  // namespace daskel::platform
