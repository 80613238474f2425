#include "platform/identity/ApplicationRegistry.h"

#include "platform/identity/SearchPathDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <set>
#include <string_view>

#include "platform/filesystem/FileSystem.h"
#include "platform/identity/ProcessInfo.h"
#include "platform/locations/Locations.h"
#include "platform/log/Log.h"

namespace daskel::platform {
namespace {

constexpr std::string_view kManifestSuffix = ".plist";

bool isManifestName(std::string_view name) {
  // Hidden files are left out, as a shell's *.plist would leave them out.
  return name.size() > kManifestSuffix.size() && name.front() != '.' &&
         name.ends_with(kManifestSuffix);
}

// Whether `path`, resolved with symbolic links followed, is the file `running` (same device
// and inode) and is spelled `executable` once resolved. One stat answers the first question,
// and for most listed paths (other programs, or missing) that is all. A path spelled exactly
// as the kernel names the running file needs nothing more. Any other that reaches the file (a
// symbolic link, another hard link) is opened once (O_PATH) and both questions are asked of
// that very file: its identity through fstat, its resolved name through /proc/self/fd.
bool isListedExecutable(const std::string& path,
                        const struct stat& running,
                        const std::string& executable) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || st.st_dev != running.st_dev ||
      st.st_ino != running.st_ino) {
    return false;
  }
  if (path == executable)
    return true;
  const int fd = ::open(path.c_str(), O_PATH | O_CLOEXEC);
  if (fd < 0)
    return false;
  bool same = ::fstat(fd, &st) == 0 && st.st_dev == running.st_dev && st.st_ino == running.st_ino;
  if (same) {
    same = pathOfDescriptor(fd) == executable;
  }
  ::close(fd);
  return same;
}

// The file process `pid` runs, as /proc/<pid>/exe leads to it; false when it cannot be
// stat'ed (errno set).
bool statRunningFile(pid_t pid, struct stat* running) {
  char exeLink[32];
  std::snprintf(exeLink, sizeof exeLink, "/proc/%d/exe", static_cast<int>(pid));
  return ::stat(exeLink, running) == 0;
}

// Fills `memo` with a match: the application, the file the process runs and, for a process
// known by its executable, the listed path that led there.
void remember(ProcessIdentityMemo* memo,
              const std::shared_ptr<const Application>& application,
              const struct stat& running,
              const std::string* listedExecutable) {
  memo->application = application;
  memo->device = running.st_dev;
  memo->inode = running.st_ino;
  if (listedExecutable)
    memo->listedExecutable = *listedExecutable;
}

}  // namespace

ApplicationRegistry::ApplicationRegistry() = default;

ApplicationRegistry::ApplicationRegistry(std::vector<std::string> directories)
    : directories_(std::move(directories)) {}

ApplicationRegistry::~ApplicationRegistry() = default;

std::vector<std::string> ApplicationRegistry::searchDirectories() const {
  return directories_ ? *directories_ : applicationsPath();
}

std::shared_ptr<const ApplicationRegistry::Applications> ApplicationRegistry::applicationsLocked(
    const std::vector<std::string>& directories,
    bool verify,
    bool* scanned) const {
  if (applications_ && directories == scannedDirectories_ && !watch_.knownChanged() &&
      !(verify && watch_.changed())) {
    *scanned = false;
    return applications_;
  }
  *scanned = true;
  return rescanLocked(directories);
}

