#include "platform/notify/SystemNotifyCenter.h"

#include "platform/locations/Locations.h"
#include "platform/log/Log.h"
#include "platform/notify/InotifyNotifyCenter.h"
#include "platform/notify/UnavailableNotifyCenter.h"

namespace daskel::platform {

bool SystemNotifyCenter::isValidName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

Result<std::shared_ptr<SystemNotifyCenter>> SystemNotifyCenter::createForDirectory(
    std::string directory) {
  auto created = InotifyNotifyCenter::create(std::move(directory));
  if (!created)
    return failure(created.error());
  return std::shared_ptr<SystemNotifyCenter>(std::move(*created));
}

std::shared_ptr<SystemNotifyCenter> SystemNotifyCenter::shared() {
  // Deliberately never destroyed: observers may be called until the process exits, and a
  // watcher joined during static destruction could race with the queues it submits to.
  static const auto* const center = [] {
    std::string directory = notificationsDirectory();
    auto created = InotifyNotifyCenter::create(directory);
    if (created)
      return new std::shared_ptr<SystemNotifyCenter>(std::move(*created));
    DKLogError("Cannot watch notifications directory %@; notifications are disabled: %@", directory,
               created.error());
    return new std::shared_ptr<SystemNotifyCenter>(
        std::make_shared<UnavailableNotifyCenter>(directory, created.error()));
  }();
  return *center;
}

}  // namespace daskel::platform
