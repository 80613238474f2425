#include "platform/extensions/ExtensionBundle.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/filesystem/FileSystem.h"
#include "platform/identity/TrustedFile.h"

namespace daskel::platform {
namespace {

ErrorPtr bundleError(ExtensionBundleError code, std::string description) {
  return makeError(kExtensionBundleErrorDomain, static_cast<std::int64_t>(code),
                   std::move(description));
}

ErrorPtr malformed(std::string description) {
  return bundleError(ExtensionBundleError::Malformed, std::move(description));
}

const std::string* nonEmptyString(const Value* value) {
  if (!value || !value->string() || value->string()->empty())
    return nullptr;
  return value->string();
}

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  return path;
}

}  // namespace

ExecutableIdentity ExecutableIdentity::ofPath(const std::string& path) {
  ExecutableIdentity identity;
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) {
    identity.statError = errno;
    return identity;
  }
  identity.device = status.st_dev;
  identity.inode = status.st_ino;
  identity.mtimeSeconds = status.st_mtim.tv_sec;
  identity.mtimeNanoseconds = status.st_mtim.tv_nsec;
  return identity;
}

bool ExtensionBundle::isPlainFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

Result<ExtensionBundle> ExtensionBundle::read(const std::string& bundlePath,
                                              FileSignature* infoSignature) {
  if (bundlePath.empty() || bundlePath.front() != '/')
    return failure(bundleError(ExtensionBundleError::Unreadable, "not an absolute path"));
  const std::string path = withoutTrailingSlashes(bundlePath);
  const std::string infoPath = appendingPathComponent(path, kInfoPlistFileName);

  // Without the directory check a bundle that is a plain file would be reported as having
  // an unreadable Info.plist ("Not a directory"), which sends its owner looking elsewhere.
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) {
    const int error = errno;
    if (infoSignature)
      *infoSignature = FileSignature::ofPath(infoPath);
    char buffer[128];
    return failure(bundleError(ExtensionBundleError::Unreadable,
                               std::string("stat: ") + ::strerror_r(error, buffer, sizeof buffer)));
  }
  if (!S_ISDIR(status.st_mode)) {
    if (infoSignature)
      *infoSignature = FileSignature::ofPath(infoPath);
    return failure(malformed("not a directory"));
  }

  FileSignature signature;
  auto info = readTrustedPropertyListFile(infoPath, kMaxInfoPlistSize, &signature);
  if (infoSignature)
    *infoSignature = signature;
  if (!info) {
    if (signature.statError == ENOENT)
      return failure(bundleError(ExtensionBundleError::Unreadable, "no Info.plist"));
    const auto code = info.error()->code == static_cast<std::int64_t>(TrustedFileError::Untrusted)
                          ? ExtensionBundleError::Untrusted
                          : ExtensionBundleError::Unreadable;
    return failure(bundleError(code, "Info.plist: " + info.error()->localizedDescription()));
  }
  return fromInfoDictionary(*info, path);
}

Result<ExtensionBundle> ExtensionBundle::fromInfoDictionary(const Value& info,
                                                            const std::string& bundlePath) {
  if (!info.dictionary())
    return failure(malformed("Info.plist is not a dictionary"));

  // Records hand the bundle out as a file URL, which only an absolute path makes.
  if (bundlePath.empty() || bundlePath.front() != '/' ||
      bundlePath.find('\0') != std::string::npos) {
    return failure(bundleError(ExtensionBundleError::Unreadable, "not an absolute path"));
  }
  ExtensionBundle bundle;
  bundle.path_ = withoutTrailingSlashes(bundlePath);
  bundle.info_ = info;

  const std::string* identifier = nonEmptyString(info.find(kBundleIdentifierKey));
  if (!identifier)
    return failure(malformed("BundleIdentifier is missing or not a non-empty string"));
  bundle.identifier_ = *identifier;

  const Value* executable = info.find(kBundleExecutableKey);
  if (!executable || !executable->string() || !isPlainFileName(*executable->string())) {
    return failure(malformed("BundleExecutable is missing or not a file name inside the bundle"));
  }
  bundle.executableName_ = *executable->string();

  if (const Value* version = info.find(kBundleVersionKey)) {
    if (!version->string())
      return failure(malformed("BundleVersion is not a string"));
    bundle.version_ = *version->string();
  }

  const Value* extension = info.find(kOxExtensionKey);
  if (!extension || !extension->dictionary())
    return failure(malformed("OxExtension is missing or not a dictionary"));
  const std::string* point = nonEmptyString(extension->find(kOxExtensionPointIdentifierKey));
  if (!point) {
    return failure(
        malformed("OxExtension has no OxExtensionPointIdentifier that is a non-empty string"));
  }
  bundle.extensionPointIdentifier_ = *point;

  if (const Value* entitlements = info.find(kEntitlementsKey)) {
    if (!entitlements->dictionary())
      return failure(malformed("Entitlements is not a dictionary"));
    if (const Value* groups = entitlements->find(kApplicationGroupsEntitlement)) {
      const std::string notStrings =
          std::string(kApplicationGroupsEntitlement) + " is not an array of strings";
      if (!groups->array())
        return failure(malformed(notStrings));
      for (const Value& group : *groups->array()) {
        if (!group.string())
          return failure(malformed(notStrings));
        bundle.applicationGroups_.push_back(*group.string());
      }
    }
  }

  bundle.executableIdentity_ = ExecutableIdentity::ofPath(bundle.executablePath());
  return bundle;
}

std::string ExtensionBundle::directoryName() const {
  const std::size_t slash = path_.rfind('/');
  return slash == std::string::npos ? path_ : path_.substr(slash + 1);
}

std::string ExtensionBundle::executablePath() const {
  return appendingPathComponent(path_, executableName_);
}

std::optional<std::string> ExtensionBundle::documentGroup() const {
  const Value* extension = info_.find(kOxExtensionKey);
  const Value* group = extension ? extension->find(kOxExtensionDaskelDocumentGroupKey) : nullptr;
  if (!group || !group->string())
    return std::nullopt;
  return *group->string();
}

ExtensionBundle ExtensionBundle::withCurrentExecutableIdentity() const {
  ExtensionBundle bundle = *this;
  bundle.executableIdentity_ = ExecutableIdentity::ofPath(executablePath());
  return bundle;
}

}  // namespace daskel::platform