std::shared_ptr<const ApplicationRegistry::Applications> ApplicationRegistry::rescanLocked(
    const std::vector<std::string>& directories) const {
  // Watched before anything is read, so that whatever changes while it is read is reported.
  watch_.reset(directories);
  Applications applications;
  std::set<std::string> seen;
  for (const std::string& directory : directories) {
    if (directory.empty())
      continue;
    const std::vector<SearchPathEntry> entries = listSearchPathDirectoryEntries(
        directory, [](const char* name) { return isManifestName(name); }, "application manifests",
        directoryErrors_);

    for (const SearchPathEntry& entry : entries) {
      std::string path = appendingPathComponent(directory, entry.name);
      // The same directory listed twice adds nothing.
      if (!seen.insert(path).second)
        continue;
      const bool watched = watch_.watchFile(path, entry.type);
      FileSignature current = FileSignature::ofPath(path);
      // Removed since the directory was read (or a symbolic link to nothing).
      if (current.statError == ENOENT) {
        if (!watched)
          watch_.checkSignature(path, current);
        continue;
      }

      auto cached = manifests_.find(path);
      if (cached == manifests_.end() || cached->second.signature.unstable ||
          !(cached->second.signature == current)) {
        FileSignature signature;
        auto application = readApplicationManifest(path, &signature);
        if (!application) {
          DKLogError("Ignoring application manifest %@: %@", path,
                     application.error()->localizedDescription());
        }
        CachedManifest entry{signature,
                             application
                                 ? Result<std::shared_ptr<const Application>>(
                                       std::make_shared<const Application>(std::move(*application)))
                                 : failure(application.error())};
        cached = manifests_.insert_or_assign(path, std::move(entry)).first;
      }
      // One that changed while it was read is reported by its watch, or by its signature,
      // which an unstable one never matches: it is read again next time.
      if (!watched)
        watch_.checkSignature(path, cached->second.signature);
      if (cached->second.application)
        applications.push_back(*cached->second.application);
    }
  }
  std::erase_if(manifests_, [&](const auto& entry) { return !seen.contains(entry.first); });
  applications_ = std::make_shared<const Applications>(std::move(applications));
  scannedDirectories_ = directories;
  return applications_;
}

std::shared_ptr<const Application> ApplicationRegistry::recall(
    const AuditToken& token,
    const std::shared_ptr<const Applications>& applications) const {
  const auto memo = token.identityMemo();
  if (!memo || memo->applications != applications)
    return nullptr;
  struct stat file;
  if (!statRunningFile(token.pid(), &file) || file.st_dev != memo->device ||
      file.st_ino != memo->inode) {
    return nullptr;
  }
  // A listed executable replaced on disk since the process started no longer leads to the
  // file it runs; a full inspection then finds the process is no known application.
  if (memo->listedExecutable &&
      (::stat(memo->listedExecutable->c_str(), &file) != 0 || file.st_dev != memo->device ||
       file.st_ino != memo->inode)) {
    return nullptr;
  }
  return memo->application;
}

std::shared_ptr<const Application> ApplicationRegistry::inspectProcess(
    const AuditToken& token,
    const Applications& applications,
    ProcessIdentityMemo* memo) const {
  const pid_t pid = token.pid();

  auto flatpakId = readFlatpakApplicationId(pid);
  if (!flatpakId) {
    if (token.isAlive()) {
      DKLogError("Cannot identify process %@: %@", token,
                 flatpakId.error()->localizedDescription());
    }
    return nullptr;
  }
  if (*flatpakId) {
    for (const auto& application : applications) {
      if (application->bundleIdentifier == **flatpakId) {
        // Remembered by the file it runs: running another means inspecting it again.
        struct stat running;
        if (statRunningFile(pid, &running))
          remember(memo, application, running, nullptr);
        return application;
      }
    }
    return nullptr;
  }

  auto executable = readProcessExecutablePath(pid);
  if (!executable) {
    if (token.isAlive()) {
      DKLogError("Cannot identify process %@: %@", token,
                 executable.error()->localizedDescription());
    }
    return nullptr;
  }
  if (executable->ends_with(kDeletedExecutableSuffix)) {
    if (token.isAlive()) {
      DKLogInfo(
          "Process %@ runs %@, deleted or replaced since it started; it is no known "
          "application",
          token, *executable);
    }
    return nullptr;
  }
  // The file the process runs, reached through the kernel's link rather than by name: a
  // listed path must lead to this very file, not merely spell the same name (another mount
  // namespace, or a replacement between our reads).
  struct stat running;
  if (!statRunningFile(pid, &running)) {
    int error = errno;
    if (token.isAlive()) {
      DKLogError("Cannot identify process %@: stat /proc/%d/exe: %s", token,
                 static_cast<int>(pid), std::strerror(error));
    }
    return nullptr;
  }

  for (const auto& application : applications) {
    for (const std::string& listed : application->executables) {
      if (isListedExecutable(listed, running, *executable)) {
        remember(memo, application, running, &listed);
        return application;
      }
    }
  }
  return nullptr;
}

