#include "platform/identity/SearchPathWatch.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace daskel::platform {
namespace {

// What can change a directory's listing or a file in it. Events on the directory's own inode
// (chmod, removal, rename) come with the same mask.
constexpr std::uint32_t kDirectoryMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                         IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB | IN_DELETE_SELF |
                                         IN_MOVE_SELF;
// A directory above a watched one matters as a step of its path: renamed, or removed (which
// replacing it does). Only events on itself: asking for any event of its entries (IN_ATTRIB
// included) has the kernel mark every cached entry of it, thousands in /tmp or a home
// directory, on every watch added or removed.
constexpr std::uint32_t kAncestorMask = IN_DELETE_SELF | IN_MOVE_SELF;
// A file read from a directory: written or chmod'ed through any of its names (a hard link
// elsewhere is not seen by the directory's watch), removed or renamed.
constexpr std::uint32_t kFileMask =
    IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF;

// Whether `path` is the one name the kernel resolves it to: absolute, without ".", ".." or
// repeated slashes, and without a symbolic link on the way.
bool isResolvedPath(const std::string& path) {
  char* resolved = ::realpath(path.c_str(), nullptr);
  const bool same = resolved && path == resolved;
  std::free(resolved);
  return same;
}

int pollOnce(struct pollfd* fds, nfds_t count) {
  int ready;
  do {
    ready = ::poll(fds, count, 0);
  } while (ready < 0 && errno == EINTR);
  return ready;
}

}  // namespace

void SearchPathWatch::reset(const std::vector<std::string>& directories) {
  directories_.clear();
  checkedFiles_.clear();
  // The instance is kept: closing one with watches waits for the kernel to retire them (many
  // milliseconds), where removing each watch does not.
  std::sort(watches_.begin(), watches_.end());
  watches_.erase(std::unique(watches_.begin(), watches_.end()), watches_.end());
  for (int watch : watches_)
    ::inotify_rm_watch(inotify_.get(), watch);  // fails for one the kernel dropped already
  watches_.clear();
  if (!inotify_.valid())
    inotify_ = ScopedFd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!mounts_.valid())
    mounts_ = ScopedFd(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
  changed_ = !inotify_.valid() || !mounts_.valid();
  if (changed_)
    return;
  // A mount-table change not yet reported happened before this reset, so before anything
  // the caller reads next; polling takes it off.
  struct pollfd mounts = {mounts_.get(), POLLPRI, 0};
  pollOnce(&mounts, 1);

  for (const std::string& directory : directories) {
    if (!directory.empty() && !watchDirectory(directory)) {
      changed_ = true;
      return;
    }
  }
  // What is queued now is about the watches just removed, or about changes made before the
  // caller reads anything: it will read them. Only what comes after counts.
  drain();
}

void SearchPathWatch::drain() {
  alignas(struct inotify_event) char buffer[4096];
  for (int reads = 0; reads < 64; ++reads) {
    const ssize_t n = ::read(inotify_.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0 && errno == EAGAIN)
      return;
    if (n <= 0)
      break;
  }
  // Unreadable, or events keep coming faster than they are taken off.
  changed_ = true;
}

int SearchPathWatch::addWatch(const std::string& path, std::uint32_t mask) {
  // IN_MASK_ADD: one inode may be reached twice (a directory above another, a directory
  // listed twice) and must keep every event either asked for.
  const int watch = ::inotify_add_watch(inotify_.get(), path.c_str(), mask | IN_MASK_ADD);
  if (watch >= 0)
    watches_.push_back(watch);
  return watch;
}

bool SearchPathWatch::watchDirectory(const std::string& path) {
  // The directory the path names now, following symbolic links as listing it does.
  const int followed = addWatch(path, kDirectoryMask);
  if (followed < 0) {
    // Not there (yet), as listing it would find too. Any other failure (no watch left, no
    // permission) leaves it unwatched.
    if (errno == ENOENT || errno == ENOTDIR) {
      directories_.push_back({path, Directory::Kind::Missing, errno});
      return true;
    }
    return false;
  }

  // What a path names changes without any event on the directory itself when a directory
  // above it is renamed or replaced. So each one is watched too, from the root down, each as
  // its path names it at that moment (a final symbolic link itself, not its target): a change
  // to one after its watch was added is reported, and one made before is what the next step
  // down was resolved through.
  bool watched = path.front() == '/';
  for (std::size_t slash = 0; watched && slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string ancestor = slash == 0 ? "/" : path.substr(0, slash);
    watched = addWatch(ancestor, kAncestorMask | IN_DONT_FOLLOW) >= 0;
  }
  // The watches hold only if every step is a directory of that name, no symbolic link, which
  // is asked last: a link on the way that a directory replaced since its watch was added was
  // removed, an event already queued. Otherwise the path is resolved again on every check.
  watched = watched && addWatch(path, kDirectoryMask | IN_DONT_FOLLOW) == followed &&
            isResolvedPath(path);
  directories_.push_back(
      {path, watched ? Directory::Kind::Watched : Directory::Kind::Resolved, followed});
  return true;
}

bool SearchPathWatch::watchFile(const std::string& path, unsigned char type) {
  if (changed_ || type == DT_LNK)
    return false;
  if (type == DT_UNKNOWN) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 || S_ISLNK(st.st_mode))
      return false;
  }
  // Not following: a file replaced by a symbolic link since it was listed was replaced in
  // the directory, which its watch reports.
  return addWatch(path, kFileMask | IN_DONT_FOLLOW) >= 0;
}

void SearchPathWatch::checkSignature(std::string path, FileSignature signature) {
  checkedFiles_.push_back({std::move(path), signature});
}

bool SearchPathWatch::changed(struct pollfd* alsoPoll) {
  struct pollfd fds[3];
  nfds_t count = 0;
  const bool watching = inotify_.valid() && mounts_.valid();
  if (watching) {
    fds[count++] = {inotify_.get(), POLLIN, 0};
    // The mount table reports a change as POLLPRI (and POLLERR), and takes it off once
    // polled.
    fds[count++] = {mounts_.get(), POLLPRI, 0};
  }
  if (alsoPoll)
    fds[count++] = {alsoPoll->fd, alsoPoll->events, 0};
  if (count > 0) {
    if (pollOnce(fds, count) < 0) {
      changed_ = true;
      if (alsoPoll)
        alsoPoll->revents = POLLERR;
      return true;
    }
    if (alsoPoll)
      alsoPoll->revents = fds[count - 1].revents;
  }
  // Any event at all, an overflow of the queue included: the queue is only read by the next
  // reset(), which drops it.
  if (watching && (fds[0].revents != 0 || fds[1].revents != 0))
    changed_ = true;
  if (changed_)
    return true;

  for (const Directory& directory : directories_) {
    if (directory.kind == Directory::Kind::Watched)
      continue;
    // A watch added here (the directory appeared, or the path leads elsewhere) goes with the
    // next reset.
    const int watch = addWatch(directory.path, kDirectoryMask);
    const bool same = directory.kind == Directory::Kind::Resolved
                          ? watch == directory.value
                          : watch < 0 && errno == directory.value;
    if (!same) {
      changed_ = true;
      return true;
    }
  }
  for (const CheckedFile& file : checkedFiles_) {
    if (!(FileSignature::ofPath(file.path) == file.signature)) {
      changed_ = true;
      return true;
    }
  }
  return false;
}

}  // namespace daskel::platform
