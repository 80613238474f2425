#include "registry/DKExtensionProviderRegistry.h"

#include <cerrno>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/filesystem/FileSystem.h"
#include "platform/log/Log.h"

namespace daskel {

using platform::AppExtension;
using platform::DirectoryRelationship;
using platform::DispatchQueue;
using platform::Url;
using platform::Value;

namespace {

constexpr char kRegistryQueueLabel[] = "DKExtensionProvider concurrent queue";
constexpr char kRefreshQueueLabel[] = "DKExtensionProvider refresh operations queue";
// What the relationship error line prints as its first argument: the registry's class name.
constexpr char kRegistryClassName[] = "DKExtensionProvider";

using ExtensionList = std::vector<std::shared_ptr<AppExtension>>;

bool sameExtension(const std::shared_ptr<AppExtension>& kept,
                   const std::shared_ptr<AppExtension>& reported) {
  return kept == reported || (kept && reported && kept->isEqual(*reported));
}

}  // namespace

struct DKExtensionProviderRegistry::State : std::enable_shared_from_this<State> {
  Environment environment;
  const std::shared_ptr<DispatchQueue> registryQueue =
      DispatchQueue::createConcurrent(kRegistryQueueLabel);
  const std::shared_ptr<DispatchQueue> refreshQueue =
      DispatchQueue::createSerial(kRefreshQueueLabel);

  // On registryQueue only: read in sync blocks, written by the refresh's barrier block.
  ProviderMap registryQueueProviders;

  // Set inside matchingOnce before matching starts; taken by refreshFinished() while the
  // refresh queue is still suspended. Refreshes never overlap and queue hand-offs order the
  // accesses, so no lock.
  std::function<void()> pendingStartupCompletion;
  std::once_flag matchingOnce;

  mutable std::mutex accessControlMutex;
  std::weak_ptr<DKAccessControl> accessControl;

