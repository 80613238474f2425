// IpcListener: the listening end of a named service. Creating it takes the name at once
// (see IpcServiceSocket: bound at <runtime dir>/<name>, or inherited under socket
// activation), so a second instance fails right away; connecting clients wait in the backlog
// until resume().
//
// After resume() each accepted connection gets its peer's identity from the kernel
// (SO_PEERCRED, SO_PEERPIDFD), then goes to the delegate's shouldAcceptNewConnection on the
// listener's queue. A connection the delegate refuses, or that arrives while there is no
// delegate, is closed.
//
// Ownership: owned by its creator through shared_ptr; the delegate is held weakly. The last
// owner going away invalidates the listener: it stops accepting, closes its socket and
// removes the socket file it created (an inherited socket's file belongs to systemd).
// Accepted connections live on independently.
//
// THREADING NOTES: every member may be called from any thread. Accepting runs on the
// IoLoop thread; the delegate runs on the listener's serial queue.
// Failure: create() logs one error line and returns an IpcError saying what was wrong (the
// service name, the path, errno text, or that another instance is running).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/ipc/IoLoop.h"
#include "platform/ipc/IpcIdentityResolver.h"
#include "platform/ipc/IpcListenerDelegate.h"
#include "platform/ipc/IpcServiceSocket.h"
#include "platform/value/Result.h"

namespace daskel::platform {

class IpcListener : public std::enable_shared_from_this<IpcListener> {
 public:
  static Result<std::shared_ptr<IpcListener>> create(const std::string& serviceName);

  ~IpcListener();
  IpcListener(const IpcListener&) = delete;
  IpcListener& operator=(const IpcListener&) = delete;

  const std::string& serviceName() const { return serviceName_; }
  // The socket's path ("" for an inherited socket without one).
  const std::string& socketPath() const { return socketPath_; }
  bool isSocketActivated() const { return socketActivated_; }

  void setDelegate(std::weak_ptr<IpcListenerDelegate> delegate);
  // Given to every connection accepted from now on (else they use the process default).
  void setIdentityResolver(std::shared_ptr<const IpcIdentityResolver> resolver);

  // Starts accepting. Idempotent.
  void resume();
  // Stops accepting and closes the socket. Idempotent.
  void invalidate();

 private:
  IpcListener(std::string serviceName, IpcServiceSocket socket);

  void handleReadable();
  void offer(std::shared_ptr<IpcConnection> connection);
  // Registers the socket with the loop.
  void watchLocked();

  const std::string serviceName_;
  const std::string socketPath_;
  const bool socketActivated_;
  const std::shared_ptr<DispatchQueue> queue_;

  mutable std::mutex mutex_;
  IpcServiceSocket socket_;
  bool resumed_ = false;
  bool invalidated_ = false;
  std::optional<IoLoop::RegistrationId> registration_;
  std::weak_ptr<IpcListenerDelegate> delegate_;
  std::shared_ptr<const IpcIdentityResolver> identityResolver_;
};

}  // namespace daskel::platform
