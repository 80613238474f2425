// ExtensionCatalog: the extension bundles installed in a list of directories, read on demand
// (the plug-in registry's view of the disk). ExtensionMatcher rescans it after every change;
// it can also be asked once, for a look-up by identifier.
//
// A scan lists each directory (in the order given; a missing one is silently empty) for
// entries named "<Name>.dkext" (not hidden), in name order, and reads each as an
// ExtensionBundle. Search order is therefore directory order, then name order.
// - A bundle that cannot be used (not a directory, no or untrusted or unreadable Info.plist,
//   Info.plist of the wrong shape) is left out with one error line naming the bundle and the
//   reason: "Ignoring extension bundle <path>: <reason>". The line is written once per version
//   of the Info.plist, not on every scan.
// - When several bundles claim one identifier, the first in search order counts and each
//   later one is left out with one notice line, "Ignoring extension bundle <path>: its
//   identifier <id> is already used by <path>", written when the conflict first appears. This
//   is decided over all bundles, whatever point they extend, so a look-up by identifier and a
//   match by extension point always agree on which bundle an identifier means.
// - A bundle's Info.plist is parsed again only when its signature (inode, owner, mode, size,
//   times) changed; the executable's identity is looked up on every scan. A record equal to
//   the one the previous scan returned for the same bundle is returned as the same object.
//
// Ownership: owns its cache of what each bundle path held at the last scan.
// THREADING NOTES: every member may be called from any thread; scans are serialised by an
// internal mutex (the visitor runs under it and must not call back into the catalog).
// Failure: nothing is returned as an error; what is left out is explained in the log.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "platform/extensions/ExtensionBundle.h"
#include "platform/extensions/PluginRecord.h"
#include "platform/identity/ApplicationManifest.h"

namespace daskel::platform {

class ExtensionCatalog {
 public:
  using Records = std::vector<std::shared_ptr<const PluginRecord>>;
  // Called with a bundle's path before the bundle is read.
  using BundleVisitor = std::function<void(const std::string& bundlePath)>;

  // The directories of DASKEL_EXTENSIONS_PATH and the group containers directory
  // DASKEL_GROUP_CONTAINERS_DIR, both read now, once.
  ExtensionCatalog();
  // Exactly `directories`, in this order; records get their group containers under
  // `groupContainersDirectory`.
  ExtensionCatalog(std::vector<std::string> directories, std::string groupContainersDirectory);
  ~ExtensionCatalog();
  ExtensionCatalog(const ExtensionCatalog&) = delete;
  ExtensionCatalog& operator=(const ExtensionCatalog&) = delete;

  const std::vector<std::string>& directories() const { return directories_; }
  const std::string& groupContainersDirectory() const { return groupContainersDirectory_; }

  // Every bundle that counts now, in search order, one per identifier. `beforeReading`, when
  // given, sees each bundle path before it is read (so a watcher can start watching a bundle
  // before looking at it, and miss no change).
  Records scan(const BundleVisitor& beforeReading = {});

  // The records of `records` that extend `extensionPointIdentifier`, in their order.
  static Records matching(const Records& records, std::string_view extensionPointIdentifier);

  // The record with `identifier` in a fresh scan, or null.
  std::shared_ptr<const PluginRecord> recordForIdentifier(std::string_view identifier);

  // True for a directory entry name that stands for a bundle: "<Name>.dkext", not hidden.
  static bool isBundleName(std::string_view name);

 private:
  struct CachedBundle {
    FileSignature infoSignature;
    // The bundle as last read, or why it is left out.
    Result<ExtensionBundle> bundle;
    // The record the last scan returned for it, if any.
    std::shared_ptr<const PluginRecord> record;
  };
  // (identifier, left-out bundle path, bundle path that counts)
  using Conflict = std::tuple<std::string, std::string, std::string>;

  const std::vector<std::string> directories_;
  const std::string groupContainersDirectory_;

  std::mutex mutex_;  // guards everything below
  std::map<std::string, CachedBundle> bundles_;
  std::set<Conflict> conflicts_;
  // Directory to the errno last logged for it, so a directory that cannot be read is
  // reported once.
  std::map<std::string, int> directoryErrors_;
};

}  // namespace daskel::platform
