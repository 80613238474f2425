#include "access_control/DKAccessControlStore.h"

#include <cerrno>
#include <filesystem>
#include <mutex>

#include "platform/filesystem/FileSystem.h"
#include "platform/log/Log.h"
#include "platform/plist/PropertyList.h"

namespace daskel {

using platform::DispatchQueue;
using platform::SystemNotifyCenter;

// Where the access-control file lives. The directory is created, when nothing stands at its
// path, the first time the file path is asked for; a failure is logged once and the path is
// kept, so later reads find no file and later writes fail and are logged.
class AccessControlLocation {
 public:
  AccessControlLocation(std::string directoryPath, std::string fileName)
      : directoryPath_(std::move(directoryPath)),
        filePath_(platform::appendingPathComponent(directoryPath_, fileName)) {}

  const std::string& filePath() {
    std::call_once(directoryOnce_, [this] {
      createDirectoryIfMissing();
      removeStaleTemporaryFiles();
    });
    return filePath_;
  }

  // The daemon's location: <home>/Library/Daskel/AccessControl.plist.
  static std::shared_ptr<AccessControlLocation> shared() {
    static std::once_flag once;
    static std::shared_ptr<AccessControlLocation> location;
    std::call_once(once, [] {
      location = std::make_shared<AccessControlLocation>(
          platform::appendingPathComponent(platform::homeDirectory(), "Library/Daskel"),
          "AccessControl.plist");
    });
    return location;
  }

 private:
  void createDirectoryIfMissing() {
    // Anything at the path, even a plain file, counts as present: no creation is tried.
    if (platform::fileExistsAtPath(directoryPath_)) {
      return;
    }
    if (auto created = platform::createDirectoryAtPath(directoryPath_); !created) {
      DKLogError("Cannot create access control directory. Error: %@", created.error());
    }
  }

  // A write killed between creating its temporary file and renaming it leaves
  // "AccessControl.plist.XXXXXX" behind. The daemon is the file's one writer and this runs
  // before its first write, so any such file is a leftover.
  void removeStaleTemporaryFiles() {
    std::error_code ec;
    const std::string prefix = std::filesystem::path(filePath_).filename().string() + ".";
    for (const auto& entry : std::filesystem::directory_iterator(directoryPath_, ec)) {
      std::string name = entry.path().filename().string();
      if (name.size() == prefix.size() + 6 && name.starts_with(prefix)) {
        std::filesystem::remove(entry.path(), ec);
      }
    }
  }

