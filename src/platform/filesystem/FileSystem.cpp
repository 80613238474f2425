#include "platform/filesystem/FileSystem.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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

// Appends the components of `path` to `result`, each after one separator (none doubled,
// empty components dropped). False when one is "." or "..", which only resolution can
// interpret.
bool appendNormalizedComponents(std::string& result, std::string_view path) {
  std::size_t start = 0;
  while (start < path.size()) {
    std::size_t next = path.find('/', start);
    if (next == std::string_view::npos) {
      next = path.size();
    }
    const std::string_view part = path.substr(start, next - start);
    if (part == "." || part == "..") {
      return false;
    }
    if (!part.empty()) {
      if (result.empty() || result.back() != '/') {
        result.push_back('/');
      }
      result.append(part);
    }
    start = next + 1;
  }
  return true;
}

// Where `fd` leads as an absolute canonical path; nullopt when the kernel's name is not one
// (a socket, say) or the file was removed since it was opened.
std::optional<std::string> canonicalPathOfDescriptor(int fd) {
  std::optional<std::string> name = pathOfDescriptor(fd);
  if (!name || name->empty() || name->front() != '/' || name->ends_with(kDeletedSuffix)) {
    return std::nullopt;
  }
  return name;
}

// The canonical form of `path` when it is written plainly (no "." or "..") and reaches an
// existing file through no symbolic link, as the paths of most items do: it is then its own
// canonical form once doubled and trailing separators are dropped. One openat2() that refuses
// every link answers that, without asking /proc/self/fd where an open() led. nullopt
// otherwise; `openError` is set only for an error that open() would meet just the same (a
// missing name or a file in place of a directory, reached before any link), and is 0 when the
// general resolution below has to decide (a link on the way, a kernel without openat2).
std::optional<std::string> resolvedLinkFreePath(const char* path, int* openError) {
  std::string written;
  if (path[0] != '/' || !appendNormalizedComponents(written, path)) {
    return std::nullopt;
  }
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = RESOLVE_NO_SYMLINKS;
  const long fd = ::syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how);
  if (fd < 0) {
    if (errno == ENOENT || errno == ENOTDIR) {
      *openError = errno;
    }
    return std::nullopt;
  }
  ::close(static_cast<int>(fd));
  return written.empty() ? std::string("/") : written;
}

// The canonical form of `path` when all of it exists (the usual case): the kernel resolves
// every component and symbolic link in one open(), and /proc/self/fd names where it ended,
// so this costs three system calls rather than a stat and a readlink per component. nullopt
// when the path does not entirely exist (a dangling link, a missing tail, a file with a
// trailing separator), or the answer cannot be trusted (the file was removed meanwhile):
// `openError` then holds open()'s errno (0 when open() succeeded), and the resolution below
// decides.
std::optional<std::string> resolvedExistingPath(const char* path, int* openError) {
  *openError = 0;
  if (std::optional<std::string> linkFree = resolvedLinkFreePath(path, openError)) {
    return linkFree;
  }
  if (*openError != 0) {
    return std::nullopt;
  }
  const int fd = ::open(path, O_PATH | O_CLOEXEC);
  if (fd < 0) {
    *openError = errno;
    return std::nullopt;
  }
  std::optional<std::string> resolved = canonicalPathOfDescriptor(fd);
  ::close(fd);
  return resolved;
}

// The canonical form of `path` when only its tail is missing, as it is for an item that
// does not exist yet: the nearest ancestor that exists is resolved as above, and the missing
// names are appended to it. Only for a path of plain names (no "." or "..", which would make
// the tail's meaning depend on what is missing), and only when the first missing name is
// absent from that ancestor, so nothing below it can exist either (a dangling symbolic link
// there is not absent, and is left to the component-wise resolution that follows it).
// nullopt whenever that does not hold: the component-wise resolution then decides.
std::optional<std::string> resolvedPathWithMissingTail(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') {
    path.remove_suffix(1);
  }
  // Walk up, one missing name at a time, to the nearest ancestor that opens.
  std::size_t end = path.size();  // the missing part is path[end..]
  for (;;) {
    const std::size_t slash = path.rfind('/', end - 1);
    if (slash == std::string_view::npos) {
      return std::nullopt;
    }
    const std::string_view name = path.substr(slash + 1, end - slash - 1);
    if (name == "." || name == "..") {
      return std::nullopt;
    }
    std::size_t headEnd = slash;
    while (headEnd > 0 && path[headEnd - 1] == '/') {
      --headEnd;  // "a//b": the head is "a"
    }
    if (name.empty()) {  // a doubled separator inside the missing part
      end = headEnd;
      continue;
    }
    const std::string head(headEnd == 0 ? std::string_view("/") : path.substr(0, headEnd));
    const int fd = ::open(head.c_str(), O_PATH | O_CLOEXEC);
    if (fd < 0) {
      if (errno != ENOENT || headEnd == 0) {
        return std::nullopt;
      }
      end = headEnd;
      continue;
    }
    // `head` exists: `name` must be absent from it, not a dangling link.
    struct stat st;
    const std::string firstMissing(name);
    const bool absent = ::fstatat(fd, firstMissing.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 &&
                        errno == ENOENT;
    std::optional<std::string> resolvedHead = absent ? canonicalPathOfDescriptor(fd) : std::nullopt;
    ::close(fd);
    if (!resolvedHead) {
      return std::nullopt;
    }
    std::string result = std::move(*resolvedHead);
    // The missing names; none may be "." or "..".
    if (!appendNormalizedComponents(result, path.substr(slash + 1))) {
      return std::nullopt;
    }
    return result;
  }
}

