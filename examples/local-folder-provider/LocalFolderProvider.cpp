#include "LocalFolderProvider.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/filesystem/FileSystem.h"
#include "platform/plist/PropertyList.h"
#include "platform/value/Value.h"

namespace daskel::examples {

namespace fs = std::filesystem;
using platform::failure;
using platform::posixError;
using platform::Result;
using platform::Value;
using sdk::SdkError;
using sdk::sdkError;
using sdk::Url;

namespace {

std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

bool isEarlier(const timespec& a, const timespec& b) {
  return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

bool writeAll(int fd, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, bytes, size);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    bytes += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// Copies the regular file `from` over `to` so that a reader of `to` sees the old content or
// the new, never a part: a temporary file in `to`'s directory, fsync, rename, fsync of the
// directory. The copy gets `from`'s permission bits. Missing parents of `to` are created.
Result<void> copyFileAtomically(const std::string& from, const std::string& to) {
  const int source = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (source < 0) {
    return failure(posixError(errno, "Could not open", from));
  }
  struct stat status = {};
  if (::fstat(source, &status) != 0 || !S_ISREG(status.st_mode)) {
    const int error = S_ISDIR(status.st_mode) ? EISDIR : errno;
    ::close(source);
    return failure(posixError(error, "Could not copy", from));
  }
  const fs::path target(to);
  std::error_code made;
  fs::create_directories(target.parent_path(), made);
  // ".<name>" is the placeholder's name; the temporary file must not collide with it.
  std::string temporary =
      (target.parent_path() / ("." + target.filename().string() + ".partial-XXXXXX")).string();
  const int copy = made ? -1 : ::mkostemp(temporary.data(), O_CLOEXEC);
  if (copy < 0) {
    const int error = made ? made.value() : errno;
    ::close(source);
    return failure(posixError(error, "Could not write", to));
  }
  auto fail = [&](int error, const char* what, const std::string& path) {
    ::close(source);
    ::close(copy);
    ::unlink(temporary.c_str());
    return failure(posixError(error, what, path));
  };
  char buffer[64 * 1024];
  for (;;) {
    const ssize_t n = ::read(source, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      return fail(errno, "Could not read", from);
    }
    if (n == 0) {
      break;
    }
    if (!writeAll(copy, buffer, static_cast<std::size_t>(n))) {
      return fail(errno, "Could not write", to);
    }
  }
  if (::fchmod(copy, status.st_mode & 0777) != 0 || ::fsync(copy) != 0) {
    return fail(errno, "Could not write", to);
  }
  ::close(source);
  if (::close(copy) != 0 || ::rename(temporary.c_str(), to.c_str()) != 0) {
    const int error = errno;
    ::unlink(temporary.c_str());
    return failure(posixError(error, "Could not write", to));
  }
  const int directory =
      ::open(target.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory >= 0) {
    ::fsync(directory);
    ::close(directory);
  }
  return {};
}

}  // namespace

Result<std::string> LocalFolderProvider::sourceDirectory() const {
  if (sourceDirectory_) {
    return withoutTrailingSlash(*sourceDirectory_);
  }
  const Value* configured = context().infoDictionary().find(kLocalFolderSourceDirectoryKey);
  const std::string* text = configured ? configured->string() : nullptr;
  if (text == nullptr || text->empty()) {
    return failure(sdkError(SdkError::Misconfigured,
                            context().bundlePath() + ": the Info.plist has no " +
                                kLocalFolderSourceDirectoryKey + " string"));
  }
  if (text->front() == '/') {
    return withoutTrailingSlash(*text);
  }
  if (text->starts_with("~/")) {
    return withoutTrailingSlash(platform::homeDirectory() + text->substr(1));
  }
  return withoutTrailingSlash(context().bundlePath() + "/" + *text);
}

Result<std::string> LocalFolderProvider::sourcePathForIdentifier(
    const std::string& identifier) const {
  auto root = sourceDirectory();
  if (!root) {
    return failure(root.error());
  }
  const std::string what = "item identifier \"" + identifier + "\"";
  if (identifier.empty() || identifier.front() == '/' ||
      identifier.find('\0') != std::string::npos) {
    return failure(sdkError(SdkError::InvalidItem, what + " is not a relative path"));
  }
  const std::string path = *root + "/" + withoutTrailingSlash(identifier);
  auto rootUrl = Url::fileUrlWithPath(*root, true);
  auto itemUrl = Url::fileUrlWithPath(path, false);
  if (!rootUrl || !itemUrl) {
    return failure(sdkError(SdkError::InvalidItem, what + " makes no valid path"));
  }
  // Resolves symbolic links of what exists and ".." lexically, so "../x" and a link to
  // /etc are both "not inside".
  auto relationship = platform::relationshipOfDirectoryToItem(*rootUrl, *itemUrl);
  if (!relationship) {
    return failure(sdkError(SdkError::InvalidItem,
                            what + ": " + relationship.error()->localizedDescription()));
  }
  if (*relationship != platform::DirectoryRelationship::Contains) {
    return failure(sdkError(SdkError::InvalidItem,
                            what + " leads out of the source folder " + *root));
  }
  return path;
}

Result<LocalFolderProvider::Item> LocalFolderProvider::itemAt(const Url& url) const {
  auto identifier = itemIdentifierForUrl(url);
  if (!identifier) {
    return failure(identifier.error());
  }
  auto source = sourcePathForIdentifier(*identifier);
  if (!source) {
    return failure(source.error());
  }
  return Item{*identifier, *source,
              withoutTrailingSlash(context().storageDirectoryPath() + "/" + *identifier)};
}

void LocalFolderProvider::performInitialSetup(sdk::SetupCompletion completion) {
  auto root = sourceDirectory();
  if (!root) {
    completion(root.error());
    return;
  }
  struct stat status;
  if (::stat(root->c_str(), &status) != 0) {
    completion(posixError(errno, "Cannot use the source folder", *root));
    return;
  }
  if (!S_ISDIR(status.st_mode)) {
    completion(posixError(ENOTDIR, "The source folder is not a directory:", *root));
    return;
  }
  completion(nullptr);
}

void LocalFolderProvider::providePlaceholder(const Url& url,
                                             sdk::PlaceholderCompletion completion) {
  auto item = itemAt(url);
  if (!item) {
    completion(std::nullopt, item.error());
    return;
  }
  auto placeholder = placeholderUrlForItem(url);
  if (!placeholder) {
    completion(std::nullopt, placeholder.error());
    return;
  }
  struct stat status;
  if (::stat(item->sourcePath.c_str(), &status) != 0) {
    completion(std::nullopt, posixError(errno, "No such item in the source folder:",
                                        item->sourcePath));
    return;
  }
  const Value description(Value::Dictionary{
      {"Name", Value(url.lastPathComponent())},
      {"Size", Value(static_cast<std::int64_t>(status.st_size))},
      {"ModificationDate", Value(static_cast<double>(status.st_mtim.tv_sec) +
                                 static_cast<double>(status.st_mtim.tv_nsec) / 1e9)},
  });
  // A folder of the source folder needs no stand-in: opening a directory is never held.
  auto written =
      writePlaceholderFile(*placeholder, platform::serializeXmlPropertyList(description),
                           S_ISDIR(status.st_mode) ? StandIn::None : StandIn::CreateIfAbsent);
  if (!written) {
    completion(std::nullopt, written.error());
    return;
  }
  completion(*placeholder, nullptr);
}

void LocalFolderProvider::startProviding(const Url& url, sdk::ItemCompletion completion) {
  auto item = itemAt(url);
  if (!item) {
    completion(item.error());
    return;
  }
  // A copy that is present and not older than its source file is kept: it may hold edits
  // that are on their way back. A stand-in is no copy.
  struct stat copy;
  struct stat source;
  if (::lstat(item->storagePath.c_str(), &copy) == 0 && S_ISREG(copy.st_mode) && !isStandIn(url) &&
      ::stat(item->sourcePath.c_str(), &source) == 0 && !isEarlier(copy.st_mtim, source.st_mtim)) {
    completion(nullptr);
    return;
  }
  auto copied = copyFileAtomically(item->sourcePath, item->storagePath);
  completion(copied ? nullptr : copied.error());
}

void LocalFolderProvider::stopProviding(const Url& url, sdk::ItemCompletion completion) {
  auto item = itemAt(url);
  if (!item) {
    completion(item.error());
    return;
  }
  // The copy gives way to a stand-in, so that a plain open() can fetch the item again.
  auto evicted = evictToStandIn(url);
  completion(evicted ? nullptr : evicted.error());
}

void LocalFolderProvider::itemChanged(const Url& url, sdk::ItemCompletion completion) {
  auto item = itemAt(url);
  if (!item) {
    completion(item.error());
    return;
  }
  auto copied = copyFileAtomically(item->storagePath, item->sourcePath);
  completion(copied ? nullptr : copied.error());
}

void LocalFolderProvider::urlForItemIdentifier(const std::string& identifier,
                                               sdk::UrlCompletion completion) {
  if (auto source = sourcePathForIdentifier(identifier); !source) {
    completion(source.error(), std::nullopt);
    return;
  }
  ProviderExtension::urlForItemIdentifier(identifier, std::move(completion));
}

}  // namespace daskel::examples
