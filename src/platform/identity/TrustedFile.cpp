#include "platform/identity/TrustedFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>

#include "platform/identity/ScopedFd.h"
#include "platform/plist/PropertyList.h"

namespace daskel::platform {
namespace {

ErrorPtr trustedFileError(TrustedFileError code, std::string description) {
  return makeError(kTrustedFileErrorDomain, static_cast<std::int64_t>(code),
                   std::move(description));
}

// strerror is not thread-safe, and these files are read on watcher threads.
std::string errnoText(const char* what, int error) {
  char buffer[128];
  return std::string(what) + ": " + ::strerror_r(error, buffer, sizeof buffer);
}

std::string octalMode(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "0%03o", static_cast<unsigned>(mode & 07777));
  return text;
}

ErrorPtr tooLarge(std::size_t maxSize) {
  return trustedFileError(TrustedFileError::Unreadable,
                          "larger than " + std::to_string(maxSize) + " bytes");
}

}  // namespace

std::string trustProblem(const struct stat& status) {
  if (!S_ISREG(status.st_mode))
    return "not a regular file";
  const uid_t daemonUser = ::geteuid();
  if (status.st_uid != 0 && status.st_uid != daemonUser) {
    return "owned by uid " + std::to_string(status.st_uid) +
           ", neither root nor the daemon's user (uid " + std::to_string(daemonUser) + ")";
  }
  if (status.st_mode & (S_IWGRP | S_IWOTH))
    return "writable by group or others (mode " + octalMode(status.st_mode) + ")";
  return {};
}

Result<std::vector<std::uint8_t>> readTrustedFile(const std::string& path,
                                                  std::size_t maxSize,
                                                  FileSignature* signature) {
  // O_NONBLOCK: a FIFO in a bundle must not hang the scan; it is refused below.
  ScopedFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd.valid()) {
    const int error = errno;
    if (signature)
      *signature = FileSignature::ofPath(path);
    return failure(trustedFileError(TrustedFileError::Unreadable, errnoText("open", error)));
  }
  struct stat before;
  if (::fstat(fd.get(), &before) != 0) {
    const int error = errno;
    if (signature)
      *signature = FileSignature::ofPath(path);
    return failure(trustedFileError(TrustedFileError::Unreadable, errnoText("fstat", error)));
  }
  if (signature)
    *signature = FileSignature::of(before);
  if (std::string problem = trustProblem(before); !problem.empty())
    return failure(trustedFileError(TrustedFileError::Untrusted, std::move(problem)));
  if (static_cast<std::size_t>(before.st_size) > maxSize)
    return failure(tooLarge(maxSize));

  std::vector<std::uint8_t> bytes;
  std::uint8_t buffer[8192];
  for (;;) {
    const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR)
        continue;
      const int error = errno;
      return failure(trustedFileError(TrustedFileError::Unreadable, errnoText("read", error)));
    }
    if (n == 0)
      break;
    bytes.insert(bytes.end(), buffer, buffer + n);
    if (bytes.size() > maxSize)
      return failure(tooLarge(maxSize));
  }
  // A file rewritten in place while we read it may have given us a mix of two versions;
  // whatever the caller concludes must not stand for the file's current signature.
  struct stat after;
  if (signature && (::fstat(fd.get(), &after) != 0 || !(FileSignature::of(after) == *signature)))
    signature->unstable = true;
  return bytes;
}

Result<Value> readTrustedPropertyListFile(const std::string& path,
                                          std::size_t maxSize,
                                          FileSignature* signature) {
  auto bytes = readTrustedFile(path, maxSize, signature);
  if (!bytes)
    return failure(bytes.error());
  auto value = parsePropertyList(std::span<const std::uint8_t>(*bytes));
  if (!value) {
    const std::string reason = value.error() ? value.error()->localizedDescription() : "";
    return failure(trustedFileError(TrustedFileError::Unreadable,
                                    "not a property list" + (reason.empty() ? "" : ": " + reason)));
  }
  return value;
}

}  // namespace daskel::platform