  void startMatching();
  void refresh(ExtensionList extensions);
  void updateProviders(const ExtensionList& extensions, ProviderList& toRegister);
  void registerProviders(ProviderList providers,
                         ProviderMap successfullyRegistered,
                         RegistrationCompletion completion);
  void refreshFinished();
  std::shared_ptr<DKExtensionProvider> makeProvider(std::shared_ptr<AppExtension> extension);
};

void DKExtensionProviderRegistry::State::startMatching() {
  if (!environment.matching) {
    DKLogError("No extension matching to start for %s.", kExtensionPointIdentifier);
    return;
  }
  // The matching object keeps the handler for its whole life, and the state keeps the
  // matching object: a weak reference breaks the cycle.
  std::weak_ptr<State> weakSelf = weak_from_this();
  platform::ErrorPtr error = environment.matching->beginMatching(
      kExtensionPointIdentifier, [weakSelf](ExtensionList extensions, const platform::ErrorPtr&) {
        // The error is ignored: the list is processed as reported.
        if (auto self = weakSelf.lock()) {
          self->refreshQueue->async([self, extensions = std::move(extensions)]() mutable {
            self->refresh(std::move(extensions));
          });
        }
      });
  if (error) {
    DKLogError("Cannot match extensions of %s. Error: %@", kExtensionPointIdentifier, error);
  }
}

void DKExtensionProviderRegistry::State::refresh(ExtensionList extensions) {
  DK_ASSERT_ON_QUEUE(*refreshQueue, "refresh");
  // Held until refreshFinished(): no other report is looked at while this one's
  // registrations are still running.
  refreshQueue->suspend();
  DKLogInfo("Updating provider list.");
  auto self = shared_from_this();
  registryQueue->barrierAsync([self, extensions = std::move(extensions)]() {
    ProviderList toRegister;
    self->updateProviders(extensions, toRegister);
    DispatchQueue::global()->async([self, toRegister = std::move(toRegister)]() mutable {
      self->registerProviders(std::move(toRegister), {},
                              [self](const ProviderMap&) { self->refreshFinished(); });
    });
  });
}

void DKExtensionProviderRegistry::State::updateProviders(const ExtensionList& extensions,
                                                         ProviderList& toRegister) {
  DK_ASSERT_ON_QUEUE(*registryQueue, "registryQueueProviders");
  ProviderMap leftovers = registryQueueProviders;
  ProviderMap updated;
  for (const auto& extension : extensions) {
    const std::string identifier = extension ? extension->identifier() : std::string();
    if (identifier.empty()) {
      DKLogNotice("Daskel extension %@ has no identifier. Ignoring.", extension);
      continue;
    }
    std::shared_ptr<DKExtensionProvider> chosen;
    auto found = leftovers.find(identifier);
    if (found != leftovers.end() && sameExtension(found->second->extension(), extension)) {
      chosen = found->second;
      leftovers.erase(found);
    } else {
      // New, or changed: a changed extension gets a new provider and the old one stays
      // among the leftovers to be withdrawn. Providers are never updated in place.
      chosen = makeProvider(extension);
      if (chosen) {
        toRegister.push_back(chosen);
      }
    }
    if (chosen) {
      updated[identifier] = std::move(chosen);
    }
  }
  for (const auto& [identifier, provider] : leftovers) {
    provider->unregisterFromFileCoordinator();
  }
  if (registryQueueProviders != updated) {
    registryQueueProviders = std::move(updated);
  }
}

void DKExtensionProviderRegistry::State::registerProviders(ProviderList providers,
                                                           ProviderMap successfullyRegistered,
                                                           RegistrationCompletion completion) {
  if (providers.empty()) {
    if (completion) {
      DispatchQueue::global()->async(
          [completion = std::move(completion), registered = std::move(successfullyRegistered)]() {
            completion(registered);
          });
    }
    return;
  }
  std::shared_ptr<DKExtensionProvider> first = providers.front();
  ProviderList rest(providers.begin() + 1, providers.end());
  auto self = shared_from_this();
  // The next registration starts only from this one's completion, after its retries.
  first->registerWithFileCoordinatorRetryCount(
      DKExtensionProvider::kRegistrationTries,
      [self, first, rest = std::move(rest), registered = std::move(successfullyRegistered),
       completion = std::move(completion)](const platform::ErrorPtr& error) {
        ProviderMap next = registered;
        if (!error) {
          next[first->identifier()] = first;
        } else {
          DKLogError("Could not register daskel %@. Error: %@", first->identifier(), error);
        }
        self->registerProviders(rest, std::move(next), completion);
      });
}

void DKExtensionProviderRegistry::State::refreshFinished() {
  // Taken before the resume: once the queue runs again, the next refresh may finish (and
  // look at the pending completion) while this thread is still here.
  std::function<void()> startupCompletion = std::move(pendingStartupCompletion);
  pendingStartupCompletion = nullptr;
  refreshQueue->resume();
  if (startupCompletion) {
    startupCompletion();
  }
}

std::shared_ptr<DKExtensionProvider> DKExtensionProviderRegistry::State::makeProvider(
    std::shared_ptr<AppExtension> extension) {
  if (environment.makeProvider) {
    return environment.makeProvider(std::move(extension), environment.providerPlatform);
  }
  return DKExtensionProvider::initWithExtension(std::move(extension), environment.providerPlatform);
}

// --- Process-wide registry ---

namespace {

std::mutex gSharedMutex;
std::optional<DKExtensionProviderRegistry::Environment> gSharedEnvironment;
bool gSharedMade = false;

}  // namespace

DKExtensionProviderRegistry& DKExtensionProviderRegistry::shared() {
  // Made once and never destroyed: providers, the file coordinator and blocks in flight may
  // use it until the process ends.
  static DKExtensionProviderRegistry* const registry = [] {
    std::lock_guard lock(gSharedMutex);
    gSharedMade = true;
    Environment environment = gSharedEnvironment ? std::move(*gSharedEnvironment) : Environment{};
    gSharedEnvironment.reset();
    return new DKExtensionProviderRegistry(std::move(environment));
  }();
  return *registry;
}

void DKExtensionProviderRegistry::configureShared(Environment environment) {
  std::lock_guard lock(gSharedMutex);
  if (gSharedMade || gSharedEnvironment) {
    return;
  }
  gSharedEnvironment = std::move(environment);
}

// --- Registry ---

DKExtensionProviderRegistry::DKExtensionProviderRegistry(Environment environment)
    : state_(std::make_shared<State>()) {
  state_->environment = std::move(environment);
  state_->environment.providerPlatform.providerLookup = this;
}

DKExtensionProviderRegistry::~DKExtensionProviderRegistry() = default;

void DKExtensionProviderRegistry::createInstancesCompletion(std::function<void()> completion) {
  bool takenCareOf = false;
  std::call_once(state_->matchingOnce, [&] {
    takenCareOf = true;
    state_->pendingStartupCompletion = completion;
    state_->startMatching();
  });
  if (completion && !takenCareOf) {
    DispatchQueue::global()->async([completion = std::move(completion)]() { completion(); });
  }
}

void DKExtensionProviderRegistry::refreshOperationsQueueRegisterProviders(
    ProviderList providers,
    RegistrationCompletion completion) {
  state_->registerProviders(std::move(providers), {}, std::move(completion));
}

void DKExtensionProviderRegistry::refreshOperationsQueueRegisterProviders(
    ProviderList providers,
    std::optional<ProviderMap> successfullyRegistered,
    RegistrationCompletion completion) {
  state_->registerProviders(
      std::move(providers),
      successfullyRegistered ? std::move(*successfullyRegistered) : ProviderMap{},
      std::move(completion));
}

std::shared_ptr<DKExtensionProvider> DKExtensionProviderRegistry::providerForURL(
    const Url& url,
    bool* outExcluded) {
  std::shared_ptr<DKExtensionProvider> result;
  bool excluded = false;
  State& state = *state_;
  state.registryQueue->sync([&] {
    ProviderList snapshot;
    snapshot.reserve(state.registryQueueProviders.size());
    for (const auto& [identifier, provider] : state.registryQueueProviders) {
      snapshot.push_back(provider);
    }
    // The item is resolved once, at the first provider with a directory, not once per
    // provider: with many providers installed that was most of a look-up's system calls.
    std::optional<platform::ResolvedItem> item;
    for (const auto& provider : snapshot) {
      // Member queue inside the registry queue: the permitted nesting.
      std::optional<Url> directory = provider->providedItemsURL();
      if (directory && !item) {
        item.emplace(url);
      }
      platform::Result<DirectoryRelationship> relationship =
          directory ? platform::relationshipOfDirectoryToItem(*directory, *item)
                    : platform::failure(platform::makeError(
                          platform::kPosixErrorDomain, ENOENT,
                          "The provider " + provider->identifier() + " has no storage directory"));
      if (!relationship) {
        DKLogError("Cannot get the relationship between URL %@ and %@. Error: %@",
                   kRegistryClassName, url, relationship.error());
        continue;
      }
      if (*relationship == DirectoryRelationship::Same) {
        DKLogInfo("Ignoring URLs that exactly match the document container folder");
        excluded = true;
        return;
      }
      if (*relationship == DirectoryRelationship::Contains) {
        result = provider;
        return;
      }
    }
  });
  if (outExcluded) {
    *outExcluded = excluded;
  }
  return result;
}

std::shared_ptr<DKExtensionProvider> DKExtensionProviderRegistry::providerForURL(const Url& url) {
  return providerForURL(url, nullptr);
}

std::shared_ptr<DKExtensionProvider> DKExtensionProviderRegistry::providerWithIdentifier(
    const std::optional<std::string>& identifier) {
  std::shared_ptr<DKExtensionProvider> result;
  if (!identifier) {
    return result;
  }
  State& state = *state_;
  state.registryQueue->sync([&] {
    auto found = state.registryQueueProviders.find(*identifier);
    if (found != state.registryQueueProviders.end()) {
      result = found->second;
    }
  });
  return result;
}

Value DKExtensionProviderRegistry::providersInfo() {
  Value::Dictionary info;
  State& state = *state_;
  state.registryQueue->sync([&] {
    for (const auto& [identifier, provider] : state.registryQueueProviders) {
      // Built value by value, ending at the first absent one.
      Value::Dictionary record;
      if (std::optional<Url> directory = provider->_providedItemsURL()) {
        record.emplace(kDocumentStorageURLKey, std::move(*directory));
        std::string reactorID = provider->_fileReactorID();
        if (!reactorID.empty()) {
          record.emplace(kProviderIdentifierKey, std::move(reactorID));
        }
      }
      info.emplace(identifier, Value(std::move(record)));
    }
  });
  return Value(std::move(info));
}

void DKExtensionProviderRegistry::setDaskelAccessControl(
    std::weak_ptr<DKAccessControl> accessControl) {
  std::lock_guard lock(state_->accessControlMutex);
  state_->accessControl = std::move(accessControl);
}

std::shared_ptr<DKAccessControl> DKExtensionProviderRegistry::daskelAccessControl() const {
  std::lock_guard lock(state_->accessControlMutex);
  return state_->accessControl.lock();
}

}  // namespace daskel
