// DrainGuard: for client tests. On destruction it closes a client's connection and waits
// until the connection's queue has run everything it was given, so that no handler runs
// after the test's locals are gone, on a failing path too. Declare it after everything the
// handlers use, so it goes first.
//
// Ownership: holds the connection (not the client). Used on the test's thread.
#pragma once

#include <memory>

#include "client/DaskelClient.h"
#include "platform/ipc/IpcConnection.h"

namespace daskel::testing {

class DrainGuard {
 public:
  explicit DrainGuard(DaskelClient& client) : connection_(client.connection()) {}
  ~DrainGuard() {
    connection_->invalidate();
    // Twice: a close that another thread began may queue its handlers just after the first.
    connection_->queue()->sync([] {});
    connection_->queue()->sync([] {});
  }
  DrainGuard(const DrainGuard&) = delete;
  DrainGuard& operator=(const DrainGuard&) = delete;

 private:
  const std::shared_ptr<platform::IpcConnection> connection_;
};

}  // namespace daskel::testing
