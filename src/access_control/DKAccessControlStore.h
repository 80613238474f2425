// DKAccessControlStore: the process-wide record of which provider may hand which item to which
// consumer, kept in the access-control file and re-read after the first-unlock notification.
//
// Ownership: sharedStore() creates the one store of the daemon on first use and keeps it for
// the life of the process. Tests make private stores with create() on a file of their own.
// The store borrows nothing; it shares the notify center it observes.
//
// THREADING NOTES: every public member may be called from any thread *except* the store's own
// sync queue ("DKAccessControlStore sync queue", serial). Queries and changes run
// synchronously on that queue, which is the store's only lock; a change writes the file inside
// the same block, so the caller returns after the write and the file always holds a prefix of
// the changes in queue order. Re-reads run asynchronously on the queue. Members named
// syncQueue... must run on the sync queue.
//
// Failures (unreadable file, failed write, directory that cannot be created) end in log lines;
// no caller is told, and the in-memory list stays authoritative until the next good commit.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "access_control/DKAccessControl.h"
#include "access_control/AccessControlList.h"
#include "platform/dispatch/DispatchQueue.h"
#include "platform/notify/SystemNotifyCenter.h"

namespace daskel {

class AccessControlLocation;

class DKAccessControlStore : public DKAccessControl,
                             public std::enable_shared_from_this<DKAccessControlStore> {
 public:
  static constexpr char kSyncQueueLabel[] = "DKAccessControlStore sync queue";

  // The daemon's store, on <home>/Library/Daskel/AccessControl.plist, observing the live
  // first-unlock notification. Created once, thread-safely; reads the file on the calling
  // thread the first time.
  static std::shared_ptr<DKAccessControlStore> sharedStore();

  // A store of its own on `filePath` (whose directory it creates when missing), observing
  // `notifyCenter`. Reads the file before it returns.
  static std::shared_ptr<DKAccessControlStore> create(
      std::string filePath,
      std::shared_ptr<platform::SystemNotifyCenter> notifyCenter);

  DKAccessControlStore(const DKAccessControlStore&) = delete;
  DKAccessControlStore& operator=(const DKAccessControlStore&) = delete;
  ~DKAccessControlStore() override;

  // Lenient argument test: only absent arguments answer false without looking.
  bool isProviderWithIdentifier(std::optional<std::string_view> providerID,
                                std::optional<std::string_view> itemID,
                                std::optional<std::string_view> consumerID) override;
  // Strict argument test: an absent or empty provider or item identifier, or an absent
  // consumer identifier, answers false without looking; an empty consumer is looked up.
  bool isProviderIdentifier(std::optional<std::string_view> providerID,
                            std::optional<std::string_view> itemID,
                            std::optional<std::string_view> consumerID);

  // Grants, then writes the file before returning. Granting an existing grant changes,
  // logs and writes nothing. Arguments are not tested: callers guarantee them.
  void allowProviderWithIdentifier(std::string_view providerID,
                                   std::string_view itemID,
                                   std::string_view consumerID);
  // Revokes every occurrence, prunes emptied levels, then writes the file before returning.
  // Revoking a missing grant changes, logs and writes nothing.
  void disallowProviderWithIdentifier(std::string_view providerID,
                                      std::string_view itemID,
                                      std::string_view consumerID);

  // Enqueues a re-read of the file on the sync queue and returns at once.
  void rereadAccessControl();

  // Replace the in-memory list with the file's content / write the list to the file. Must be
  // called on the sync queue.
  void syncQueueReadAccessControl();
  void syncQueueCommitAccessControl();

  std::shared_ptr<platform::DispatchQueue> syncQueue() const { return syncQueue_; }
  void setSyncQueue(std::shared_ptr<platform::DispatchQueue> queue) {
    syncQueue_ = std::move(queue);
  }

  const std::string& accessControlFilePath() const;

 private:
  DKAccessControlStore(std::shared_ptr<AccessControlLocation> location,
                       std::shared_ptr<platform::SystemNotifyCenter> notifyCenter);
  static std::shared_ptr<DKAccessControlStore> make(
      std::shared_ptr<AccessControlLocation> location,
      std::shared_ptr<platform::SystemNotifyCenter> notifyCenter);

  void readAccessControl();
  bool lookUp(std::string_view providerID, std::string_view itemID, std::string_view consumerID);

  // Touched only on syncQueue_, except by the first read during construction.
  AccessControlList syncQueueAccessControlList_;
  // The last file image, kept so the next commit serialises into memory already mapped.
  std::string syncQueueCommitBuffer_;
  std::shared_ptr<platform::DispatchQueue> syncQueue_;
  const std::shared_ptr<AccessControlLocation> location_;
  const std::shared_ptr<platform::SystemNotifyCenter> notifyCenter_;
};

}  // namespace daskel
