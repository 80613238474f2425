// DKDaemonClient: the typed client of the daemon's service "com.orvane.Daskel" for
// applications. One asynchronous member per operation of the client protocol DKDaemon, named
// after its selector, taking the operation's arguments and a typed reply block; and a
// blocking "...Sync" wrapper of each that returns the reply as a result.
//
// Reply blocks receive the protocol's reply values in the protocol's order: the error comes
// first in extendSandbox..., providePlaceholder..., startProviding..., stopProviding... and
// providers..., and last in bookmarkableString... and documentURL.... Any value may be nil
// (nullopt, or a null ErrorPtr).
//
// An empty reply block is allowed; the outcome is then dropped.
//
// When no reply can come (the connection closed or was refused, see DaskelClient), the reply
// block still runs exactly once, with the IPC error (domain com.orvane.ipc) in its error
// place and every other value nil. A blocking wrapper returns that error in its result, or,
// when its optional timeout passes first, a TimedOut error of kDaskelClientErrorDomain that
// says which operation timed out after how long.
//
// Ownership: owns its DaskelClient (and so the connection); destroying it closes the
// connection, and outstanding calls get ConnectionInvalid.
//
// THREADING NOTES: every member may be called from any thread. Reply blocks run on the
// connection's serial queue (queue()); a blocking wrapper called there fails at once with
// WouldDeadlock.
//
// Failure: connect() returns the IPC error of the failed connect; when the daemon is not
// running it says "service com.orvane.Daskel is not running (<socket path>: <errno text>)".
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "client/DaskelClient.h"
#include "platform/url/Url.h"
#include "platform/value/Error.h"
#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel {

class DKDaemonClient {
 public:
  using ErrorPtr = platform::ErrorPtr;
  using Url = platform::Url;
  using Data = platform::Value::Data;
  using Dictionary = platform::Value::Dictionary;
  using Timeout = DaskelClient::Timeout;

  // Reply blocks.
  using ErrorReply = std::function<void(ErrorPtr error)>;
  using SandboxExtensionReply = std::function<void(ErrorPtr error,
                                                   std::optional<Data> token,
                                                   std::optional<Url> placeholderURL,
                                                   std::optional<Data> placeholderToken)>;
  using ProvidersReply =
      std::function<void(ErrorPtr error, std::optional<Dictionary> providerInfo)>;
  using BookmarkableStringReply =
      std::function<void(std::optional<std::string> bookmarkableString, ErrorPtr error)>;
  using DocumentURLReply = std::function<void(std::optional<Url> documentURL,
                                              std::optional<Data> token,
                                              std::optional<Url> placeholderURL,
                                              std::optional<Data> placeholderToken,
                                              ErrorPtr error)>;

  // Results of the blocking wrappers, fields in the order of the reply's values.
  struct SandboxExtension {
    ErrorPtr error;
    std::optional<Data> token;
    std::optional<Url> placeholderURL;
    std::optional<Data> placeholderToken;
  };
  struct Providers {
    ErrorPtr error;
    std::optional<Dictionary> providerInfo;
  };
  struct BookmarkableString {
    std::optional<std::string> bookmarkableString;
    ErrorPtr error;
  };
  struct DocumentURL {
    std::optional<Url> documentURL;
    std::optional<Data> token;
    std::optional<Url> placeholderURL;
    std::optional<Data> placeholderToken;
    ErrorPtr error;
  };

  // Connects to the daemon's service (in the runtime directory).
  static platform::Result<std::unique_ptr<DKDaemonClient>> connect();
  // Connects to a service of another name that serves DKDaemon.
  static platform::Result<std::unique_ptr<DKDaemonClient>> connectToService(
      const std::string& serviceName);

  DKDaemonClient(const DKDaemonClient&) = delete;
  DKDaemonClient& operator=(const DKDaemonClient&) = delete;

  // wakeUpCompletion: the reply has no values; the block hears a null error, or the IPC
  // error when no reply can come.
  void wakeUpCompletion(ErrorReply reply);
  void extendSandboxForFileURL(const Url& url,
                               const std::string& providerID,
                               const std::string& consumerID,
                               SandboxExtensionReply reply);
  void providePlaceholderForItemAtURL(const Url& url,
                                      const std::string& providerID,
                                      const std::string& consumerID,
                                      ErrorReply reply);
  void startProvidingItemAtURL(const Url& url,
                               const std::string& providerID,
                               const std::string& consumerID,
                               ErrorReply reply);
  void stopProvidingItemAtURL(const Url& url,
                              const std::string& providerID,
                              const std::string& consumerID,
                              ErrorReply reply);
  void providersCompletionHandler(ProvidersReply reply);
  void bookmarkableStringFromDocumentURL(const Url& documentURL, BookmarkableStringReply reply);
  void documentURLFromBookmarkableString(const std::string& bookmarkableString,
                                         DocumentURLReply reply);

  // Blocking wrappers. Those of error-only operations return the error (null on success).
  ErrorPtr wakeUpSync(Timeout timeout = std::nullopt);
  SandboxExtension extendSandboxForFileURLSync(const Url& url,
                                               const std::string& providerID,
                                               const std::string& consumerID,
                                               Timeout timeout = std::nullopt);
  ErrorPtr providePlaceholderForItemAtURLSync(const Url& url,
                                              const std::string& providerID,
                                              const std::string& consumerID,
                                              Timeout timeout = std::nullopt);
  ErrorPtr startProvidingItemAtURLSync(const Url& url,
                                       const std::string& providerID,
                                       const std::string& consumerID,
                                       Timeout timeout = std::nullopt);
  ErrorPtr stopProvidingItemAtURLSync(const Url& url,
                                      const std::string& providerID,
                                      const std::string& consumerID,
                                      Timeout timeout = std::nullopt);
  Providers providersCompletionHandlerSync(Timeout timeout = std::nullopt);
  BookmarkableString bookmarkableStringFromDocumentURLSync(const Url& documentURL,
                                                           Timeout timeout = std::nullopt);
  DocumentURL documentURLFromBookmarkableStringSync(const std::string& bookmarkableString,
                                                    Timeout timeout = std::nullopt);

  void setInvalidationHandler(std::function<void(ErrorPtr error)> handler) {
    client_->setInvalidationHandler(std::move(handler));
  }
  void invalidate() { client_->invalidate(); }
  bool isValid() const { return client_->isValid(); }
  const std::shared_ptr<platform::DispatchQueue>& queue() const { return client_->queue(); }
  DaskelClient& client() { return *client_; }

 private:
  explicit DKDaemonClient(std::unique_ptr<DaskelClient> client) : client_(std::move(client)) {}

  const std::unique_ptr<DaskelClient> client_;
};

}  // namespace daskel
