// DKIpcServicer: serves the client protocol DKDaemon on one connection. The listener
// delegate makes one per accepted connection and exports it there; handleRequest() turns each
// request into a call of the typed member of the same selector.
//
// Every operation but wakeUpCompletion: and the two bookmarkable-string operations is gated
// by the caller's entitlements (clientHasOneOfAllowedEntitlements): extendSandbox... asks for
// "com.orvane.daskel.acl-write", the item operations and the provider list for
// "com.orvane.daskel.acl-read" or "com.orvane.daskel.acl-write". documentURLFromBookmarkable-
// String: is guarded by the access-control list instead, for the caller's bundle identifier.
//
// Replies the servicer decides itself (refusals, missing arguments, unknown providers, the
// provider list) are submitted asynchronously to the context's reply queue (the global
// queue); replies that follow a provider's answer are made on the thread of that answer.
// Completion handlers are optional (an empty std::function is nil) and are called at most
// once; a few paths, as documented per operation, never call them.
//
// Ownership: the connection owns its servicer (as its exported object). The servicer holds
// its server and its connection weakly, reading them anew at every use, and shares the
// context. Blocks waiting for a provider keep the servicer alive, never the connection.
// THREADING NOTES: every member may be called from any thread; requests of one connection
// arrive on its serial queue, and several may be in progress at once. The servicer keeps no
// state between requests besides its two weak references (guarded by a mutex).
// Failure: through completion handlers only; the gate logs its refusals at error level.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcExportedObject.h"
#include "platform/url/Url.h"
#include "platform/value/Error.h"
#include "platform/value/Value.h"
#include "service/DKServicerContext.h"
#include "service/DKServicerServer.h"

namespace daskel {

inline constexpr char kDKReadEntitlement[] = "com.orvane.daskel.acl-read";
inline constexpr char kDKWriteEntitlement[] = "com.orvane.daskel.acl-write";

class DKIpcServicer final : public platform::IpcExportedObject,
                            public std::enable_shared_from_this<DKIpcServicer> {
 public:
  using Data = platform::Value::Data;
  using ErrorPtr = platform::ErrorPtr;
  using Url = platform::Url;

  using WakeUpHandler = std::function<void()>;
  // (error, token for the URL, placeholder URL, token for the placeholder).
  using ExtendSandboxHandler = std::function<void(const ErrorPtr& error,
                                                  const std::optional<Data>& token,
                                                  const std::optional<Url>& placeholderURL,
                                                  const std::optional<Data>& placeholderToken)>;
  using ErrorHandler = std::function<void(const ErrorPtr& error)>;
  // (error, provider info dictionary); exactly one is present.
  using ProvidersHandler =
      std::function<void(const ErrorPtr& error, const platform::Value& providersInfo)>;
  // (bookmarkable string, error): the error stands last.
  using BookmarkableStringHandler =
      std::function<void(const std::optional<std::string>& string, const ErrorPtr& error)>;
  // (document URL, its token, placeholder URL, its token, error).
  using DocumentURLHandler = std::function<void(const std::optional<Url>& url,
                                                const std::optional<Data>& token,
                                                const std::optional<Url>& placeholderURL,
                                                const std::optional<Data>& placeholderToken,
                                                const ErrorPtr& error)>;

  // `context` must be complete (see DKServicerContext).
  static std::shared_ptr<DKIpcServicer> create(std::shared_ptr<const DKServicerContext> context);

  DKIpcServicer(const DKIpcServicer&) = delete;
  DKIpcServicer& operator=(const DKIpcServicer&) = delete;

  // Weak back references, read at the time of use.
  std::shared_ptr<DKServicerServer> server() const;
  void setServer(std::weak_ptr<DKServicerServer> server);
  std::shared_ptr<platform::IpcConnection> connection() const;
  void setConnection(std::weak_ptr<platform::IpcConnection> connection);

  // True if the connection's process holds one of `entitlements` (tried in order, each read
  // anew) as a true number. Otherwise logs "Rejecting request from PID %d because it does
  // not have any of these entitlements: %@" (PID 0 when the connection is gone).
  bool clientHasOneOfAllowedEntitlements(const std::vector<std::string>& entitlements) const;

  // DKDaemon, in the protocol's order.
  void wakeUpCompletion(WakeUpHandler reply);
  void extendSandboxForFileURL(const std::optional<Url>& url,
                               const std::optional<std::string>& providerID,
                               const std::optional<std::string>& consumerID,
                               ExtendSandboxHandler completionHandler);
  void providePlaceholderForItemAtURL(const std::optional<Url>& url,
                                      const std::optional<std::string>& providerID,
                                      const std::optional<std::string>& consumerID,
                                      ErrorHandler completionHandler);
  void startProvidingItemAtURL(const std::optional<Url>& url,
                               const std::optional<std::string>& providerID,
                               const std::optional<std::string>& consumerID,
                               ErrorHandler completionHandler);
  void stopProvidingItemAtURL(const std::optional<Url>& url,
                              const std::optional<std::string>& providerID,
                              const std::optional<std::string>& consumerID,
                              ErrorHandler completionHandler);
  void providersCompletionHandler(ProvidersHandler completionHandler);
  // Never answers when the string names a provider that no longer exists.
  void bookmarkableStringFromDocumentURL(const std::optional<Url>& url,
                                         BookmarkableStringHandler completion);
  void documentURLFromBookmarkableString(const std::optional<std::string>& bookmarkableString,
                                         DocumentURLHandler completion);

  // IpcExportedObject: decodes the arguments (the interface has checked their classes) and
  // calls the member of `selector`.
  void handleRequest(const std::string& selector,
                     platform::Value::Array arguments,
                     std::optional<platform::ReplyBlock> reply) override;

 private:
  explicit DKIpcServicer(std::shared_ptr<const DKServicerContext> context);

  // Logs "Serving: %@", runs the gate and, when it refuses, submits `refuse` to the reply
  // queue (if given). True when the request may go on.
  bool passesGate(const char* selector,
                  const std::vector<std::string>& entitlements,
                  std::function<void()> refuse);
  // Submits `block` to the reply queue.
  void replyAsync(std::function<void()> block) const;
  // The server's store, or null when the server or the store is gone.
  std::shared_ptr<DKAccessControlStore> serverAccessControlStore() const;
  // For start and stop providing: the provider that holds `url` and is the one named, or null
  // when the arguments are missing or no such provider exists (refusals that the client sees
  // only as not-found).
  std::shared_ptr<DKExtensionProvider> namedProviderHoldingURL(
      const std::optional<Url>& url,
      const std::optional<std::string>& providerID,
      const std::optional<std::string>& consumerID) const;
  // Asks `provider` for the item's identifier, then runs `forward` if the access-control list
  // lets the provider give that item to the consumer; `handler` gets the look-up's failure
  // (wrapped once more) or not-permitted otherwise.
  using Forward = std::function<void(DKExtensionProvider& provider,
                                     const Url& url,
                                     const ErrorHandler& handler)>;
  void forwardIfGranted(const std::shared_ptr<DKExtensionProvider>& provider,
                        const Url& url,
                        const std::string& providerID,
                        const std::string& consumerID,
                        ErrorHandler handler,
                        Forward forward);

  const std::shared_ptr<const DKServicerContext> context_;
  mutable std::mutex mutex_;
  std::weak_ptr<DKServicerServer> server_;
  std::weak_ptr<platform::IpcConnection> connection_;
};

}  // namespace daskel
