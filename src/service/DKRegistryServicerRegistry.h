// DKRegistryServicerRegistry: the live DKServicerRegistry, which passes the servicer's
// questions on to a DKExtensionProviderRegistry.
//
// Ownership: borrows the registry (not owned), which must outlive it; the daemon's registry
// is process-wide and lives for ever.
// THREADING NOTES: as the registry: any thread, except the registry's own queue.
#pragma once

#include "service/DKServicerRegistry.h"

namespace daskel {

class DKExtensionProviderRegistry;

class DKRegistryServicerRegistry final : public DKServicerRegistry {
 public:
  explicit DKRegistryServicerRegistry(DKExtensionProviderRegistry& registry)
      : registry_(registry) {}

  std::shared_ptr<DKExtensionProvider> providerForURL(const platform::Url& url) override;
  std::shared_ptr<DKExtensionProvider> providerWithIdentifier(
      const std::string& identifier) override;
  platform::Value providersInfo() override;

 private:
  DKExtensionProviderRegistry& registry_;  // not owned
};

}  // namespace daskel
