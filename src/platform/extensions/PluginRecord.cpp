#include "platform/extensions/PluginRecord.h"

#include <sys/stat.h>

#include <algorithm>
#include <cassert>
#include <cerrno>

#include "platform/filesystem/FileSystem.h"
#include "platform/locations/Locations.h"
#include "platform/log/Log.h"

namespace daskel::platform {
namespace {

constexpr mode_t kContainerMode = 0700;

ErrorPtr refusedGroup(std::string description) {
  return makeError(kExtensionBundleErrorDomain,
                   static_cast<std::int64_t>(ExtensionBundleError::Malformed),
                   std::move(description));
}

// Makes `path` a directory unless it is one: missing parents first, each created with mode
// 0700. The mode is set again after mkdir so that the umask cannot widen or narrow it; an
// existing directory is left as it is.
Result<void> makeDirectory(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) == 0) {
    if (!S_ISDIR(status.st_mode))
      return failure(posixError(ENOTDIR, "Group container is not a directory", path));
    return {};
  }
  if (const int error = errno; error != ENOENT)
    return failure(posixError(error, "Cannot look at group container", path));

  const std::size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) {
    if (auto parent = makeDirectory(path.substr(0, slash)); !parent)
      return parent;
  }
  if (::mkdir(path.c_str(), kContainerMode) != 0) {
    const int error = errno;
    // Another thread or process made it in the meantime; then it only has to be a directory.
    if (error == EEXIST && ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
      return {};
    return failure(posixError(error, "Cannot create group container", path));
  }
  if (::chmod(path.c_str(), kContainerMode) != 0) {
    const int error = errno;
    return failure(posixError(error, "Cannot set the mode of group container", path));
  }
  return {};
}

}  // namespace

PluginRecord::PluginRecord(ExtensionBundle bundle, std::string groupContainersDirectory)
    : bundle_(std::move(bundle)),
      groupContainersDirectory_(std::move(groupContainersDirectory)),
      // ExtensionBundle only holds absolute paths without NUL, which always make a file URL.
      bundleUrl_(*Url::fileUrlWithPath(bundle_.path(), /*isDirectory=*/true)) {}

Result<PluginRecord> PluginRecord::read(const std::string& bundlePath) {
  auto bundle = ExtensionBundle::read(bundlePath);
  if (!bundle)
    return failure(bundle.error());
  return PluginRecord(std::move(*bundle), platform::groupContainersDirectory());
}

bool PluginRecord::isValidGroupIdentifier(std::string_view group) {
  return ExtensionBundle::isPlainFileName(group);
}

Result<Url> PluginRecord::groupContainerUrl(std::string_view group) const {
  const auto& groups = applicationGroups();
  if (std::find(groups.begin(), groups.end(), group) == groups.end()) {
    return failure(
        refusedGroup("\"" + std::string(group) + "\" is not an app group of " + identifier()));
  }
  if (!isValidGroupIdentifier(group)) {
    return failure(refusedGroup("\"" + std::string(group) +
                                "\" cannot name a container (empty, \"/\", \".\" or \"..\")"));
  }
  if (groupContainersDirectory_.empty() || groupContainersDirectory_.front() != '/') {
    return failure(posixError(EINVAL, "Group containers directory is not an absolute path",
                              groupContainersDirectory_));
  }
  const std::string path = appendingPathComponent(groupContainersDirectory_, std::string(group));
  if (auto made = makeDirectory(path); !made)
    return failure(made.error());
  auto url = Url::fileUrlWithPath(path, /*isDirectory=*/true);
  if (!url)
    return failure(posixError(EINVAL, "Group container path makes no file URL", path));
  return *url;
}

std::map<std::string, Url> PluginRecord::groupContainerUrls() const {
  std::map<std::string, Url> urls;
  for (const std::string& group : applicationGroups()) {
    if (urls.contains(group))
      continue;
    auto url = groupContainerUrl(group);
    if (!url) {
      DKLogError("No container for app group \"%@\" of %@: %@", group, identifier(),
                 url.error()->localizedDescription());
      continue;
    }
    urls.emplace(group, std::move(*url));
  }
  return urls;
}

std::string PluginRecord::description() const {
  std::string text = identifier();
  if (version())
    text += " " + *version();
  return text + " (" + bundlePath() + ")";
}

bool PluginRecord::operator==(const PluginRecord& other) const {
  return identifier() == other.identifier() && version() == other.version() &&
         bundlePath() == other.bundlePath() && executableIdentity() == other.executableIdentity() &&
         infoDictionary() == other.infoDictionary();
}

}  // namespace daskel::platform
