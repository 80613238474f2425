// DKExtensionProvider: the daemon's side of one provider extension. It carries the
// extension's identifier, the extension itself and the directory under which the extension's
// items live (the provided-items URL); it begins extension requests and gets the extension's
// vendor proxy, registers itself with the file coordinator (with retries), forwards the six
// item operations to the extension, and answers the file coordinator's callbacks.
//
// Queues: `memberQueue` ("DKExtensionProvider concurrent member queue for <identifier>") is a
// reader-writer lock over the three member fields: getters read in a sync block, setters
// write in an async barrier block. `operationQueue` ("Operation queue for <identifier>") is
// where the file coordinator calls the provider, and where additions to and removals from the
// coordinator run.
//
// Ownership: shared (std::shared_ptr), made by create(). The provider table of the registry
// owns the providers; blocks in flight (requests, retries) keep theirs alive until they end.
// THREADING NOTES: every public member may be called from any thread, except the member-queue
// getters from a block already running on memberQueue (that would deadlock); inside such
// blocks use the plain memberQueue… accessors, which do no locking of their own.
// Failure: completions and log lines only; nothing is thrown.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/coordination/CoordinationProvider.h"
#include "platform/dispatch/DispatchQueue.h"
#include "platform/dispatch/OperationQueue.h"
#include "platform/extensions/AppExtension.h"
#include "platform/ipc/IpcRemoteProxy.h"
#include "platform/url/Url.h"
#include "platform/value/Value.h"

namespace daskel {

namespace platform {
class FileCoordinator;
class PluginRecord;
}  // namespace platform

class DKExtensionProvider;

// Finds the provider whose provided-items directory holds a URL; the registry is one.
class DKProviderLookup {
 public:
  virtual ~DKProviderLookup() = default;
  // The provider that holds `url`, or null; `outExcluded` is set to true when the URL is one
  // that no provider may hold (a provided-items directory itself).
  virtual std::shared_ptr<DKExtensionProvider> providerForURL(const platform::Url& url,
                                                              bool* outExcluded) = 0;
};

// The platform services a provider reaches. live() is the real set.
struct DKProviderPlatform {
  // The plug-in registry's record for an extension identifier, or null.
  std::function<std::shared_ptr<const platform::PluginRecord>(const std::string& identifier)>
      recordForIdentifier;
  platform::FileCoordinator* fileCoordinator = nullptr;
  // Times the retry delay of registration; the real clock when null.
  platform::Scheduler* scheduler = nullptr;
  // Resolves write notices to the provider that owns the URL; may be null (then every
  // write notice is logged as belonging to no provider).
  DKProviderLookup* providerLookup = nullptr;

