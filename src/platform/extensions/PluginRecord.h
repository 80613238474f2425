// PluginRecord: the plug-in registry's record of one discovered extension bundle, as the rest
// of the daemon sees it: identifier, version, the Info.plist as a dictionary, where the bundle
// and its executable are, which executable file it was when discovered, and the containers of
// its app groups.
//
// Group containers: for each app group in the bundle's entitlements the container is the
// directory <group containers directory>/<group id>/ (DASKEL_GROUP_CONTAINERS_DIR unless
// given). It is created when first asked for, with mode 0700 (missing parents too, also
// 0700), never at discovery; an existing directory is used as it is. A group id that is empty,
// holds "/" or NUL, or is "." or ".." names no container and is refused.
//
// Equality: two records are equal only if identifier, version, Info.plist content, bundle
// location and executable identity (device, inode, modification time) are all the same, so
// an updated Info.plist, a replaced or rewritten executable, or a bundle moved elsewhere
// compares unequal, while the same untouched bundle read twice compares equal.
//
// Ownership: a value, usually shared as std::shared_ptr<const PluginRecord>; owns a copy of
// the bundle it was made from.
// THREADING NOTES: immutable; every member may be called from any thread at once (container
// creation is idempotent and goes to the file system only).
// Failure: groupContainerUrl() returns POSIX-domain errors (errno, its text, the path), or an
// error in kExtensionBundleErrorDomain for a group id that is not the bundle's or not valid;
// groupContainerUrls() logs one error line for each group it has to leave out.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/extensions/ExtensionBundle.h"
#include "platform/url/Url.h"
#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel::platform {

class PluginRecord {
 public:
  // `groupContainersDirectory` is where the containers of the bundle's app groups live
  // (normally groupContainersDirectory()).
  PluginRecord(ExtensionBundle bundle, std::string groupContainersDirectory);

  // Reads the bundle at `bundlePath` (see ExtensionBundle::read) and makes its record with
  // the group containers under groupContainersDirectory().
  static Result<PluginRecord> read(const std::string& bundlePath);

  const std::string& identifier() const { return bundle_.identifier(); }
  const std::optional<std::string>& version() const { return bundle_.version(); }
  // The extension's Info.plist as a dictionary.
  const Value& infoDictionary() const { return bundle_.infoDictionary(); }
  const std::string& extensionPointIdentifier() const { return bundle_.extensionPointIdentifier(); }
  // The bundle directory, as a path and as a directory file URL (ending in "/").
  const std::string& bundlePath() const { return bundle_.path(); }
  const Url& bundleUrl() const { return bundleUrl_; }
  std::string executablePath() const { return bundle_.executablePath(); }
  const ExecutableIdentity& executableIdentity() const { return bundle_.executableIdentity(); }
  const std::vector<std::string>& applicationGroups() const { return bundle_.applicationGroups(); }
  const ExtensionBundle& bundle() const { return bundle_; }
  const std::string& groupContainersDirectory() const { return groupContainersDirectory_; }

  // True for a group id that may name a container directory.
  static bool isValidGroupIdentifier(std::string_view group);

  // The container of app group `group`, one of this bundle's, as a directory file URL;
  // creates it (mode 0700) when it does not exist yet.
  Result<Url> groupContainerUrl(std::string_view group) const;
  // App-group id → container URL for every app group of the bundle whose container could be
  // had; each one left out is logged at error level with the reason.
  std::map<std::string, Url> groupContainerUrls() const;

  // "<identifier> <version> (<bundle path>)", or without the version when there is none;
  // what "%@" prints in a log line.
  std::string description() const;

  bool operator==(const PluginRecord& other) const;

 private:
  ExtensionBundle bundle_;
  std::string groupContainersDirectory_;
  Url bundleUrl_;
};

}  // namespace daskel::platform
