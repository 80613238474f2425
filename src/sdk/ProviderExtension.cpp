#include "sdk/ProviderExtension.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "platform/filesystem/FileSystem.h"
#include "platform/plist/PropertyList.h"
#include "platform/value/Value.h"

namespace daskel::sdk {

namespace fs = std::filesystem;
using platform::DirectoryRelationship;
using platform::failure;
using platform::Result;
using platform::Value;

namespace {

// The path without trailing separators ("/" stays "/").
std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

Result<void> requireInside(const Url& storage, const Url& item, const std::string& what) {
  auto relationship = platform::relationshipOfDirectoryToItem(storage, item);
  if (!relationship) {
    return failure(sdkError(SdkError::InvalidItem,
                            what + ": " + relationship.error()->localizedDescription()));
  }
  if (*relationship != DirectoryRelationship::Contains) {
    return failure(sdkError(SdkError::InvalidItem,
                            what + " is not inside the storage directory " +
                                storage.absoluteString()));
  }
  return {};
}

bool refusesUserAttributes(int error) {
  return error == ENOTSUP || error == EOPNOTSUPP;
}

ErrorPtr storageError(const std::string& what, int error) {
  return sdkError(SdkError::StorageUnavailable, what + ": " + std::strerror(error));
}

// A new empty file named ".<name>.stand-in-XXXXXX" in `directory`, with mode `mode` and
// marked as a stand-in (unmarked where the file system refuses user extended attributes),
// ready to be moved to `directory`/`name`. Returns its path.
Result<std::string> makeStandInFile(const std::string& directory,
                                    const std::string& name,
                                    mode_t mode) {
  std::string temporary = directory + "/." + name + ".stand-in-XXXXXX";
  const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) {
    const int error = errno;
    return failure(storageError("cannot make a stand-in for " + directory + "/" + name, error));
  }
  int error = 0;
  if (::fchmod(fd, mode) != 0) {
    error = errno;
  } else if (::fsetxattr(fd, ProviderExtension::kStandInAttribute, "", 0, 0) != 0 &&
             !refusesUserAttributes(errno)) {
    error = errno;
  }
  ::close(fd);
  if (error != 0) {
    ::unlink(temporary.c_str());
    return failure(storageError("cannot make a stand-in for " + directory + "/" + name, error));
  }
  return temporary;
}

// Puts a stand-in at `path` unless something (a file, a directory, a dangling link) is
// there. The stand-in is marked before it appears, so nobody sees an unmarked empty file.
Result<void> createStandInIfAbsent(const std::string& path) {
  const fs::path item(path);
  const std::string directory = item.parent_path().string();
  const std::string name = item.filename().string();
  struct stat existing;
  if (::lstat(path.c_str(), &existing) == 0)
    return {};
  auto temporary = makeStandInFile(directory, name, 0644);
  if (!temporary)
    return failure(temporary.error());
  // Moved into place only if the name is still free; file systems without that kind of
  // rename (EINVAL) get a hard link, which never replaces either.
  int error = 0;
  if (::renameat2(AT_FDCWD, temporary->c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) != 0) {
    error = errno;
    if (error == EINVAL)
      error = ::link(temporary->c_str(), path.c_str()) == 0 ? 0 : errno;
    ::unlink(temporary->c_str());
  }
  if (error != 0 && error != EEXIST)
    return failure(storageError("cannot make the stand-in " + path, error));
  return {};
}

}  // namespace

const ExtensionContext& ProviderExtension::context() const {
  assert(context_ && "the extension's context is set before it serves requests");
  return *context_;
}

void ProviderExtension::performInitialSetup(SetupCompletion completion) {
  completion(nullptr);
}

void ProviderExtension::providePlaceholder(const Url& url, PlaceholderCompletion completion) {
  auto placeholder = placeholderUrlForItem(url);
  if (!placeholder) {
    completion(std::nullopt, placeholder.error());
    return;
  }
  auto identifier = itemIdentifierForUrl(url);
  Value::Dictionary description{{"Name", Value(url.lastPathComponent())}};
  if (identifier) {
    description.emplace("ItemIdentifier", Value(*identifier));
  }
  // A directory item needs no stand-in: opening a directory is never held.
  auto written =
      writePlaceholderFile(*placeholder, platform::serializeXmlPropertyList(Value(description)),
                           url.hasDirectoryPath() ? StandIn::None : StandIn::CreateIfAbsent);
  if (!written) {
    completion(std::nullopt, written.error());
    return;
  }
  completion(*placeholder, nullptr);
}

void ProviderExtension::stopProviding(const Url&, ItemCompletion completion) {
  completion(nullptr);
}

void ProviderExtension::itemChanged(const Url&, ItemCompletion completion) {
  completion(nullptr);
}

void ProviderExtension::identifierForItem(const Url& url, IdentifierCompletion completion) {
  auto identifier = itemIdentifierForUrl(url);
  if (!identifier) {
    completion(identifier.error(), std::nullopt);
    return;
  }
  completion(nullptr, std::move(*identifier));
}

void ProviderExtension::urlForItemIdentifier(const std::string& identifier,
                                             UrlCompletion completion) {
  auto url = urlForIdentifier(identifier);
  if (!url) {
    completion(url.error(), std::nullopt);
    return;
  }
  completion(nullptr, std::move(*url));
}

