#include "platform/filesystem/FileSystem.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

namespace daskel::platform {
namespace fs = std::filesystem;

namespace {

// The kernel's own limit on symbolic links followed while resolving one path.
constexpr int kMaxSymlinkHops = 40;

std::string errnoText(int errorNumber) {
  char buffer[256];
  // GNU strerror_r: returns either `buffer` or a static string.
  return strerror_r(errorNumber, buffer, sizeof buffer);
}

// What the kernel appends to the name of an open file that has since been unlinked.
constexpr std::string_view kDeletedSuffix = " (deleted)";

// The canonical form of `path` when all of it exists (the usual case): the kernel resolves
// every component and symbolic link in one open(), and /proc/self/fd names where it ended,
// so this costs three system calls rather than a stat and a readlink per component. nullopt
// when the path does not entirely exist (a dangling link, a missing tail, a file with a
// trailing separator), or the answer cannot be trusted (the file was removed meanwhile):
// the component-wise resolution below then decides, exactly as before.
std::optional<fs::path> resolvedExistingPath(const std::string& path) {
  const int fd = ::open(path.c_str(), O_PATH | O_CLOEXEC);
  if (fd < 0) {
    return std::nullopt;
  }
  char link[32];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  char buffer[PATH_MAX];
  const ssize_t length = ::readlink(link, buffer, sizeof buffer);
  ::close(fd);
  if (length <= 0 || static_cast<std::size_t>(length) >= sizeof buffer || buffer[0] != '/') {
    return std::nullopt;
  }
  const std::string_view resolved(buffer, static_cast<std::size_t>(length));
  if (resolved.ends_with(kDeletedSuffix)) {
    return std::nullopt;
  }
  return fs::path(resolved);
}

// The canonical form of `path`: weakly_canonical resolves the longest existing prefix and
// appends the rest lexically. A dangling symbolic link ends that prefix although it exists as
// a link, so it is followed here by hand: otherwise "dir/link" with link -> /elsewhere/new
// would read as inside "dir" while anything created through it lands outside.
Result<fs::path> resolvedPath(const std::string& path) {
  if (std::optional<fs::path> existing = resolvedExistingPath(path)) {
    return std::move(*existing);
  }
  fs::path current(path);
  for (int hops = 0; hops <= kMaxSymlinkHops; ++hops) {
    std::error_code ec;
    fs::path resolved = fs::weakly_canonical(current, ec);
    if (ec) {
      return failure(posixError(ec.value(), "Could not resolve", path));
    }
    fs::path prefix;
    auto it = resolved.begin();
    bool followedLink = false;
    for (; it != resolved.end(); ++it) {
      fs::path next = prefix / *it;
      struct stat st;
      if (::lstat(next.c_str(), &st) != 0) {
        break;  // Absent: the rest is lexical.
      }
      if (S_ISLNK(st.st_mode)) {
        // weakly_canonical followed every link that leads somewhere; this one dangles.
        fs::path target = fs::read_symlink(next, ec);
        if (ec) {
          return failure(posixError(ec.value(), "Could not read the symbolic link", next.string()));
        }
        fs::path rest;
        for (++it; it != resolved.end(); ++it) {
          rest /= *it;
        }
        current = (target.is_absolute() ? target : prefix / target) / rest;
        followedLink = true;
        break;
      }
      prefix = std::move(next);
    }
    if (!followedLink) {
      return resolved;
    }
  }
  return failure(posixError(ELOOP, "Could not resolve", path));
}

// The path's components without a trailing empty one (a trailing separator).
std::vector<fs::path> components(const fs::path& path) {
  std::vector<fs::path> result;
  for (const fs::path& component : path) {
    if (!component.empty()) {
      result.push_back(component);
    }
  }
  return result;
}

Result<std::vector<fs::path>> canonicalComponents(const Url& url) {
  if (!url.isFileUrl()) {
    return failure(makeError(kPosixErrorDomain, EINVAL, "Not a file URL: " + url.absoluteString(),
                             {{"URL", Value(url)}}));
  }
  std::string path = url.path();
  // A NUL would cut the path short in every system call; a relative path would depend on the
  // working directory.
  if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos) {
    return failure(makeError(kPosixErrorDomain, EINVAL,
                             "Not an absolute file path: " + url.absoluteString(),
                             {{"URL", Value(url)}}));
  }
  Result<fs::path> resolved = resolvedPath(path);
  if (!resolved) {
    return failure(resolved.error());
  }
  return components(*resolved);
}

}  // namespace

std::string homeDirectory() {
  if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
    return home;
  }
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  struct passwd entry;
  struct passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
      found != nullptr && found->pw_dir != nullptr) {
    return found->pw_dir;
  }
  return "/";
}

bool fileExistsAtPath(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

Result<void> createDirectoryAtPath(const std::string& path) {
  if (path.empty()) {
    return failure(posixError(ENOENT, "Could not create the directory", path));
  }
  std::error_code ec;
  fs::create_directories(path, ec);
  if (ec) {
    return failure(posixError(ec.value(), "Could not create the directory", path));
  }
  // create_directories reports success when the path exists as something else.
  if (!fs::is_directory(path, ec)) {
    return failure(posixError(ec ? ec.value() : ENOTDIR, "Could not create the directory", path));
  }
  return {};
}

std::string appendingPathComponent(const std::string& base, const std::string& component) {
  std::size_t start = component.find_first_not_of('/');
  std::string_view rest =
      start == std::string::npos ? std::string_view() : std::string_view(component).substr(start);
  if (base.empty()) {
    return std::string(rest);
  }
  std::string result = base;
  while (result.size() > 1 && result.back() == '/') {
    result.pop_back();
  }
  if (result.back() != '/') {
    result += '/';
  }
  result += rest;
  return result;
}

Result<DirectoryRelationship> relationshipOfDirectoryToItem(const Url& directory, const Url& item) {
  return relationshipOfDirectoryToItem(directory, item, nullptr);
}

Result<DirectoryRelationship> relationshipOfDirectoryToItem(const Url& directory,
                                                            const Url& item,
                                                            std::string* relativePath) {
  auto directoryParts = canonicalComponents(directory);
  if (!directoryParts) {
    return failure(directoryParts.error());
  }
  auto itemParts = canonicalComponents(item);
  if (!itemParts) {
    return failure(itemParts.error());
  }
  // Component-wise, so that "/a/bc" is not taken to be inside "/a/b".
  if (itemParts->size() < directoryParts->size() ||
      !std::equal(directoryParts->begin(), directoryParts->end(), itemParts->begin())) {
    return DirectoryRelationship::Other;
  }
  if (itemParts->size() == directoryParts->size()) {
    return DirectoryRelationship::Same;
  }
  if (relativePath) {
    relativePath->clear();
    for (auto it = itemParts->begin() + static_cast<std::ptrdiff_t>(directoryParts->size());
         it != itemParts->end(); ++it) {
      if (!relativePath->empty()) {
        relativePath->push_back('/');
      }
      relativePath->append(it->native());
    }
  }
  return DirectoryRelationship::Contains;
}

ErrorPtr posixError(int errorNumber, const std::string& what, const std::string& path) {
  return makeError(kPosixErrorDomain, errorNumber,
                   what + " \"" + path + "\": " + errnoText(errorNumber),
                   {{kPosixErrorPathKey, Value(path)}});
}

}  // namespace daskel::platform
