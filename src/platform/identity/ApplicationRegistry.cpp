#include "platform/identity/ApplicationRegistry.h"

#include "platform/identity/SearchPathDirectory.h"

#include <dirent.h>
#include <fcntl.h>
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
// and inode) and is spelled `executable` once resolved. The path is opened once (O_PATH) and
// both questions are asked of that very file: its identity through fstat, its resolved name
// through /proc/self/fd, which costs a fixed three system calls where stat and realpath took
// one per component.
bool isListedExecutable(const std::string& path,
                        const struct stat& running,
                        const std::string& executable) {
  const int fd = ::open(path.c_str(), O_PATH | O_CLOEXEC);
  if (fd < 0)
    return false;
  struct stat st;
  bool same = ::fstat(fd, &st) == 0 && st.st_dev == running.st_dev && st.st_ino == running.st_ino;
  if (same) {
    char link[32];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    char resolved[PATH_MAX];
    const ssize_t length = ::readlink(link, resolved, sizeof resolved);
    same = length > 0 && static_cast<std::size_t>(length) < sizeof resolved &&
           std::string_view(resolved, static_cast<std::size_t>(length)) == executable;
  }
  ::close(fd);
  return same;
}

}  // namespace

ApplicationRegistry::ApplicationRegistry() = default;

ApplicationRegistry::ApplicationRegistry(std::vector<std::string> directories)
    : directories_(std::move(directories)) {}

ApplicationRegistry::~ApplicationRegistry() = default;

std::vector<std::shared_ptr<const Application>> ApplicationRegistry::currentApplications() const {
  const std::vector<std::string> directories = directories_ ? *directories_ : applicationsPath();

  std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<const Application>> applications;
  std::set<std::string> seen;
  for (const std::string& directory : directories) {
    if (directory.empty())
      continue;
    const std::vector<std::string> names = listSearchPathDirectory(
        directory, [](const char* name) { return isManifestName(name); },
        "application manifests", directoryErrors_);

    for (const std::string& name : names) {
      std::string path = appendingPathComponent(directory, name);
      // The same directory listed twice adds nothing.
      if (!seen.insert(path).second)
        continue;
      FileSignature current = FileSignature::ofPath(path);
      // Removed since the directory was read.
      if (current.statError == ENOENT)
        continue;

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
      if (cached->second.application)
        applications.push_back(*cached->second.application);
    }
  }
  std::erase_if(manifests_, [&](const auto& entry) { return !seen.contains(entry.first); });
  return applications;
}

std::shared_ptr<const Application> ApplicationRegistry::inspectProcess(
    const AuditToken& token,
    const std::vector<std::shared_ptr<const Application>>& applications) const {
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
    std::shared_ptr<const Application> match;
    for (const auto& application : applications) {
      if (application->bundleIdentifier == **flatpakId) {
        match = application;
        break;
      }
    }
    if (!match || !token.isAlive())
      return nullptr;
    return match;
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
  std::string exeLink = "/proc/" + std::to_string(pid) + "/exe";
  if (::stat(exeLink.c_str(), &running) != 0) {
    int error = errno;
    if (token.isAlive()) {
      DKLogError("Cannot identify process %@: stat %@: %s", token, exeLink, std::strerror(error));
    }
    return nullptr;
  }

  std::shared_ptr<const Application> match;
  for (const auto& application : applications) {
    for (const std::string& listed : application->executables) {
      if (!isListedExecutable(listed, running, *executable))
        continue;
      match = application;
      break;
    }
    if (match)
      break;
  }
  // Everything above was read by pid; only a process that is still alive proves it was
  // about the token's process and not a successor with the same pid.
  if (!match || !token.isAlive())
    return nullptr;
  return match;
}

std::optional<Application> ApplicationRegistry::applicationForProcess(
    const AuditToken& token) const {
  if (!token.isAlive())
    return std::nullopt;
  auto application = inspectProcess(token, currentApplications());
  if (!application)
    return std::nullopt;
  return *application;
}

Value ApplicationRegistry::entitlementValue(const AuditToken& token, std::string_view key) const {
  // The one value is taken from the cached application, not from a copy of all of it.
  if (!token.isAlive())
    return Value();
  auto application = inspectProcess(token, currentApplications());
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
  for (const auto& application : currentApplications()) {
    if (application->bundleIdentifier == bundleIdentifier)
      return *application;
  }
  return std::nullopt;
}

std::vector<Application> ApplicationRegistry::applications() const {
  std::vector<Application> result;
  for (const auto& application : currentApplications())
    result.push_back(*application);
  return result;
}

}  // namespace daskel::platform
