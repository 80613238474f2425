// VendorObject: the object a provider extension exports on every request connection. It
// serves DKVendorProtocol by turning each request into a call of the author's
// ProviderExtension, and the author's completion into the reply.
//
// It also does the SDK's own part of the initial set-up: it creates the storage directory
// (mode 0700, parents too) before the author's performInitialSetup runs, and replies with the
// failure, without calling the author, when it cannot.
//
// Ownership: borrows the provider (not owned; it must outlive every connection the object is
// exported on). One object serves all connections.
// THREADING NOTES: handleRequest runs on the queue of the connection that delivered the
// request; many connections call it at once. The counter of running operations may be read
// and waited for from any thread.
// Failure: through the replies only; a request missing a needed argument is answered with
// SdkError::MissingArgument.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>

#include "platform/ipc/IpcExportedObject.h"
#include "sdk/ProviderExtension.h"

namespace daskel::sdk {

class VendorObject final : public platform::IpcExportedObject {
 public:
  explicit VendorObject(ProviderExtension& provider) : provider_(provider) {}
  VendorObject(const VendorObject&) = delete;
  VendorObject& operator=(const VendorObject&) = delete;

  void handleRequest(const std::string& selector,
                     platform::Value::Array arguments,
                     std::optional<platform::ReplyBlock> reply) override;

  // How many calls of the author's operations have not returned yet (a call that returned
  // with its completion still pending does not count).
  std::size_t runningOperations() const;
  // True once no operation runs, false if some still run at `deadline`.
  bool waitForNoRunningOperations(std::chrono::steady_clock::time_point deadline) const;

 private:
  class RunningScope;

  void performInitialSetup(platform::ReplyBlock reply);

  ProviderExtension& provider_;  // not owned
  mutable std::mutex mutex_;
  mutable std::condition_variable idle_;
  std::size_t running_ = 0;
};

}  // namespace daskel::sdk
