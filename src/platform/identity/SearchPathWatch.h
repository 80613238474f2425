// SearchPathWatch: tells a registry that reads files from the directories of a search path
// whether anything it read may have changed since, usually at the cost of one system call.
// A change is any file created, removed, renamed, written, chmod'ed or chown'ed in one of the
// directories (or a file read from them written through another hard link); one of the
// directories renamed, removed or chmod'ed, or any directory above it renamed or removed; or
// any mount or unmount. (A directory above chmod'ed is not a change: it matters only to a
// daemon that is not root, and only until anything else changes.) It is built on inotify and
// on the mount table's change notification. What those cannot follow is looked at again by
// every check instead: a directory whose path runs through a symbolic link (or is relative)
// is resolved again, a missing directory is looked for again, and a file that is a symbolic
// link (whose target lies elsewhere) is stat'ed and compared with the signature it was read
// with.
//
// Use: reset() with the directories before listing them; watchFile() for each file found,
// before reading it, and checkSignature() with what was read for each file it could not
// watch; later, changed() before trusting what was read. Once a change is seen it is reported
// until the next reset(): the caller is expected to read everything again.
//
// When the kernel gives no watch (no inotify instance or watch left, a directory that cannot
// be watched), changed() reports a change every time, so the caller reads everything on every
// look-up, as it would without a watch.
//
// Ownership: owns an inotify descriptor and one of /proc/self/mountinfo, both close-on-exec,
// kept from the first reset() on (watches are removed and added again, the descriptors kept).
// THREADING NOTES: not synchronised; the owner serialises every call (the registry's mutex).
// Failure: nothing is reported as an error; whatever cannot be watched counts as changed.
#pragma once

#include <poll.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/identity/ApplicationManifest.h"
#include "platform/identity/ScopedFd.h"

namespace daskel::platform {

class SearchPathWatch {
 public:
  SearchPathWatch() = default;
  SearchPathWatch(const SearchPathWatch&) = delete;
  SearchPathWatch& operator=(const SearchPathWatch&) = delete;

  // Drops every earlier watch and starts watching `directories` (empty entries are skipped).
  // Changes made from here on are reported by changed().
  void reset(const std::vector<std::string>& directories);

  // Watches the file `path` found in one of the directories, `type` being the file type of
  // its directory entry (DT_REG, DT_LNK, DT_UNKNOWN, ...). False when it cannot (a symbolic
  // link, or no watch to be had): the caller then hands the file's signature to
  // checkSignature().
  bool watchFile(const std::string& path, unsigned char type);
  // A file that every changed() stats (following symbolic links) and compares with
  // `signature`.
  void checkSignature(std::string path, FileSignature signature);

  // Whether a change was already seen (or the watch is incomplete); no system call.
  bool knownChanged() const { return changed_; }
  // Whether anything may have changed since reset(). `alsoPoll`, when given, is polled for
  // its events in the same system call and gets its revents back (POLLERR when the call
  // failed).
  bool changed(struct pollfd* alsoPoll = nullptr);

 private:
  struct Directory {
    std::string path;
    // Watched: the path and every directory above it are watched; nothing to redo.
    // Resolved: the path is resolved again by every check (it must name `value`, a watch).
    // Missing: the path did not resolve (errno `value`); looked for again by every check.
    enum class Kind { Watched, Resolved, Missing } kind;
    int value;
  };
  struct CheckedFile {
    std::string path;
    FileSignature signature;
  };

  // False when the directory cannot be watched at all.
  bool watchDirectory(const std::string& path);
  // inotify_add_watch, remembering the watch for the next reset(); the watch or -1 (errno).
  int addWatch(const std::string& path, std::uint32_t mask);
  // Takes every queued event off; marks the watch changed when it cannot.
  void drain();

  ScopedFd inotify_;
  ScopedFd mounts_;
  // Every watch added since the last reset(), removed by the next.
  std::vector<int> watches_;
  std::vector<Directory> directories_;
  std::vector<CheckedFile> checkedFiles_;
  // Nothing is watched before the first reset().
  bool changed_ = true;
};

}  // namespace daskel::platform