// The canonical form of `path`: weakly_canonical resolves the longest existing prefix and
// appends the rest lexically. A dangling symbolic link ends that prefix although it exists as
// a link, so it is followed here by hand: otherwise "dir/link" with link -> /elsewhere/new
// would read as inside "dir" while anything created through it lands outside.
Result<fs::path> resolvedPath(const std::string& path) {
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

// The URL's path, checked to be an absolute file path that system calls can take.
Result<std::string> filePath(const Url& url) {
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
  return path;
}

// The canonical form of an absolute path as text: "/" or "/a/b", never a trailing separator.
// The cheap resolutions first; the component-wise one for whatever they leave.
Result<std::string> canonicalPath(const std::string& path) {
  int openError = 0;
  if (std::optional<std::string> existing = resolvedExistingPath(path.c_str(), &openError)) {
    return std::move(*existing);
  }
  if (openError == ENOENT) {
    if (std::optional<std::string> withTail = resolvedPathWithMissingTail(path)) {
      return std::move(*withTail);
    }
  }
  Result<fs::path> resolved = resolvedPath(path);
  if (!resolved) {
    return failure(resolved.error());
  }
  std::string text;
  for (const fs::path& component : *resolved) {
    const std::string& part = component.native();
    if (part.empty() || part == "/") {
      continue;  // the root (added below) and a trailing separator
    }
    text.push_back('/');
    text.append(part);
  }
  return text.empty() ? std::string("/") : text;
}

// `path` written as its canonical form would be if it is one: doubled and trailing
// separators removed. nullopt when it has a "." or ".." component, which only resolution
// can interpret.
std::optional<std::string> normalizedAbsolutePath(std::string_view path) {
  std::string result;
  result.reserve(path.size());
  if (!appendNormalizedComponents(result, path)) {
    return std::nullopt;
  }
  return result.empty() ? std::string("/") : result;
}

// How the canonical path `directory` relates to the canonical path `item`, component by
// component (so that "/a/bc" is not inside "/a/b"); `relativePath` as for the public function.
DirectoryRelationship compareCanonical(const std::string& directory,
                                       const std::string& item,
                                       std::string* relativePath) {
  if (item == directory) {
    return DirectoryRelationship::Same;
  }
  std::size_t restStart;
  if (directory == "/") {
    restStart = 1;
  } else if (item.size() > directory.size() && item.starts_with(directory) &&
             item[directory.size()] == '/') {
    restStart = directory.size() + 1;
  } else {
    return DirectoryRelationship::Other;
  }
  if (relativePath) {
    relativePath->assign(item, restStart);
  }
  return DirectoryRelationship::Contains;
}

}  // namespace

std::optional<std::string> pathOfDescriptor(int fd) {
  char link[32];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  char buffer[PATH_MAX];
  const ssize_t length = ::readlink(link, buffer, sizeof buffer);
  if (length <= 0 || static_cast<std::size_t>(length) >= sizeof buffer) {
    return std::nullopt;
  }
  return std::string(buffer, static_cast<std::size_t>(length));
}

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
  return relationshipOfDirectoryToItem(directory, ResolvedItem(item), relativePath);
}

ResolvedItem::ResolvedItem(const Url& item)
    : path_(filePath(item)),
      canonical_(path_ ? canonicalPath(*path_) : Result<std::string>(failure(path_.error()))) {}

Result<DirectoryRelationship> relationshipOfDirectoryToItem(const Url& directory,
                                                            const ResolvedItem& item,
                                                            std::string* relativePath) {
  Result<std::string> directoryPath = filePath(directory);
  if (!directoryPath) {
    return failure(directoryPath.error());
  }
  if (!item.path_) {
    return failure(item.path_.error());
  }
  const Result<std::string>& canonicalItem = item.canonical_;
  if (!canonicalItem) {
    // The directory's failure, when it has one, is the one reported.
    Result<std::string> canonicalDirectory = canonicalPath(*directoryPath);
    return failure(canonicalDirectory ? canonicalItem.error() : canonicalDirectory.error());
  }
  // The directory usually needs no resolution of its own. Every leading part of a canonical
  // path is itself canonical; so when the directory, as written, is such a part of the item's
  // canonical form, it is its own canonical form, and the answer follows from the item's
  // resolution alone. This is exact, not a guess that could go stale: it is judged on the
  // item's resolution made just now.
  if (std::optional<std::string> written = normalizedAbsolutePath(*directoryPath)) {
    const DirectoryRelationship relationship =
        compareCanonical(*written, *canonicalItem, relativePath);
    if (relationship != DirectoryRelationship::Other) {
      return relationship;
    }
  }
  Result<std::string> canonicalDirectory = canonicalPath(*directoryPath);
  if (!canonicalDirectory) {
    return failure(canonicalDirectory.error());
  }
  return compareCanonical(*canonicalDirectory, *canonicalItem, relativePath);
}

ErrorPtr posixError(int errorNumber, const std::string& what, const std::string& path) {
  return makeError(kPosixErrorDomain, errorNumber,
                   what + " \"" + path + "\": " + errnoText(errorNumber),
                   {{kPosixErrorPathKey, Value(path)}});
}

}  // namespace daskel::platform
