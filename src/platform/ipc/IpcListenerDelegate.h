// IpcListenerDelegate: decides about each connection an IpcListener accepts. The delegate
// configures the connection (exported interface and object, handlers) and resumes it, then
// returns true; returning false has the listener close it.
//
// Ownership: the listener holds its delegate weakly; its owner (the daemon's server) keeps it.
//
// THREADING NOTES: called on the listener's serial queue, one connection at a time.
#pragma once

#include <memory>

namespace daskel::platform {

class IpcConnection;

class IpcListenerDelegate {
 public:
  virtual ~IpcListenerDelegate() = default;

  virtual bool shouldAcceptNewConnection(std::shared_ptr<IpcConnection> connection) = 0;
};

}  // namespace daskel::platform
