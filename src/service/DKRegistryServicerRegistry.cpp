#include "service/DKRegistryServicerRegistry.h"

#include "registry/DKExtensionProviderRegistry.h"

namespace daskel {

std::shared_ptr<DKExtensionProvider> DKRegistryServicerRegistry::providerForURL(
    const platform::Url& url) {
  return registry_.providerForURL(url);
}

std::shared_ptr<DKExtensionProvider> DKRegistryServicerRegistry::providerWithIdentifier(
    const std::string& identifier) {
  return registry_.providerWithIdentifier(identifier);
}

platform::Value DKRegistryServicerRegistry::providersInfo() {
  return registry_.providersInfo();
}

}  // namespace daskel
