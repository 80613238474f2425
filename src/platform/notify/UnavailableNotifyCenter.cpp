#include "platform/notify/UnavailableNotifyCenter.h"

#include "platform/log/Log.h"

namespace daskel::platform {

UnavailableNotifyCenter::UnavailableNotifyCenter(std::string directory, ErrorPtr reason)
    : directory_(std::move(directory)), reason_(std::move(reason)) {}

void UnavailableNotifyCenter::addObserver(std::string, Callback, std::shared_ptr<DispatchQueue>) {}

Result<void> UnavailableNotifyCenter::post(std::string_view name) {
  DKLogError("Cannot post notification %@: notifications directory %@ is unavailable: %@", name,
             directory_, reason_);
  return failure(reason_);
}

}  // namespace daskel::platform