  const std::string directoryPath_;
  const std::string filePath_;
  std::once_flag directoryOnce_;
};

namespace {

std::string parentDirectory(const std::string& path) {
  auto slash = path.find_last_of('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

std::string lastComponent(const std::string& path) {
  auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool isMissingFileError(const platform::ErrorPtr& error) {
  return error && error->domain == "posix" && error->code == ENOENT;
}

}  // namespace

std::shared_ptr<DKAccessControlStore> DKAccessControlStore::sharedStore() {
  static std::once_flag once;
  static std::shared_ptr<DKAccessControlStore> store;
  std::call_once(once, [] {
    store = make(AccessControlLocation::shared(), SystemNotifyCenter::shared());
  });
  return store;
}

std::shared_ptr<DKAccessControlStore> DKAccessControlStore::create(
    std::string filePath,
    std::shared_ptr<SystemNotifyCenter> notifyCenter) {
  auto location =
      std::make_shared<AccessControlLocation>(parentDirectory(filePath), lastComponent(filePath));
  return make(std::move(location), std::move(notifyCenter));
}

DKAccessControlStore::DKAccessControlStore(std::shared_ptr<AccessControlLocation> location,
                                           std::shared_ptr<SystemNotifyCenter> notifyCenter)
    : syncQueue_(DispatchQueue::createSerial(kSyncQueueLabel)),
      location_(std::move(location)),
      notifyCenter_(std::move(notifyCenter)) {}

DKAccessControlStore::~DKAccessControlStore() = default;

std::shared_ptr<DKAccessControlStore> DKAccessControlStore::make(
    std::shared_ptr<AccessControlLocation> location,
    std::shared_ptr<SystemNotifyCenter> notifyCenter) {
  std::shared_ptr<DKAccessControlStore> store(
      new DKAccessControlStore(std::move(location), std::move(notifyCenter)));

  // The queue stays suspended until the first read is done: a first-unlock notification that
  // arrives meanwhile queues its re-read behind it instead of racing the read on this thread.
  store->syncQueue_->suspend();
  if (store->notifyCenter_) {
    std::weak_ptr<DKAccessControlStore> weakStore = store;
    store->notifyCenter_->addObserver(platform::kFirstUnlockNotification,
                                      [weakStore](const std::string&) {
                                        if (auto strongStore = weakStore.lock()) {
                                          strongStore->rereadAccessControl();
                                        }
                                      });
  }
  // Nobody else can reach the list yet, so the first read runs here rather than on the queue.
  store->readAccessControl();
  store->syncQueue_->resume();
  return store;
}

const std::string& DKAccessControlStore::accessControlFilePath() const {
  return location_->filePath();
}

bool DKAccessControlStore::lookUp(std::string_view providerID,
                                  std::string_view itemID,
                                  std::string_view consumerID) {
  bool allowed = false;
  syncQueue_->sync([&] {
    allowed = syncQueueAccessControlList_.contains(providerID, itemID, consumerID);
  });
  return allowed;
}

bool DKAccessControlStore::isProviderWithIdentifier(std::optional<std::string_view> providerID,
                                                    std::optional<std::string_view> itemID,
                                                    std::optional<std::string_view> consumerID) {
  if (!providerID || !itemID || !consumerID) {
    return false;
  }
  return lookUp(*providerID, *itemID, *consumerID);
}

bool DKAccessControlStore::isProviderIdentifier(std::optional<std::string_view> providerID,
                                                std::optional<std::string_view> itemID,
                                                std::optional<std::string_view> consumerID) {
  if (!providerID || providerID->empty()) {
    return false;
  }
  if (!itemID || itemID->empty()) {
    return false;
  }
  // An empty consumer identifier is looked up; only an absent one is refused.
  if (!consumerID) {
    return false;
  }
  return lookUp(*providerID, *itemID, *consumerID);
}

void DKAccessControlStore::allowProviderWithIdentifier(std::string_view providerID,
                                                       std::string_view itemID,
                                                       std::string_view consumerID) {
  syncQueue_->sync([&] {
    if (!syncQueueAccessControlList_.add(providerID, itemID, consumerID)) {
      return;
    }
    DKLogInfo("Allowing provider ID %@ to provide item ID %@ to consumer ID %@", providerID,
              itemID, consumerID);
    syncQueueCommitAccessControl();
  });
}

void DKAccessControlStore::disallowProviderWithIdentifier(std::string_view providerID,
                                                          std::string_view itemID,
                                                          std::string_view consumerID) {
  syncQueue_->sync([&] {
    if (!syncQueueAccessControlList_.remove(providerID, itemID, consumerID)) {
      return;
    }
    DKLogInfo("No longer allowing provider ID %@ to provide item ID %@ to consumer ID %@",
              providerID, itemID, consumerID);
    syncQueueCommitAccessControl();
  });
}

void DKAccessControlStore::rereadAccessControl() {
  syncQueue_->async([self = shared_from_this()] { self->syncQueueReadAccessControl(); });
}

void DKAccessControlStore::syncQueueReadAccessControl() {
  DK_ASSERT_ON_QUEUE(*syncQueue_, "syncQueueReadAccessControl");
  readAccessControl();
}

void DKAccessControlStore::readAccessControl() {
  const std::string& path = location_->filePath();
  // A missing file leaves the list as it is, so a re-read before the first commit loses
  // nothing.
  if (!platform::fileExistsAtPath(path)) {
    return;
  }
  auto root = platform::readPropertyListFile(path);
  if (!root && isMissingFileError(root.error())) {
    return;  // removed between the two looks: the same as missing
  }
  if (!root) {
    // An unreadable or corrupt file empties the list; the bad file stays until the next commit
    // replaces it.
    syncQueueAccessControlList_ = AccessControlList();
    DKLogError("Cannot read access control from disk. Error: %@", root.error());
    return;
  }
  auto parsed = AccessControlList::fromPropertyList(*root);
  syncQueueAccessControlList_ = std::move(parsed.list);
  DKLogInfo("Successfully read access control from disk.");
  if (parsed.malformedEntries > 0) {
    DKLogError("Ignored %lu malformed entries in access control file %@",
               static_cast<unsigned long>(parsed.malformedEntries), path);
  }
}

void DKAccessControlStore::syncQueueCommitAccessControl() {
  DK_ASSERT_ON_QUEUE(*syncQueue_, "syncQueueCommitAccessControl");
  DKLogInfo("Committing access control list");
  const std::string& path = location_->filePath();
  syncQueueCommitBuffer_ = syncQueueAccessControlList_.toXml(std::move(syncQueueCommitBuffer_));
  auto written = platform::writeFileAtomically(path, syncQueueCommitBuffer_);
  if (!written) {
    DKLogError("Could not write to %@", path);
    DKLogNotice("Access control write failed: %@", written.error());
  }
}

}  // namespace daskel