Result<std::string> ProviderExtension::itemIdentifierForUrl(const Url& url) const {
  const std::string what = "item " + url.absoluteString();
  if (!url.isFileUrl()) {
    return failure(sdkError(SdkError::InvalidItem, what + " is not a file URL"));
  }
  // The identifier is the relative path the containment test itself resolved and judged:
  // each side is resolved once.
  std::string relative;
  auto relationship =
      platform::relationshipOfDirectoryToItem(storageDirectoryUrl(), url, &relative);
  if (!relationship) {
    return failure(sdkError(SdkError::InvalidItem,
                            what + ": " + relationship.error()->localizedDescription()));
  }
  if (*relationship != DirectoryRelationship::Contains || relative.empty()) {
    return failure(sdkError(SdkError::InvalidItem,
                            what + " is not inside the storage directory " +
                                storageDirectoryUrl().absoluteString()));
  }
  return relative;
}

Result<Url> ProviderExtension::urlForIdentifier(const std::string& identifier) const {
  const std::string what = "item identifier \"" + identifier + "\"";
  if (identifier.empty() || identifier.front() == '/' ||
      identifier.find('\0') != std::string::npos) {
    return failure(sdkError(SdkError::InvalidItem, what + " is not a relative path"));
  }
  for (const auto& component : fs::path(identifier)) {
    if (component == "..") {
      return failure(sdkError(SdkError::InvalidItem, what + " leads out of the storage directory"));
    }
  }
  const std::string path = context().storageDirectoryPath() + "/" + identifier;
  std::error_code ignored;
  const bool isDirectory = identifier.back() == '/' || fs::is_directory(path, ignored);
  std::optional<Url> url = Url::fileUrlWithPath(withoutTrailingSlash(path), isDirectory);
  if (!url) {
    return failure(sdkError(SdkError::InvalidItem, what + " makes no valid URL"));
  }
  if (auto inside = requireInside(storageDirectoryUrl(), *url, what); !inside) {
    return failure(inside.error());
  }
  return *url;
}

Result<Url> ProviderExtension::placeholderUrlForItem(const Url& url) const {
  const std::string what = "item " + url.absoluteString();
  if (!url.isFileUrl()) {
    return failure(sdkError(SdkError::InvalidItem, what + " is not a file URL"));
  }
  if (auto inside = requireInside(storageDirectoryUrl(), url, what); !inside) {
    return failure(inside.error());
  }
  const std::string name = url.lastPathComponent();
  std::optional<Url> parent = url.deletingLastPathComponent();
  std::optional<Url> placeholder =
      parent && !name.empty() ? parent->appendingPathComponent("." + name, false) : std::nullopt;
  if (!placeholder) {
    return failure(sdkError(SdkError::InvalidItem, what + " has no name to make a placeholder of"));
  }
  return *placeholder;
}

Result<void> ProviderExtension::writePlaceholderFile(const Url& placeholderUrl,
                                                     const std::string& bytes,
                                                     StandIn standIn) {
  const std::string path = placeholderUrl.path();
  std::error_code error;
  fs::create_directories(fs::path(path).parent_path(), error);
  if (error) {
    return failure(sdkError(SdkError::StorageUnavailable,
                            "cannot make the directory of placeholder " + path + ": " +
                                error.message()));
  }
  auto written = platform::writeFileAtomically(path, bytes);
  if (!written) {
    return failure(sdkError(SdkError::StorageUnavailable,
                            "cannot write placeholder " + path + ": " +
                                written.error()->localizedDescription()));
  }
  const std::string name = fs::path(path).filename().string();
  if (standIn == StandIn::None || name.size() < 2 || name.front() != '.')
    return {};
  return createStandInIfAbsent((fs::path(path).parent_path() / name.substr(1)).string());
}

bool ProviderExtension::isStandIn(const Url& url) {
  if (!url.isFileUrl())
    return false;
  const std::string path = withoutTrailingSlash(url.path());
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size != 0)
    return false;
  if (::lgetxattr(path.c_str(), kStandInAttribute, nullptr, 0) >= 0)
    return true;
  return refusesUserAttributes(errno);
}

Result<void> ProviderExtension::evictToStandIn(const Url& url) const {
  auto identifier = itemIdentifierForUrl(url);
  if (!identifier)
    return failure(identifier.error());
  const std::string path = withoutTrailingSlash(url.path());
  mode_t mode = 0644;
  struct stat existing;
  if (::lstat(path.c_str(), &existing) == 0) {
    if (S_ISDIR(existing.st_mode)) {
      return failure(sdkError(SdkError::InvalidItem,
                              "item " + url.absoluteString() + " is a directory, not a file"));
    }
    if (isStandIn(url))
      return {};
    if (S_ISREG(existing.st_mode))
      mode = existing.st_mode & 07777;
  }
  const fs::path item(path);
  std::error_code error;
  fs::create_directories(item.parent_path(), error);
  if (error) {
    return failure(
        sdkError(SdkError::StorageUnavailable, "cannot evict " + path + ": " + error.message()));
  }
  auto temporary = makeStandInFile(item.parent_path().string(), item.filename().string(), mode);
  if (!temporary)
    return failure(temporary.error());
  if (::rename(temporary->c_str(), path.c_str()) != 0) {
    const int renameError = errno;
    ::unlink(temporary->c_str());
    return failure(storageError("cannot evict " + path, renameError));
  }
  return {};
}

}  // namespace daskel::sdk
