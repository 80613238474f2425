// ApplicationRegistry: which application a peer process is, and so which bundle identifier
// and entitlements it has, from the manifests (*.plist, see ApplicationManifest.h) in a list
// of directories: DASKEL_APPLICATIONS_PATH, read on every look-up, or directories given
// explicitly (tests).
//
// A process is the application whose manifest lists its executable: the target of
// /proc/<pid>/exe, compared with each listed path resolved (symbolic links followed) and
// required to be the very file the process runs (same device and inode). An executable
// deleted or replaced on disk since the process started it (/proc/<pid>/exe ends in
// " (deleted)") matches no manifest. A Flatpak process (/proc/<pid>/root/.flatpak-info) is
// instead the application whose BundleIdentifier equals its Flatpak application id. When
// several manifests match, the first in search order wins: directories in the order given,
// files within one directory by name.
//
// Look-ups are made per request: the process is inspected anew each time and nothing about
// it is remembered, so a process that exec()s something else gets the new identity. After
// inspecting /proc the token is checked to be still alive, so a pid reused in the meantime
// cannot lend its identity. A token that is not alive identifies nothing.
//
// Manifests are re-validated on every look-up (directory scan and stat); a parsed manifest,
// or the reason one was refused, is reused only while its file keeps the same signature
// (device, inode, owner, mode, size, modification and change time), which any replacement,
// chmod, chown or edit changes. A manifest that is refused (untrusted owner or mode, unreadable,
// malformed) is ignored with one error line naming the file and the reason, logged once per
// version of the file, not on every look-up. A missing directory is silently empty.
//
// THREADING NOTES: every member may be called from any thread at once; the manifest cache
// is guarded by an internal mutex, and process inspection runs outside it.
// Failure: look-ups answer nothing (nullopt, a null Value); the reasons go to the log.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/identity/Application.h"
#include "platform/identity/ApplicationManifest.h"
#include "platform/identity/AuditToken.h"
#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel::platform {

class ApplicationRegistry {
 public:
  // Searches the directories of DASKEL_APPLICATIONS_PATH (applicationsPath()), read anew on
  // every look-up.
  ApplicationRegistry();
  // Searches exactly `directories`, in this order.
  explicit ApplicationRegistry(std::vector<std::string> directories);
  ~ApplicationRegistry();
  ApplicationRegistry(const ApplicationRegistry&) = delete;
  ApplicationRegistry& operator=(const ApplicationRegistry&) = delete;

  // The application the token's process is now, or nullopt (no manifest matches, the
  // process cannot be inspected, or it is gone). Callers that want several facts about one
  // request ask this once rather than each accessor below.
  std::optional<Application> applicationForProcess(const AuditToken& token) const;
  // The value of entitlement `key` of the token's application; null when it has none, or the
  // process is no known application.
  Value entitlementValue(const AuditToken& token, std::string_view key) const;
  std::optional<std::string> bundleIdentifier(const AuditToken& token) const;

  // The first application in search order whose BundleIdentifier is `bundleIdentifier`.
  std::optional<Application> applicationWithBundleIdentifier(
      std::string_view bundleIdentifier) const;
  // Every manifest that currently counts, in search order.
  std::vector<Application> applications() const;

 private:
  struct CachedManifest {
    FileSignature signature;
    // The application, or why the manifest is ignored.
    Result<std::shared_ptr<const Application>> application;
  };

  // Rescans the directories, re-reading manifests whose signature changed; returns the
  // applications that count, in search order.
  std::vector<std::shared_ptr<const Application>> currentApplications() const;
  // The matching application as cached, or null.
  std::shared_ptr<const Application> inspectProcess(
      const AuditToken& token,
      const std::vector<std::shared_ptr<const Application>>& applications) const;

  // nullopt: DASKEL_APPLICATIONS_PATH.
  const std::optional<std::vector<std::string>> directories_;

  mutable std::mutex mutex_;
  // Manifest path to what was read from it; entries of vanished files are dropped.
  mutable std::map<std::string, CachedManifest> manifests_;
  // Directory to the errno last logged for it, so an unreadable directory is reported once.
  mutable std::map<std::string, int> directoryErrors_;
};

}  // namespace daskel::platform
