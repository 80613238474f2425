// DKServicerServer: what a DKIpcServicer asks of the server that made it. DKServer adopts it;
// tests stand in with a server of their own.
//
// Ownership: servicers hold their server weakly and read it at the time of use; a server
// that is gone counts as one without a store.
// THREADING NOTES: accessControlStore() may be called from any thread.
#pragma once

#include <memory>

namespace daskel {

class DKAccessControlStore;

class DKServicerServer {
 public:
  virtual ~DKServicerServer() = default;

  // The server's access-control store (a weak field of the server), or null when it is gone.
  virtual std::shared_ptr<DKAccessControlStore> accessControlStore() const = 0;
};

}  // namespace daskel
