// IpcRemoteProxy: the local stand-in for the object the peer exports. call() sends one
// request of the connection's remote interface; a reply handler, when given, receives the
// values of the peer's reply.
//
// Error handler: runs with an IpcError when a request of this proxy that expects a reply
// cannot get one:
// - once per proxy when the connection closes while replies to it are outstanding
//   (ConnectionInvalid when this side invalidated it, ConnectionInterrupted when the peer
//   closed or died, MessageRefused when this side refused the peer's message);
// - for each call made with a reply handler on a connection that is already closed
//   (ConnectionInvalid);
// - for each call made with a reply handler that cannot be sent as given (MessageRefused: an
//   operation the remote interface lacks, the wrong number of arguments, a class the remote
//   interface does not allow, a value that cannot be encoded); an error line says which.
// A reply handler whose request failed is dropped uncalled. Calls without a reply handler
// report nothing: there is nobody waiting.
//
// Ownership: a proxy holds its connection strongly (the object, not the connection's open
// state). The connection holds the proxy's error handler while requests of the proxy await
// replies.
//
// THREADING NOTES: call() may be used from any thread. Reply and error handlers run on the
// connection's serial queue.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/value/Error.h"
#include "platform/value/Value.h"

namespace daskel::platform {

class IpcConnection;

class IpcRemoteProxy {
 public:
  using ErrorHandler = std::function<void(const ErrorPtr& error)>;
  using ReplyHandler = std::move_only_function<void(Value::Array values)>;

  IpcRemoteProxy(const IpcRemoteProxy&) = delete;
  IpcRemoteProxy& operator=(const IpcRemoteProxy&) = delete;

  // Sends `selector` with `arguments` (without the reply block). With a reply handler, the
  // request carries a reply id and the handler receives the reply's values.
  void call(std::string selector, Value::Array arguments, ReplyHandler replyHandler = nullptr);

  // call() with a reply handler, for a thread that blocks until that handler or the error
  // handler has run (a synchronous call): after sending, the calling thread reads the
  // connection itself while it waits, so the reply wakes it directly. Returns once the reply
  // has been read (when the connection's queue was idle, its handler has run by then, on this
  // thread), when the connection ended or closed, when another thread was reading or
  // delivering the connection's messages (then the loop reads as usual), or at `deadline`.
  // The outcome reaches the handlers exactly as after call(); the caller waits for them as it
  // would after call(). Must not be called on the connection's queue (the reply could never
  // run).
  void callAndReadReply(std::string selector,
                        Value::Array arguments,
                        ReplyHandler replyHandler,
                        std::optional<std::chrono::steady_clock::time_point> deadline);

  const std::shared_ptr<IpcConnection>& connection() const { return connection_; }

 private:
  friend class IpcConnection;
  // What the connection keeps of a proxy while its requests await replies.
  struct State {
    ErrorHandler errorHandler;
  };

  IpcRemoteProxy(std::shared_ptr<IpcConnection> connection, std::shared_ptr<State> state)
      : connection_(std::move(connection)), state_(std::move(state)) {}

  const std::shared_ptr<IpcConnection> connection_;
  const std::shared_ptr<State> state_;
};

}  // namespace daskel::platform
