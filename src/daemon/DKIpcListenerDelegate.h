// DKIpcListenerDelegate: configures every connection the daemon's listener accepts. Each
// connection exports the client protocol DKDaemon and gets a servicer of its own, which
// refers back to the server and to the connection weakly; the connection owns the servicer,
// so closing the connection frees it. No check is made here: who may do what is decided per
// request by the servicer.
//
// Ownership: the server holds the delegate; the delegate holds the server weakly.
// THREADING NOTES: shouldAcceptNewConnection() runs on the listener's thread, possibly for
// several connections at once; it keeps no state of its own.
// Failure: none; every connection is accepted.
#pragma once

#include <memory>

#include "platform/ipc/IpcListenerDelegate.h"

namespace daskel {

class DKServer;

class DKIpcListenerDelegate final : public platform::IpcListenerDelegate {
 public:
  std::shared_ptr<DKServer> server() const { return server_.lock(); }
  void setServer(std::weak_ptr<DKServer> server) { server_ = std::move(server); }

  bool shouldAcceptNewConnection(std::shared_ptr<platform::IpcConnection> connection) override;

 private:
  std::weak_ptr<DKServer> server_;
};

}  // namespace daskel
