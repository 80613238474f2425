#include "platform/extensions/ExtensionPidRegistry.h"

namespace daskel::platform {

ExtensionPidRegistry& ExtensionPidRegistry::shared() {
  // Never destroyed: processes may be reaped while the daemon exits.
  static ExtensionPidRegistry* const registry = new ExtensionPidRegistry();
  return *registry;
}

void ExtensionPidRegistry::add(pid_t pid) {
  std::lock_guard lock(mutex_);
  pids_.insert(pid);
}

void ExtensionPidRegistry::remove(pid_t pid) {
  std::lock_guard lock(mutex_);
  pids_.erase(pid);
}

bool ExtensionPidRegistry::contains(pid_t pid) const {
  std::lock_guard lock(mutex_);
  return pids_.contains(pid);
}

}  // namespace daskel::platform
