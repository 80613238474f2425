#include "platform/sandbox/SandboxTokenIssuer.h"

#include "platform/locations/Locations.h"
#include "platform/sandbox/KeyFileSandboxTokenIssuer.h"
#include "platform/sandbox/SandboxToken.h"

namespace daskel::platform {

Result<std::string> SandboxTokenIssuer::issueReadWriteToken(std::string_view path) {
  return issueToken(kSandboxReadWriteAccessClass, path);
}

std::string SandboxTokenIssuer::defaultKeyPath() {
  return stateDirectory() + "/sandbox-token.key";
}

std::shared_ptr<SandboxTokenIssuer> SandboxTokenIssuer::live() {
  return std::make_shared<KeyFileSandboxTokenIssuer>(defaultKeyPath());
}

}  // namespace daskel::platform