std::shared_ptr<const Application> ApplicationRegistry::identify(const AuditToken& token) const {
  const std::vector<std::string> directories = searchDirectories();
  bool scanned = false;
  std::shared_ptr<const Applications> applications;
  {
    std::lock_guard lock(mutex_);
    applications = applicationsLocked(directories, /*verify=*/false, &scanned);
  }
  // What the token remembers saves inspecting the process in full; a fresh match is
  // remembered once it has been confirmed below.
  std::shared_ptr<const Application> match = recall(token, applications);
  ProcessIdentityMemo memo;
  if (!match)
    match = inspectProcess(token, *applications, &memo);

  if (!scanned) {
    // The manifests were scanned before this look-up began, so they count only if nothing
    // has changed up to now, after /proc was read. One poll asks the watch that and whether
    // the token's process is alive: its pidfd becomes readable when it exits (AuditToken).
    struct pollfd process = {token.pidfd(), POLLIN, 0};
    bool unchanged;
    {
      std::lock_guard lock(mutex_);
      unchanged =
          applications == applications_ && !watch_.changed(token.hasPidfd() ? &process : nullptr);
    }
    if (token.hasPidfd() && process.revents != 0)
      return nullptr;
    if (unchanged && token.hasPidfd()) {
      if (memo.application) {
        memo.applications = std::move(applications);
        token.setIdentityMemo(std::make_shared<const ProcessIdentityMemo>(std::move(memo)));
      }
      return match;
    }
    if (!unchanged) {
      // Changed meanwhile: scanned now (or by another look-up since this one began), the
      // applications are current without asking again.
      {
        std::lock_guard lock(mutex_);
        applications = applicationsLocked(directories, /*verify=*/false, &scanned);
      }
      match = inspectProcess(token, *applications, &memo);
    }
  }
  // Everything above was read by pid; only a process that is still alive proves it was
  // about the token's process and not a successor with the same pid.
  if (!match || !token.isAlive())
    return nullptr;
  return match;
}

std::optional<Application> ApplicationRegistry::applicationForProcess(
    const AuditToken& token) const {
  auto application = identify(token);
  if (!application)
    return std::nullopt;
  return *application;
}

Value ApplicationRegistry::entitlementValue(const AuditToken& token, std::string_view key) const {
  // The one value is taken from the cached application, not from a copy of all of it.
  auto application = identify(token);
  return application ? application->entitlementValue(key) : Value();
}

std::optional<std::string> ApplicationRegistry::bundleIdentifier(const AuditToken& token) const {
  auto application = applicationForProcess(token);
  if (!application)
    return std::nullopt;
  return std::move(application->bundleIdentifier);
}

std::optional<Application> ApplicationRegistry::applicationWithBundleIdentifier(
    std::string_view bundleIdentifier) const {
  const std::vector<std::string> directories = searchDirectories();
  std::shared_ptr<const Applications> applications;
  {
    std::lock_guard lock(mutex_);
    bool scanned;
    applications = applicationsLocked(directories, /*verify=*/true, &scanned);
  }
  for (const auto& application : *applications) {
    if (application->bundleIdentifier == bundleIdentifier)
      return *application;
  }
  return std::nullopt;
}

std::vector<Application> ApplicationRegistry::applications() const {
  const std::vector<std::string> directories = searchDirectories();
  std::shared_ptr<const Applications> applications;
  {
    std::lock_guard lock(mutex_);
    bool scanned;
    applications = applicationsLocked(directories, /*verify=*/true, &scanned);
  }
  std::vector<Application> result;
  for (const auto& application : *applications)
    result.push_back(*application);
  return result;
}

}  // namespace daskel::platform
