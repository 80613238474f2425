// File-system questions that Daskel's components ask: home directory, existence, directory
// creation, and the relationship of a directory to an item.
//
// THREADING NOTES: free functions without shared state; safe from any thread.
#pragma once

#include <optional>
#include <string>

#include "platform/url/Url.h"
#include "platform/value/Result.h"

namespace daskel::platform {

// $HOME, or the password database's entry for the current user when HOME is unset.
std::string homeDirectory();
// True when anything exists at `path` (file, directory, or other), without following a final
// symbolic link's absence.
bool fileExistsAtPath(const std::string& path);
// Creates `path` and every missing parent with default attributes (0777 & ~umask).
Result<void> createDirectoryAtPath(const std::string& path);
// `base` + "/" + `component` (no doubled separator).
std::string appendingPathComponent(const std::string& base, const std::string& component);

enum class DirectoryRelationship { Contains, Same, Other };

// Compares file-system objects: each side's longest existing prefix is resolved with symbolic
// links followed; the rest (which need not exist yet) is appended with "." and ".." removed;
// trailing separators are ignored. A symbolic link inside the directory pointing outside is
// therefore not Contains, and neither is "dir/../..". Fails when a side is not a file URL or
// its existing prefix cannot be resolved (permissions, a loop).
Result<DirectoryRelationship> relationshipOfDirectoryToItem(const Url& directory, const Url& item);

// What the open descriptor `fd` refers to, as the kernel names it in /proc/self/fd (a path,
// ending in " (deleted)" for a removed file, or "socket:[...]" and the like); nullopt when it
// cannot be read.
std::optional<std::string> pathOfDescriptor(int fd);
// The same; when the answer is Contains and `relativePath` is not null, it receives the item's
// resolved path relative to the resolved directory ("sub/item.txt"), the very path the
// answer was judged on.
Result<DirectoryRelationship> relationshipOfDirectoryToItem(const Url& directory,
                                                            const Url& item,
                                                            std::string* relativePath);

// An item resolved once, for comparing one item with many directories (every installed
// provider's, say): the item's side of relationshipOfDirectoryToItem, done ahead. The answer
// is judged on the resolution made when this was constructed.
class ResolvedItem {
 public:
  explicit ResolvedItem(const Url& item);

 private:
  friend Result<DirectoryRelationship> relationshipOfDirectoryToItem(const Url& directory,
                                                                     const ResolvedItem& item,
                                                                     std::string* relativePath);
  Result<std::string> path_;       // the item's file path, or why it has none
  Result<std::string> canonical_;  // that path resolved, when there is one
};
// relationshipOfDirectoryToItem for an item resolved ahead, with the same answers and errors.
Result<DirectoryRelationship> relationshipOfDirectoryToItem(const Url& directory,
                                                            const ResolvedItem& item,
                                                            std::string* relativePath = nullptr);

inline constexpr char kPosixErrorDomain[] = "posix";
inline constexpr char kPosixErrorPathKey[] = "path";

// An error in the POSIX domain ("posix"), code errno, with the errno
// text and the path under "path".
ErrorPtr posixError(int errorNumber, const std::string& what, const std::string& path);

}  // namespace daskel::platform
