#include "provider/DKExtensionProvider.h"

#include <cassert>
#include <utility>

#include "platform/coordination/FileCoordinator.h"
#include "platform/errors/DKErrors.h"
#include "platform/extensions/ExtensionBundle.h"
#include "platform/extensions/PluginRecord.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/log/Log.h"
#include "provider/protocol/DKVendorProtocol.h"

namespace daskel {

using platform::AppExtension;
using platform::DispatchQueue;
using platform::ErrorPtr;
using platform::IpcRemoteProxy;
using platform::OperationQueue;
using platform::Url;
using platform::Value;

namespace {

constexpr char kProvidedItemsDirectoryName[] = "Daskel Storage";

// What "%@" prints for a URL that may be missing.
Value describedURL(const std::optional<Url>& url) {
  return url ? Value(*url) : Value();
}

}  // namespace

DKProviderPlatform DKProviderPlatform::live(
    std::shared_ptr<platform::AppExtensionMatching> matching,
    DKProviderLookup* providerLookup) {
  DKProviderPlatform live;
  live.recordForIdentifier =
      [matching = std::move(matching)](
          const std::string& identifier) -> std::shared_ptr<const platform::PluginRecord> {
    return matching ? matching->recordForIdentifier(identifier) : nullptr;
  };
  live.fileCoordinator = &platform::FileCoordinator::shared();
  live.scheduler = &platform::Scheduler::real();
  live.providerLookup = providerLookup;
  return live;
}

DKExtensionProvider::DKExtensionProvider(DKProviderPlatform platform)
    : platform_(std::move(platform)) {}

DKExtensionProvider::~DKExtensionProvider() = default;

std::shared_ptr<DKExtensionProvider> DKExtensionProvider::initWithExtension(
    std::shared_ptr<AppExtension> extension,
    DKProviderPlatform platform) {
  assert(extension && "a provider is made from an extension");
  std::shared_ptr<DKExtensionProvider> provider(new DKExtensionProvider(std::move(platform)));
  const std::string extensionIdentifier = extension ? extension->identifier() : std::string();

  provider->operationQueue_ =
      std::make_shared<OperationQueue>("Operation queue for " + extensionIdentifier);
  provider->memberQueue_ = DispatchQueue::createConcurrent(
      "DKExtensionProvider concurrent member queue for " + extensionIdentifier);
  // Not shared yet: the member fields are written directly, not through the member queue.
  provider->memberQueueExtension_ = extension;
  provider->memberQueueIdentifier_ = extensionIdentifier;

  std::shared_ptr<const platform::PluginRecord> record;
  if (provider->platform_.recordForIdentifier)
    record = provider->platform_.recordForIdentifier(extensionIdentifier);
  if (!record) {
    DKLogError("Cannot instantiate a Lodestar proxy for %@", extension);
    return provider;
  }
  provider->memberQueueProvidedItemsURL_ =
      providedItemsURLFromInfo(record->infoDictionary(), record->groupContainerUrls(), *extension);
  return provider;
}

std::optional<Url> DKExtensionProvider::providedItemsURLFromInfo(
    const Value& infoDictionary,
    const std::map<std::string, Url>& groupContainerURLs,
    const AppExtension& extension) {
  const Value* oxExtension = infoDictionary.find(platform::kOxExtensionKey);
  if (!oxExtension || !oxExtension->dictionary()) {
    DKLogError("Cannot read OxExtension dictionary from the Info.plist of %@", extension);
    return std::nullopt;
  }
  const Value* group = oxExtension->find(platform::kOxExtensionDaskelDocumentGroupKey);
  if (!group || !group->string()) {
    DKLogError("Cannot read OxExtensionDaskelDocumentGroup key from the Info.plist of %@",
               extension);
    return std::nullopt;
  }
  auto container = groupContainerURLs.find(*group->string());
  std::optional<Url> url;
  if (container != groupContainerURLs.end())
    url = container->second.appendingPathComponent(kProvidedItemsDirectoryName, true);
  if (!url) {
    DKLogError("Cannot deduce the provided items URL for %@", extension);
    return std::nullopt;
  }
  return url;
}

// Member-queue properties: reads run as sync blocks (readers overlap), writes as async
// barriers (alone, and the setter does not wait).

std::string DKExtensionProvider::identifier() const {
  std::string identifier;
  memberQueue_->sync([&] {
    if (memberQueueIdentifier())
      identifier = *memberQueueIdentifier();
    else if (memberQueueExtension())
      identifier = memberQueueExtension()->identifier();
  });
  return identifier;
}

void DKExtensionProvider::setIdentifier(std::optional<std::string> identifier) {
  memberQueue_->barrierAsync([self = shared_from_this(), identifier = std::move(identifier)] {
    self->setMemberQueueIdentifier(identifier);
  });
}

std::shared_ptr<AppExtension> DKExtensionProvider::extension() const {
  std::shared_ptr<AppExtension> extension;
  memberQueue_->sync([&] { extension = memberQueueExtension(); });
  return extension;
}

void DKExtensionProvider::setExtension(std::shared_ptr<AppExtension> extension) {
  memberQueue_->barrierAsync([self = shared_from_this(), extension = std::move(extension)] {
    self->setMemberQueueExtension(extension);
  });
}

std::optional<Url> DKExtensionProvider::providedItemsURL() const {
  std::optional<Url> url;
  memberQueue_->sync([&] { url = memberQueueProvidedItemsURL(); });
  return url;
}

void DKExtensionProvider::setProvidedItemsURL(std::optional<Url> url) {
  memberQueue_->barrierAsync([self = shared_from_this(), url = std::move(url)] {
    self->setMemberQueueProvidedItemsURL(url);
  });
}

const std::optional<std::string>& DKExtensionProvider::memberQueueIdentifier() const {
  DK_ASSERT_ON_QUEUE(*memberQueue_, "memberQueueIdentifier");
  return memberQueueIdentifier_;
}

void DKExtensionProvider::setMemberQueueIdentifier(std::optional<std::string> identifier) {
  DK_ASSERT_ON_QUEUE(*memberQueue_, "setMemberQueueIdentifier");
  memberQueueIdentifier_ = std::move(identifier);
}

const std::shared_ptr<AppExtension>& DKExtensionProvider::memberQueueExtension() const {
  DK_ASSERT_ON_QUEUE(*memberQueue_, "memberQueueExtension");
  return memberQueueExtension_;
}

void DKExtensionProvider::setMemberQueueExtension(std::shared_ptr<AppExtension> extension) {
  DK_ASSERT_ON_QUEUE(*memberQueue_, "setMemberQueueExtension");
  memberQueueExtension_ = std::move(extension);
}

const std::optional<Url>& DKExtensionProvider::memberQueueProvidedItemsURL() const {
  DK_ASSERT_ON_QUEUE(*memberQueue_, "memberQueueProvidedItemsURL");
  return memberQueueProvidedItemsURL_;
}

void DKExtensionProvider::setMemberQueueProvidedItemsURL(std::optional<Url> url) {
  DK_ASSERT_ON_QUEUE(*memberQueue_, "setMemberQueueProvidedItemsURL");
  memberQueueProvidedItemsURL_ = std::move(url);
}

const std::shared_ptr<DispatchQueue>& DKExtensionProvider::memberQueue() const {
  return memberQueue_;
}

const std::shared_ptr<OperationQueue>& DKExtensionProvider::operationQueue() const {
  return operationQueue_;
}

std::string DKExtensionProvider::description() const {
  return "<DKExtensionProvider " + identifier() + ">";
}

// Extension requests.

void DKExtensionProvider::performExtensionRequest(RequestBlock requestBlock) {
  auto self = shared_from_this();
  std::shared_ptr<AppExtension> extension = this->extension();
  if (!extension) {
    // Only reachable after setExtension(nullptr): there is nobody to ask.
    DKLogError("Could not get proxy object for a request.");
    if (requestBlock)
      requestBlock(DKProxyNotFoundError(identifier(), nullptr), nullptr, [] {});
    return;
  }
  // Held once and shared: the proxy's error handler holds the request block too, and a copy
  // of it would copy everything the caller's block captured.
  auto shared = std::make_shared<const RequestBlock>(std::move(requestBlock));
  extension->beginRequest([self, requestBlock = std::move(shared)](const std::string& requestUuid,
                                                                   const ErrorPtr& error) {
    // The done block ends the request on whatever extension the provider has when it runs.
    // What it needs sits behind one pointer, so that the copies callers keep cost little.
    struct Ending {
      std::shared_ptr<DKExtensionProvider> provider;
      std::string requestUuid;
    };
    const DoneBlock done = [ending = std::make_shared<const Ending>(Ending{self, requestUuid})] {
      if (auto extension = ending->provider->extension())
        extension->cancelRequest(ending->requestUuid);
    };
    DKLogDebug("Beginning extension request.");
    if (error) {
      DKLogError("Extension request failed. Error: %@", error);
      if (*requestBlock)
        (*requestBlock)(error, nullptr, done);
      return;
    }
    auto proxy = self->proxyForIdentifier(requestUuid, [requestBlock, done](const ErrorPtr& error) {
      if (*requestBlock)
        (*requestBlock)(error, nullptr, done);
    });
    if (proxy) {
      if (*requestBlock)
        (*requestBlock)(nullptr, proxy, done);
      return;
    }
    DKLogError("Could not get proxy object for a request.");
    if (*requestBlock)
      (*requestBlock)(DKProxyNotFoundError(self->identifier(), nullptr), nullptr, done);
  });
}

std::shared_ptr<IpcRemoteProxy> DKExtensionProvider::proxyForIdentifier(
    const std::string& requestUuid,
    std::function<void(const ErrorPtr& error)> errorHandler) {
  std::shared_ptr<AppExtension> extension = this->extension();
  std::shared_ptr<platform::ExtensionContext> context =
      extension ? extension->contextForRequest(requestUuid) : nullptr;
  std::shared_ptr<platform::IpcConnection> connection =
      context ? context->auxiliaryConnection() : nullptr;
  if (!connection) {
    DKLogError("Could not get extension context for request identifier %@", requestUuid);
    return nullptr;
  }
  return connection->remoteObjectProxyWithErrorHandler(
      [errorHandler = std::move(errorHandler)](const ErrorPtr& error) {
        DKLogError("Error getting remote proxy object for provider extension. Error: %@", error);
        if (errorHandler)
          errorHandler(error);
      });
}

// Registration with the file coordinator.

void DKExtensionProvider::registerWithFileCoordinatorRetryCount(std::int32_t tries,
                                                                ErrorCompletion completion) {
  if (tries == 0) {
    if (completion) {
      DispatchQueue::global()->async([completion = std::move(completion)] {
        completion(DKPluginOperationFailedError(nullptr));
      });
    }
    return;
  }
  DKLogDebug("%s", "-[DKExtensionProvider registerWithFileCoordinatorRetryCount:completion:]");
  auto self = shared_from_this();
  performExtensionRequest([self, tries, completion](const ErrorPtr& error,
                                                    const std::shared_ptr<IpcRemoteProxy>& proxy,
                                                    const DoneBlock& done) {
    if (error) {
      DKLogError("Error registering daskel extension %@: %@.", self->identifier(), error);
      self->retryRegisterWithFileCoordinatorRetryCount(tries, error, completion);
      return;
    }
    proxy->call(DKVendorSelector::kPerformInitialSetup, {},
                [self, tries, completion, done](Value::Array reply) {
                  // (string, URL, error): only the error matters here.
                  const ErrorPtr setupError = reply.size() > 2 ? reply[2].error() : nullptr;
                  if (setupError) {
                    DKLogError("Daskel extension %@ failed to initialize. Error: %@.",
                               self->identifier(), setupError);
                    self->retryRegisterWithFileCoordinatorRetryCount(tries, setupError, completion);
                  } else {
                    self->operationQueue_->addOperation([self, completion] {
                      if (self->platform_.fileCoordinator)
                        self->platform_.fileCoordinator->addProvider(self);
                      DKLogInfo("Registered daskel extension %@ for path %@", self->identifier(),
                                describedURL(self->providedItemsURL()));
                      if (completion)
                        completion(nullptr);
                    });
                  }
                  // The request ends now, whether or not the addition has run yet.
                  if (done)
                    done();
                });
  });
}

void DKExtensionProvider::retryRegisterWithFileCoordinatorRetryCount(std::int32_t tries,
                                                                     const ErrorPtr& lastError,
                                                                     ErrorCompletion completion) {
  if (tries >= 2) {
    DKLogNotice("Trying to register daskel extension %@ again. Tries left: %d", identifier(),
                tries - 1);
    DispatchQueue::global()->after(
        kRegistrationRetryDelay,
        [self = shared_from_this(), tries, completion = std::move(completion)]() mutable {
          self->registerWithFileCoordinatorRetryCount(tries - 1, std::move(completion));
        },
        platform_.scheduler);
    return;
  }
  if (completion)
    completion(lastError);
}

void DKExtensionProvider::registerWithFileCoordinatorCompletion(ErrorCompletion completion) {
  registerWithFileCoordinatorRetryCount(1, std::move(completion));
}

void DKExtensionProvider::unregisterFromFileCoordinator() {
  operationQueue_->addOperation([self = shared_from_this()] {
    if (self->platform_.fileCoordinator)
      self->platform_.fileCoordinator->removeProvider(self);
  });
}

// CoordinationProvider properties.

std::optional<Url> DKExtensionProvider::_providedItemsURL() const {
  return providedItemsURL();
}

std::shared_ptr<OperationQueue> DKExtensionProvider::_providedItemsOperationQueue() const {
  return operationQueue_;
}

std::string DKExtensionProvider::_fileReactorID() const {
  return identifier();
}

}  // namespace daskel
