// RegistryIdentityResolver: the live identity resolver. It answers entitlement questions
// from the application registry (the manifests of DASKEL_APPLICATIONS_PATH), which inspects
// the peer process anew on every question and checks its token is still alive afterwards.
//
// Ownership: shares the registry it is given.
//
// THREADING NOTES: immutable; safe from any thread (the registry is thread safe).
#pragma once

#include <memory>
#include <string_view>

#include "platform/identity/ApplicationRegistry.h"
#include "platform/ipc/IpcIdentityResolver.h"

namespace daskel::platform {

class RegistryIdentityResolver final : public IpcIdentityResolver {
 public:
  explicit RegistryIdentityResolver(std::shared_ptr<const ApplicationRegistry> registry)
      : registry_(std::move(registry)) {}

  Value valueForEntitlement(const AuditToken& token, std::string_view key) const override {
    return registry_->entitlementValue(token, key);
  }

  // The registry answers nothing for a token that is not alive once /proc has been read.
  bool checksLiveness() const override { return true; }

  const std::shared_ptr<const ApplicationRegistry>& registry() const { return registry_; }

 private:
  const std::shared_ptr<const ApplicationRegistry> registry_;
};

}  // namespace daskel::platform
