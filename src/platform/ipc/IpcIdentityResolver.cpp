#include "platform/ipc/IpcIdentityResolver.h"

#include <mutex>

#include "platform/ipc/RegistryIdentityResolver.h"

namespace daskel::platform {

namespace {

std::mutex gDefaultMutex;
std::shared_ptr<const IpcIdentityResolver> gDefault;

}  // namespace

void IpcIdentityResolver::setDefault(std::shared_ptr<const IpcIdentityResolver> resolver) {
  std::lock_guard lock(gDefaultMutex);
  gDefault = std::move(resolver);
}

std::shared_ptr<const IpcIdentityResolver> IpcIdentityResolver::defaultResolver() {
  std::lock_guard lock(gDefaultMutex);
  if (!gDefault) {
    gDefault = std::make_shared<RegistryIdentityResolver>(
        std::make_shared<const ApplicationRegistry>());
  }
  return gDefault;
}

}  // namespace daskel::platform
