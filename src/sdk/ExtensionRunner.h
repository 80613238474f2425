// ExtensionRunner: the extension's side of the control socket. serve() sends {"ready": true},
// then, for every {"begin": uuid} with its stream socket, adopts the socket as an
// IpcConnection that exports DKVendorProtocol (one VendorObject for all requests) and expects
// DKHostProtocol, and resumes it; for {"cancel": uuid} it invalidates that request's
// connection. serve() returns when the daemon closes the control socket, after closing every
// request connection still open.
//
// Control packets are read on the process's IPC loop (IoLoop), so the loop thread that
// adopts a request's socket is the one that then reads its first message. Each request's
// connection delivers on its own serial queue, so requests run concurrently and a slow
// operation holds up only its own request.
//
// Ownership: borrows the provider (not owned; it must outlive the runner and every request
// connection). Owns the request connections it opened until they close.
// THREADING NOTES: serve() blocks the calling thread until the control socket closes; call
// it once, from one thread. The other members may be called from any thread.
// Failure: serve() returns an error when the control socket fails (not when it closes);
// refused control packets and request sockets that cannot be adopted are logged and skipped.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/extensions/ExtensionControlChannel.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/value/Result.h"
#include "sdk/ProviderExtension.h"
#include "sdk/VendorObject.h"

namespace daskel::sdk {

class ExtensionRunner {
 public:
  // `provider` must have its context set.
  explicit ExtensionRunner(ProviderExtension& provider);
  ~ExtensionRunner();
  ExtensionRunner(const ExtensionRunner&) = delete;
  ExtensionRunner& operator=(const ExtensionRunner&) = delete;

  platform::Result<void> serve(platform::ExtensionControlChannel& channel);

  // Requests whose connection is open.
  std::size_t openRequestCount() const;
  // True once no author operation is running, false if one still runs at `deadline`.
  bool waitForNoRunningOperations(std::chrono::steady_clock::time_point deadline) const;

 private:
  // What the connections' handlers reach; they hold it weakly.
  struct Requests {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<platform::IpcConnection>> open;
  };

  // What serve() shares with the IPC loop's handler of the control socket.
  struct ControlState {
    std::mutex mutex;
    std::condition_variable finishedCondition;
    // Valid until `finished`: serve() waits for it before it returns.
    platform::ExtensionControlChannel* channel = nullptr;  // not owned
    std::uint64_t registration = 0;  // the IoLoop's, once added
    bool finished = false;
    platform::Result<void> outcome;
  };

  // On a loop thread: handles every packet waiting on the (non-blocking) control socket.
  static void readControlPackets(ControlState& control,
                                 const std::shared_ptr<Requests>& requests,
                                 const std::shared_ptr<VendorObject>& vendor);
  // The fallback when the socket cannot be watched: a blocking read loop on this thread.
  platform::Result<void> serveOnThisThread(platform::ExtensionControlChannel& channel);
  static void handleControlMessage(platform::ControlMessage& message,
                                   const std::shared_ptr<Requests>& requests,
                                   const std::shared_ptr<VendorObject>& vendor);
  static void begin(const std::shared_ptr<Requests>& requests,
                    const std::shared_ptr<VendorObject>& vendor,
                    const std::string& uuid,
                    platform::ScopedFd socket);
  static void cancel(Requests& requests, const std::string& uuid);
  void closeAll();

  const std::shared_ptr<VendorObject> vendor_;
  const std::shared_ptr<Requests> requests_ = std::make_shared<Requests>();
};

}  // namespace daskel::sdk
