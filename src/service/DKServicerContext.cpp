#include "service/DKServicerContext.h"

#include "access_control/DKAccessControlStore.h"
#include "platform/identity/ApplicationRegistry.h"

namespace daskel {

std::shared_ptr<const DKServicerContext> DKServicerContext::live(
    std::shared_ptr<DKServicerRegistry> registry,
    std::shared_ptr<platform::SandboxTokenIssuer> tokenIssuer,
    std::shared_ptr<const platform::ApplicationRegistry> applications) {
  if (!applications) {
    applications = std::make_shared<const platform::ApplicationRegistry>();
  }
  auto context = std::make_shared<DKServicerContext>();
  context->registry = std::move(registry);
  context->sharedStore = [] { return DKAccessControlStore::sharedStore(); };
  context->tokenIssuer =
      tokenIssuer ? std::move(tokenIssuer) : platform::SandboxTokenIssuer::live();
  context->bundleIdentifierForAuditToken =
      [applications](const platform::AuditToken* token) -> std::optional<std::string> {
    // No token stands for the all-zero token, which names no process.
    if (token == nullptr) {
      return std::nullopt;
    }
    return applications->bundleIdentifier(*token);
  };
  context->replyQueue = platform::DispatchQueue::global();
  return context;
}

}  // namespace daskel
