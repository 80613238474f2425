// DKServicerRegistry: the three questions the client request service asks the provider
// registry. DKRegistryServicerRegistry answers them from a DKExtensionProviderRegistry; tests
// use a table of providers of their own.
//
// THREADING NOTES: implementations are called from any thread at once, never from the
// registry's own queue.
// Failure: an absent answer (null provider); nothing else is reported.
#pragma once

#include <memory>
#include <string>

#include "platform/url/Url.h"
#include "platform/value/Value.h"

namespace daskel {

class DKExtensionProvider;

class DKServicerRegistry {
 public:
  virtual ~DKServicerRegistry() = default;

  // The provider whose storage directory contains `url`, or null (also for a URL that is a
  // storage directory itself).
  virtual std::shared_ptr<DKExtensionProvider> providerForURL(const platform::Url& url) = 0;
  // The provider with `identifier`, or null.
  virtual std::shared_ptr<DKExtensionProvider> providerWithIdentifier(
      const std::string& identifier) = 0;
  // Identifier -> provider info record ("providerIdentifier", "documentStorageURL"), as a
  // dictionary value; an empty dictionary when no provider is known.
  virtual platform::Value providersInfo() = 0;
};

}  // namespace daskel
