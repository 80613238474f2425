// DKExtensionProviderRegistry: the class side of DKExtensionProvider. It matches the provider
// extensions continuously, keeps the provider table (identifier -> provider) current, registers
// new providers with the file coordinator one after another, and answers which provider holds
// a URL or has an identifier, and what the provider list looks like for clients.
//
// Every report of the extension list becomes one refresh on the serial refresh queue
// ("DKExtensionProvider refresh operations queue"). A refresh suspends that queue until its
// registrations have all finished, so refreshes never overlap and run in arrival order. The
// table lives behind the concurrent registry queue ("DKExtensionProvider concurrent queue"):
// look-ups read it in sync blocks, a refresh rewrites it in one async barrier block, and
// withdraws (unregisterFromFileCoordinator) the providers that vanished or were replaced there.
//
// Ownership: the registry owns its table and through it the providers; it lends itself to
// every provider it makes as their DKProviderLookup, so it must outlive their use of it (the
// process-wide shared() one lives for ever). Blocks in flight keep the registry's state alive,
// not the registry object. The access-control reference is weak and only stored.
// THREADING NOTES: every member may be called from any thread, except the look-ups from a
// block running on the registry queue (a sync onto one's own queue deadlocks). Lock order: the
// registry queue is entered before a provider's member queue, never the reverse.
// Failure: log lines only (an extension without identifier, a registration that failed after
// its tries, a relationship query that failed); nothing reaches the callers as an error.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/extensions/AppExtension.h"
#include "platform/url/Url.h"
#include "platform/value/Value.h"
#include "provider/DKExtensionProvider.h"

namespace daskel {

class DKAccessControl;

class DKExtensionProviderRegistry final : public DKProviderLookup {
 public:
  // The extension point whose extensions are providers.
  static constexpr char kExtensionPointIdentifier[] = "com.orvane.daskel-nonui";
  // Keys of a provider info record.
  static constexpr char kDocumentStorageURLKey[] = "documentStorageURL";
  static constexpr char kProviderIdentifierKey[] = "providerIdentifier";

  using ProviderList = std::vector<std::shared_ptr<DKExtensionProvider>>;
  // identifier -> provider.
  using ProviderMap = std::map<std::string, std::shared_ptr<DKExtensionProvider>>;
  using RegistrationCompletion = std::function<void(const ProviderMap& successfullyRegistered)>;
  using MakeProvider = std::function<std::shared_ptr<DKExtensionProvider>(
      std::shared_ptr<platform::AppExtension> extension,
      DKProviderPlatform platform)>;

  // What the registry works with.
  struct Environment {
    // The source of extension-list reports; matching starts on the first
    // createInstancesCompletion(). May be null only if that is never called.
    std::shared_ptr<platform::AppExtensionMatching> matching;
    // Handed to every provider made; the registry sets providerLookup to itself.
    DKProviderPlatform providerPlatform;
    // Makes a provider for an extension; DKExtensionProvider::initWithExtension when empty.
    MakeProvider makeProvider;
  };

  explicit DKExtensionProviderRegistry(Environment environment);
  ~DKExtensionProviderRegistry() override;
  DKExtensionProviderRegistry(const DKExtensionProviderRegistry&) = delete;
  DKExtensionProviderRegistry& operator=(const DKExtensionProviderRegistry&) = delete;

  // The process-wide registry, made on first use from the environment given to
  // configureShared(). The daemon's entry point calls configureShared() once, before anything
  // calls shared(); later calls of configureShared() are ignored.
  static DKExtensionProviderRegistry& shared();
  static void configureShared(Environment environment);

  // Starts extension matching the first time it is called on this registry; `completion`
  // (may be empty) runs once the first report's refresh, registrations included, has
  // finished. On every later call `completion` is submitted to the global queue at once.
  void createInstancesCompletion(std::function<void()> completion);

  // Registers `providers` with the file coordinator strictly one after another, in order,
  // each with kRegistrationTries tries; a failure is logged and skipped. `completion` (may be
  // empty) then receives, on the global queue, `successfullyRegistered` (empty when absent)
  // plus the providers registered now.
  void refreshOperationsQueueRegisterProviders(ProviderList providers,
                                               RegistrationCompletion completion);
  void refreshOperationsQueueRegisterProviders(ProviderList providers,
                                               std::optional<ProviderMap> successfullyRegistered,
                                               RegistrationCompletion completion);

  // Look-ups; each runs on one consistent state of the table.
  //
  // The provider whose storage directory contains `url`, or null. `*outExcluded` (when not
  // null) is always written: true when `url` is a storage directory itself, which no provider
  // holds. A provider whose relationship query fails, or which has no storage directory, is
  // logged and skipped.
  std::shared_ptr<DKExtensionProvider> providerForURL(const platform::Url& url,
                                                      bool* outExcluded) override;
  std::shared_ptr<DKExtensionProvider> providerForURL(const platform::Url& url);
  // The table's entry for `identifier`, or null (also for an absent identifier).
  std::shared_ptr<DKExtensionProvider> providerWithIdentifier(
      const std::optional<std::string>& identifier);
  // A dictionary identifier -> info record; a record holds "documentStorageURL" and
  // "providerIdentifier", built in that order and ending at the first absent value, so a
  // provider without a storage directory has an empty record.
  platform::Value providersInfo();

  // Stores a weak reference; nothing in the daemon uses it further.
  void setDaskelAccessControl(std::weak_ptr<DKAccessControl> accessControl);
  std::shared_ptr<DKAccessControl> daskelAccessControl() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace daskel
