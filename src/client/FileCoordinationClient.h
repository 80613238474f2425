// FileCoordinationClient: the typed client of the file-coordination service
// "com.orvane.FileCoordination", for any program that wants to read an item a provider may
// have to fetch first, or to say that it has written one.
//
//   auto client = FileCoordinationClient::connect();
//   if (!client) { report(client.error()); }            // the service is not running
//   if (ErrorPtr error = (*client)->coordinateReadingItemAtURLSync(url, 10s)) { ... }
//   // the item is present now (or no provider owns it): open and read it
//
// One asynchronous member per operation, named after its selector, and a blocking "...Sync"
// wrapper of each with an optional timeout.
// - coordinateReadingItemAtURL: the reply block hears nil once the owning provider has made
//   the item present (or at once when no provider owns the URL), or the provider's error.
// - didFinishWritingItemAtURL: the reply has no values; the block hears nil once the service
//   has handed the notice to the owning provider (or found none).
// When no reply can come (the connection closed or was refused, see DaskelClient) the block
// still runs exactly once, with the IPC error (domain com.orvane.ipc). A blocking wrapper
// returns that error, or, when its timeout passes first, a TimedOut error of
// kDaskelClientErrorDomain naming the operation. An empty reply block is allowed.
//
// Ownership: owns its DaskelClient (and so the connection); destroying it closes the
// connection, and outstanding calls get ConnectionInvalid.
// THREADING NOTES: every member may be called from any thread. Reply blocks run on the
// connection's serial queue (queue()); a blocking wrapper called there fails at once with
// WouldDeadlock.
// Failure: connect() returns the IPC error of the failed connect; when the service is not
// running it says "service com.orvane.FileCoordination is not running (<socket path>: <errno
// text>)".
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "client/DaskelClient.h"
#include "platform/url/Url.h"
#include "platform/value/Error.h"
#include "platform/value/Result.h"

namespace daskel {

class FileCoordinationClient {
 public:
  using ErrorPtr = platform::ErrorPtr;
  using Url = platform::Url;
  using Timeout = DaskelClient::Timeout;
  using ErrorReply = std::function<void(ErrorPtr error)>;

  // Connects to the service in the runtime directory.
  static platform::Result<std::unique_ptr<FileCoordinationClient>> connect();
  // Connects to a service of another name that serves the same protocol.
  static platform::Result<std::unique_ptr<FileCoordinationClient>> connectToService(
      const std::string& serviceName);

  FileCoordinationClient(const FileCoordinationClient&) = delete;
  FileCoordinationClient& operator=(const FileCoordinationClient&) = delete;

  void coordinateReadingItemAtURL(const Url& url, ErrorReply reply);
  void didFinishWritingItemAtURL(const Url& url, ErrorReply reply);

  // Blocking wrappers: null on success.
  ErrorPtr coordinateReadingItemAtURLSync(const Url& url, Timeout timeout = std::nullopt);
  ErrorPtr didFinishWritingItemAtURLSync(const Url& url, Timeout timeout = std::nullopt);

  void invalidate() { client_->invalidate(); }
  bool isValid() const { return client_->isValid(); }
  const std::shared_ptr<platform::DispatchQueue>& queue() const { return client_->queue(); }
  DaskelClient& client() { return *client_; }

 private:
  explicit FileCoordinationClient(std::unique_ptr<DaskelClient> client)
      : client_(std::move(client)) {}

  const std::unique_ptr<DaskelClient> client_;
};

}  // namespace daskel