  static DKProviderPlatform live(std::shared_ptr<platform::AppExtensionMatching> matching,
                                 DKProviderLookup* providerLookup);
};

class DKExtensionProvider : public platform::CoordinationProvider,
                            public std::enable_shared_from_this<DKExtensionProvider> {
 public:
  using ErrorCompletion = std::function<void(const platform::ErrorPtr& error)>;
  // (error, item identifier): the identifier is passed through as the extension sent it (a
  // string, or null).
  using ItemIDCompletion =
      std::function<void(const platform::ErrorPtr& error, const platform::Value& itemID)>;
  // (error, URL): the URL is passed through as the extension sent it (a URL, or null).
  using URLCompletion =
      std::function<void(const platform::ErrorPtr& error, const platform::Value& url)>;
  using DoneBlock = std::function<void()>;
  // (error, vendor proxy, done block); may run twice, see performExtensionRequest().
  using RequestBlock = std::function<void(const platform::ErrorPtr& error,
                                          const std::shared_ptr<platform::IpcRemoteProxy>& proxy,
                                          const DoneBlock& done)>;

  static constexpr std::int32_t kRegistrationTries = 3;
  static constexpr std::chrono::seconds kRegistrationRetryDelay{2};

  // Never null; `extension` must not be null. Logs one error line and leaves
  // providedItemsURL() empty when the storage directory cannot be deduced from the
  // extension's plug-in record.
  static std::shared_ptr<DKExtensionProvider> initWithExtension(
      std::shared_ptr<platform::AppExtension> extension,
      DKProviderPlatform platform);

  // The initialiser's deduction of the provided-items URL from a plug-in record's Info.plist
  // and group containers: "<container of the OxExtensionDaskelDocumentGroup>/Daskel Storage/",
  // or nullopt after one error line naming `extension`.
  static std::optional<platform::Url> providedItemsURLFromInfo(
      const platform::Value& infoDictionary,
      const std::map<std::string, platform::Url>& groupContainerURLs,
      const platform::AppExtension& extension);

  ~DKExtensionProvider() override;

  // Member-queue properties.
  std::string identifier() const;
  void setIdentifier(std::optional<std::string> identifier);
  std::shared_ptr<platform::AppExtension> extension() const;
  void setExtension(std::shared_ptr<platform::AppExtension> extension);
  std::optional<platform::Url> providedItemsURL() const;
  void setProvidedItemsURL(std::optional<platform::Url> url);

  // Plain accessors: on memberQueue only (or before the provider is shared).
  const std::optional<std::string>& memberQueueIdentifier() const;
  void setMemberQueueIdentifier(std::optional<std::string> identifier);
  const std::shared_ptr<platform::AppExtension>& memberQueueExtension() const;
  void setMemberQueueExtension(std::shared_ptr<platform::AppExtension> extension);
  const std::optional<platform::Url>& memberQueueProvidedItemsURL() const;
  void setMemberQueueProvidedItemsURL(std::optional<platform::Url> url);
  const std::shared_ptr<platform::DispatchQueue>& memberQueue() const;
  const std::shared_ptr<platform::OperationQueue>& operationQueue() const;

  // Extension requests: begins a request and hands `requestBlock` (error, proxy, done). The
  // block runs on the thread that delivered the begin completion or the connection's error;
  // if the connection fails after a message was sent on the proxy, it runs a second time with
  // the connection's error. Ending the request (calling done) is the block's business.
  void performExtensionRequest(RequestBlock requestBlock);
  // The vendor proxy of the open request `requestUuid`, or null when it has no context.
  std::shared_ptr<platform::IpcRemoteProxy> proxyForIdentifier(
      const std::string& requestUuid,
      std::function<void(const platform::ErrorPtr& error)> errorHandler);

  // Registration with the file coordinator: the extension's initial set-up, then addition
  // on the operation queue; up to `tries` tries, kRegistrationRetryDelay apart.
  void registerWithFileCoordinatorRetryCount(std::int32_t tries, ErrorCompletion completion);
  void retryRegisterWithFileCoordinatorRetryCount(std::int32_t tries,
                                                  const platform::ErrorPtr& lastError,
                                                  ErrorCompletion completion);
  void registerWithFileCoordinatorCompletion(ErrorCompletion completion);
  void unregisterFromFileCoordinator();

  // Forwarded item operations; completions run on the thread of the extension's reply (or of
  // the request's failure). Empty completions are allowed.
  void providePlaceholderForItemAtURL(const platform::Url& url, ErrorCompletion completion);
  void startProvidingItemAtURL(const platform::Url& url, ErrorCompletion completion);
  void stopProvidingItemAtURL(const platform::Url& url, ErrorCompletion completion);
  void itemIDForURL(const platform::Url& url, ItemIDCompletion completion);
  void URLForItemID(const std::string& itemID, URLCompletion completion);
  void itemChangedAtURL(const platform::Url& url);

  // CoordinationProvider.
  std::optional<platform::Url> _providedItemsURL() const override;
  std::shared_ptr<platform::OperationQueue> _providedItemsOperationQueue() const override;
  std::string _fileReactorID() const override;
  void _provideItemAtURL(const platform::Url& url, Completion completion) override;
  void _provideItemAtURL(const platform::Url& url,
                         const platform::Value& readerID,
                         Completion completion) override;
  void _writerWithID(const platform::Value& writerID, const platform::Url& url) override;

  // "<DKExtensionProvider identifier>"; what "%@" prints.
  std::string description() const;

 private:
  explicit DKExtensionProvider(DKProviderPlatform platform);

  const DKProviderPlatform platform_;
  std::shared_ptr<platform::OperationQueue> operationQueue_;
  std::shared_ptr<platform::DispatchQueue> memberQueue_;
  std::optional<std::string> memberQueueIdentifier_;
  std::shared_ptr<platform::AppExtension> memberQueueExtension_;
  std::optional<platform::Url> memberQueueProvidedItemsURL_;
};

}  // namespace daskel
