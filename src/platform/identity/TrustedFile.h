// Reading a file that is allowed to tell the daemon something it will act on (an application
// manifest, an extension bundle's Info.plist): only a file that the administrator or the
// daemon's own user controls counts. It must be a regular file, owned by root or by the
// daemon's effective user, and not writable by group or others. The checks are made on the
// opened file, and the bytes returned are read from that same open file, so a file swapped in
// between cannot slip past. The directories holding such files are trusted as the
// administrator's.
//
// Callers that report in their own error domain (ApplicationManifest, ExtensionBundle) map
// the codes and keep the description as the reason.
//
// THREADING NOTES: free functions without shared state; safe from any thread.
// Failure: errors in kTrustedFileErrorDomain, code a TrustedFileError, whose description says
// what is wrong in words fit to follow "<path>: " in a log line.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/identity/ApplicationManifest.h"
#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel::platform {

inline constexpr char kTrustedFileErrorDomain[] = "daskel.platform.TrustedFile";

enum class TrustedFileError : std::int64_t {
  // The file cannot be opened or read, is larger than allowed, or (for property lists) cannot
  // be parsed.
  Unreadable = 1,
  // No regular file, not owned by root or the daemon's user, or writable by group or others.
  Untrusted = 2,
};

// Why a file with these attributes may not be trusted, or "" when it may.
std::string trustProblem(const struct stat& status);

// Opens `path` (following symbolic links; the file reached is judged), checks the trust rule
// and reads at most `maxSize` bytes. `signature` (optional) receives the signature of the file
// that was checked (of the path when it could not be opened); it is marked unstable when the
// file changed while it was read.
Result<std::vector<std::uint8_t>> readTrustedFile(const std::string& path,
                                                  std::size_t maxSize,
                                                  FileSignature* signature);

// readTrustedFile, then parses the bytes as an XML or binary property list.
Result<Value> readTrustedPropertyListFile(const std::string& path,
                                          std::size_t maxSize,
                                          FileSignature* signature);

}  // namespace daskel::platform
