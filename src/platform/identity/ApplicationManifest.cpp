#include "platform/identity/ApplicationManifest.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>
#include <vector>

#include "platform/identity/ScopedFd.h"
#include "platform/plist/PropertyList.h"

namespace daskel::platform {
namespace {

ErrorPtr manifestError(ApplicationManifestError code, std::string description) {
  return makeError(kApplicationManifestErrorDomain, static_cast<std::int64_t>(code),
                   std::move(description));
}

ErrorPtr malformed(std::string description) {
  return manifestError(ApplicationManifestError::Malformed, std::move(description));
}

std::string errnoText(const char* what, int error) {
  return std::string(what) + ": " + std::strerror(error);
}

std::string octalMode(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "0%03o", static_cast<unsigned>(mode & 07777));
  return text;
}

// Why a file with these attributes may not grant entitlements, or "" when it may.
std::string trustProblem(const struct stat& st) {
  if (!S_ISREG(st.st_mode))
    return "not a regular file";
  uid_t daemonUser = ::geteuid();
  if (st.st_uid != 0 && st.st_uid != daemonUser) {
    return "owned by uid " + std::to_string(st.st_uid) +
           ", neither root nor the daemon's user (uid " + std::to_string(daemonUser) + ")";
  }
  if (st.st_mode & (S_IWGRP | S_IWOTH)) {
    return "writable by group or others (mode " + octalMode(st.st_mode) + ")";
  }
  return {};
}

}  // namespace

FileSignature FileSignature::of(const struct stat& st) {
  FileSignature signature;
  signature.device = st.st_dev;
  signature.inode = st.st_ino;
  signature.mode = st.st_mode;
  signature.owner = st.st_uid;
  signature.group = st.st_gid;
  signature.size = st.st_size;
  signature.mtimeSeconds = st.st_mtim.tv_sec;
  signature.mtimeNanoseconds = st.st_mtim.tv_nsec;
  signature.ctimeSeconds = st.st_ctim.tv_sec;
  signature.ctimeNanoseconds = st.st_ctim.tv_nsec;
  return signature;
}

FileSignature FileSignature::ofPath(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    FileSignature signature;
    signature.statError = errno;
    return signature;
  }
  return of(st);
}

Result<Application> readApplicationManifest(const std::string& path, FileSignature* signature) {
  // O_NONBLOCK: a FIFO named *.plist must not hang the look-up; it is refused below.
  ScopedFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (fd.get() < 0) {
    int error = errno;
    if (signature)
      *signature = FileSignature::ofPath(path);
    return failure(manifestError(ApplicationManifestError::Unreadable, errnoText("open", error)));
  }
  struct stat before;
  if (::fstat(fd.get(), &before) != 0) {
    int error = errno;
    if (signature)
      *signature = FileSignature::ofPath(path);
    return failure(manifestError(ApplicationManifestError::Unreadable, errnoText("fstat", error)));
  }
  if (signature)
    *signature = FileSignature::of(before);
  if (std::string problem = trustProblem(before); !problem.empty()) {
    return failure(manifestError(ApplicationManifestError::Untrusted, std::move(problem)));
  }
  if (static_cast<std::size_t>(before.st_size) > kMaxApplicationManifestSize) {
    return failure(
        manifestError(ApplicationManifestError::Unreadable,
                      "larger than " + std::to_string(kMaxApplicationManifestSize) + " bytes"));
  }

  std::vector<std::uint8_t> bytes;
  std::uint8_t buffer[8192];
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR)
        continue;
      int error = errno;
      return failure(manifestError(ApplicationManifestError::Unreadable, errnoText("read", error)));
    }
    if (n == 0)
      break;
    bytes.insert(bytes.end(), buffer, buffer + n);
    if (bytes.size() > kMaxApplicationManifestSize) {
      return failure(
          manifestError(ApplicationManifestError::Unreadable,
                        "larger than " + std::to_string(kMaxApplicationManifestSize) + " bytes"));
    }
  }
  // A file rewritten in place while we read it may have given us a mix of two versions;
  // whatever we conclude, do not let it stand for the file's current signature.
  struct stat after;
  if (signature && (::fstat(fd.get(), &after) != 0 || !(FileSignature::of(after) == *signature))) {
    signature->unstable = true;
  }

  auto manifest = parsePropertyList(std::span<const std::uint8_t>(bytes));
  if (!manifest) {
    std::string reason = manifest.error() ? manifest.error()->localizedDescription() : "";
    return failure(manifestError(ApplicationManifestError::Unreadable,
                                 "not a property list" + (reason.empty() ? "" : ": " + reason)));
  }
  return applicationFromManifest(*manifest, path);
}

Result<Application> applicationFromManifest(const Value& manifest, const std::string& path) {
  if (!manifest.dictionary())
    return failure(malformed("not a dictionary"));

  Application application;
  application.manifestPath = path;

  const Value* bundleIdentifier = manifest.find("BundleIdentifier");
  if (!bundleIdentifier || !bundleIdentifier->string() || bundleIdentifier->string()->empty()) {
    return failure(malformed("BundleIdentifier is missing or not a non-empty string"));
  }
  application.bundleIdentifier = *bundleIdentifier->string();

  const Value* executables = manifest.find("Executables");
  if (!executables || !executables->array()) {
    return failure(malformed("Executables is missing or not an array"));
  }
  for (const Value& executable : *executables->array()) {
    const std::string* executablePath = executable.string();
    if (!executablePath)
      return failure(malformed("Executables holds a value that is not a string"));
    if (executablePath->empty() || executablePath->front() != '/') {
      return failure(
          malformed("Executables entry \"" + *executablePath + "\" is not an absolute path"));
    }
    application.executables.push_back(*executablePath);
  }

  const Value* entitlements = manifest.find("Entitlements");
  if (!entitlements || !entitlements->dictionary()) {
    return failure(malformed("Entitlements is missing or not a dictionary"));
  }
  application.entitlements = *entitlements;
  return application;
}

}  // namespace daskel::platform
