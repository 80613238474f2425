#include "platform/extensions/ExtensionHost.h"

#include "platform/errors/DKErrors.h"

namespace daskel::platform {

ExtensionHost::ExtensionHost(ExtensionHostOptions options) : options_(std::move(options)) {}

ExtensionHost::~ExtensionHost() {
  std::lock_guard lock(matcherMutex_);
  if (matcher_)
    matcher_->stop();
}

ErrorPtr ExtensionHost::beginMatching(const std::string& extensionPointIdentifier,
                                      Handler handler) {
  std::lock_guard lock(matcherMutex_);
  if (matcher_) {
    return IpcError(IpcErrorCode::ConnectionInvalid,
                    "Extension matching has begun already for " +
                        matcher_->extensionPointIdentifier());
  }
  ExtensionMatchingOptions matching{.directories = options_.directories,
                                    .groupContainersDirectory = options_.groupContainersDirectory,
                                    .settleTime = options_.settleTime,
                                    .maximumDelay = options_.maximumDelay};
  const std::shared_ptr<State> state = state_;
  const ExtensionSupervisorOptions supervisorOptions = options_.supervisor;
  auto deliver = [state, supervisorOptions, handler = std::move(handler)](
                     const ExtensionMatcher::Records& records) {
    std::vector<std::shared_ptr<AppExtension>> extensions;
    // Swapped out under the lock, released after it: a supervisor's destructor stops its
    // process.
    std::map<std::string, std::shared_ptr<ExtensionSupervisor>> next;
    {
      std::lock_guard lock(state->mutex);
      for (const auto& record : records) {
        std::shared_ptr<ExtensionSupervisor> supervisor;
        auto previous = state->supervisors.find(record->identifier());
        if (previous != state->supervisors.end() && *previous->second->record() == *record)
          supervisor = previous->second;
        else
          supervisor = ExtensionSupervisor::create(record, supervisorOptions);
        next[record->identifier()] = supervisor;
        extensions.push_back(std::move(supervisor));
      }
      std::swap(state->supervisors, next);
    }
    handler(std::move(extensions), nullptr);
  };
  auto matcher = ExtensionMatcher::start(extensionPointIdentifier,
                                         DispatchQueue::createSerial("extension matching"),
                                         std::move(deliver), std::move(matching));
  if (!matcher)
    return matcher.error();
  matcher_ = std::move(*matcher);
  return nullptr;
}

std::shared_ptr<const PluginRecord> ExtensionHost::recordForIdentifier(
    const std::string& identifier) const {
  std::lock_guard lock(state_->mutex);
  auto it = state_->supervisors.find(identifier);
  return it == state_->supervisors.end() ? nullptr : it->second->record();
}

}  // namespace daskel::platform
