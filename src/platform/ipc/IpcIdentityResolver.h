// IpcIdentityResolver: the seam through which a connection learns what its peer process is
// entitled to. The connection holds the peer's AuditToken (fixed from the kernel when the
// socket was accepted or connected); a resolver maps that token to entitlement values, in the
// live system through the application registry.
//
// A connection asks its resolver on every valueForEntitlement() call: nothing may be reused
// that the peer could outlive by exec'ing another program. The connection also checks, after
// the resolver answered, that the token's process is still alive, so an answer about a
// recycled pid is never used, unless the resolver says it makes that very check itself.
//
// Which resolver: one set on the connection (or handed down by its listener), else the
// process-wide default: the one installed with setDefault(), or else a RegistryIdentityResolver
// over the manifests of DASKEL_APPLICATIONS_PATH, made on first use.
//
// THREADING NOTES: resolvers are called from any thread, concurrently; implementations must
// be thread safe. setDefault/defaultResolver may be called from any thread.
#pragma once

#include <memory>
#include <string_view>

#include "platform/identity/AuditToken.h"
#include "platform/value/Value.h"

namespace daskel::platform {

class IpcIdentityResolver {
 public:
  virtual ~IpcIdentityResolver() = default;

  // The value of entitlement `key` of the process `token` names, or a null Value when it has
  // none or cannot be identified.
  virtual Value valueForEntitlement(const AuditToken& token, std::string_view key) const = 0;

  // True when valueForEntitlement() answers only about a process it found alive after
  // everything it read about it, so that the caller need not check the token again.
  virtual bool checksLiveness() const { return false; }

  // Replaces the process-wide default (null restores the registry-backed one).
  static void setDefault(std::shared_ptr<const IpcIdentityResolver> resolver);
  static std::shared_ptr<const IpcIdentityResolver> defaultResolver();
};

}  // namespace daskel::platform
