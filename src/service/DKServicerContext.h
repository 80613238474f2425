// DKServicerContext: the process-wide services that every DKIpcServicer uses: the provider
// registry, the daemon's shared access-control store (for bookmarkable strings), the sandbox
// token issuer, the identity look-up of a caller's bundle identifier, and the queue for
// replies that the daemon decides itself. The server, which gives the per-request store, is
// not part of it: servicers hold it weakly (see DKServicerServer).
//
// Ownership: made once by the daemon (live()) and shared, immutable, by all servicers; tests
// fill one with fakes. Members are never empty in a context handed to a servicer.
// THREADING NOTES: immutable once shared; every member is safe from any thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/identity/AuditToken.h"
#include "service/DKSandboxTokens.h"
#include "service/DKServicerRegistry.h"

namespace daskel {

class DKAccessControlStore;

namespace platform {
class ApplicationRegistry;
}

struct DKServicerContext {
  // Bundle identifier of the process a token names; null token (a connection that is gone,
  // or a peer the kernel gave no identity) and unknown processes answer nullopt.
  using BundleIdentifierResolver =
      std::function<std::optional<std::string>(const platform::AuditToken* token)>;

  std::shared_ptr<DKServicerRegistry> registry;
  // The daemon's store (DKAccessControlStore::sharedStore in the daemon).
  std::function<std::shared_ptr<DKAccessControlStore>()> sharedStore;
  std::shared_ptr<platform::SandboxTokenIssuer> tokenIssuer;
  BundleIdentifierResolver bundleIdentifierForAuditToken;
  // Where refusals and other replies decided without a provider go
  // (DispatchQueue::global() in the daemon).
  std::shared_ptr<platform::DispatchQueue> replyQueue;

  // The daemon's context: the given registry, DKAccessControlStore::sharedStore, the given
  // token issuer (SandboxTokenIssuer::live() when null), bundle identifiers from
  // `applications` (the application registry of DASKEL_APPLICATIONS_PATH when null), and the
  // global queue.
  static std::shared_ptr<const DKServicerContext> live(
      std::shared_ptr<DKServicerRegistry> registry,
      std::shared_ptr<platform::SandboxTokenIssuer> tokenIssuer = nullptr,
      std::shared_ptr<const platform::ApplicationRegistry> applications = nullptr);
};

}  // namespace daskel
