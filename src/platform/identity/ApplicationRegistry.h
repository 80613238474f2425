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
// Look-ups are made per request, and a process that exec()s something else gets the new
// identity from its next look-up on. The first look-up through a token inspects the process
// in full; what it found is kept with the token (AuditToken::identityMemo, tokens with a
// pidfd only), and later look-ups through that token check it instead: that the manifests
// are the ones it was judged on, that the process still runs the very same file (device and
// inode of /proc/<pid>/exe) and, for a process known by its executable, that the listed path
// still leads to that file. Anything else means a full inspection. After reading /proc the
// token is checked to be still alive, so a pid reused in the meantime cannot lend its
// identity. A token that is not alive identifies nothing.
//
// Manifests are current on every look-up: an added, removed, renamed, edited, chmod'ed or
// chown'ed manifest counts from the very next look-up on. The directories are watched
// (SearchPathWatch): while nothing has changed in them since they were last scanned, the
// applications found then are used as they are, and the watch is asked, after /proc was read,
// whether that is still so (for a token with a pidfd, in the same system call that asks
// whether it is alive). Anything changed, and anything the watch cannot follow (a manifest
// that is a symbolic link is stat'ed on every look-up), means a rescan: the directories are
// listed and each manifest stat'ed; a parsed manifest, or the reason one was refused, is
// reused only while its file keeps the same signature (device, inode, owner, mode, size,
// modification and change time), which any replacement, chmod, chown or edit changes. A
// manifest that is refused (untrusted owner or mode, unreadable, malformed) is ignored with
// one error line naming the file and the reason, logged once per version of the file, not on
// every look-up. A missing directory is silently empty, and found on the first look-up after
// it appears. (Only a chmod of a directory above a search directory, which could make it
// unreadable to a daemon that is not root, goes unnoticed until something else changes.)
//
// THREADING NOTES: every member may be called from any thread at once; the manifest cache
// and its watch are guarded by an internal mutex, and process inspection runs outside it.
// Ownership: holds an inotify descriptor and one of /proc/self/mountinfo (close-on-exec)
// once the first look-up was made.
// Failure: look-ups answer nothing (nullopt, a null Value); the reasons go to the log.
#pragma once

#include <sys/types.h>

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
#include "platform/identity/SearchPathWatch.h"
#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel::platform {

// What a look-up found out about a process, kept with its token for the next look-up to
// check (see ApplicationRegistry).
struct ProcessIdentityMemo {
  using Applications = std::vector<std::shared_ptr<const Application>>;
  // The applications of the scan it was judged on, which belong to one registry. Held, so
  // that no later scan can reuse their address.
  std::shared_ptr<const Applications> applications;
  // The file the process ran.
  dev_t device = 0;
  ino_t inode = 0;
  // For a process known by its executable, the listed path that led to that file.
  std::optional<std::string> listedExecutable;
  std::shared_ptr<const Application> application;
};

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
  using Applications = ProcessIdentityMemo::Applications;

  // The directories searched now.
  std::vector<std::string> searchDirectories() const;
  // Under mutex_: the applications of the last scan of `directories` while no change is
  // known (`verify`: nor seen by asking the watch now); else scans anew and sets `*scanned`.
  std::shared_ptr<const Applications>
  applicationsLocked(const std::vector<std::string>& directories, bool verify, bool* scanned) const;
  // Under mutex_: rescans the directories, re-reading manifests whose signature changed, and
  // watches them anew; returns the applications that count, in search order.
  std::shared_ptr<const Applications> rescanLocked(
      const std::vector<std::string>& directories) const;
  // The application the token's process is, as cached, or null: current manifests, and the
  // token alive after /proc was read.
  std::shared_ptr<const Application> identify(const AuditToken& token) const;
  // The first of `applications` that the process now holding the token's pid is, or null;
  // on a match, `*memo` receives what a later look-up needs to recall it.
  // Reads /proc by pid: the caller checks the token is alive afterwards.
  std::shared_ptr<const Application> inspectProcess(const AuditToken& token,
                                                    const Applications& applications,
                                                    ProcessIdentityMemo* memo) const;
  // The application the token's memo names, when the memo still holds for `applications`
  // and the process holding the token's pid now; else null.
  // Reads /proc by pid: the caller checks the token is alive afterwards.
  std::shared_ptr<const Application> recall(
      const AuditToken& token,
      const std::shared_ptr<const Applications>& applications) const;

  // nullopt: DASKEL_APPLICATIONS_PATH.
  const std::optional<std::vector<std::string>> directories_;

  mutable std::mutex mutex_;
  // Manifest path to what was read from it; entries of vanished files are dropped.
  mutable std::map<std::string, CachedManifest> manifests_;
  // Directory to the errno last logged for it, so an unreadable directory is reported once.
  mutable std::map<std::string, int> directoryErrors_;
  // What the last scan found, in which directories, and the watch over them since.
  mutable std::shared_ptr<const Applications> applications_;
  mutable std::vector<std::string> scannedDirectories_;
  mutable SearchPathWatch watch_;
};

}  // namespace daskel::platform
