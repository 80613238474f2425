// Application manifests: the property-list files (*.plist) that register an application,
// {BundleIdentifier: string, Executables: [absolute paths], Entitlements: {key: value}}.
//
// A manifest grants entitlements, so only a file that the administrator or the daemon's own
// user controls counts: it is read under the trust rule of TrustedFile.h (a regular file,
// owned by root or by the daemon's effective user, not writable by group or others, checked
// on the opened file and read from it). The directories holding manifests are trusted as the
// administrator's.
//
// THREADING NOTES: free functions without shared state; safe from any thread.
// Failure: errors in kApplicationManifestErrorDomain, code an ApplicationManifestError,
// whose description says what is wrong in words fit to follow "<path>: " in a log line.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "platform/identity/Application.h"
#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel::platform {

inline constexpr char kApplicationManifestErrorDomain[] = "daskel.platform.ApplicationManifest";

enum class ApplicationManifestError : std::int64_t {
  // The file cannot be opened, read or parsed as a property list.
  Unreadable = 1,
  // Not owned by root or the daemon's user, writable by group or others, or no regular file.
  Untrusted = 2,
  // A property list, but not of the manifest's shape.
  Malformed = 3,
};

// Larger manifests are refused as unreadable.
inline constexpr std::size_t kMaxApplicationManifestSize = 1024 * 1024;

// Which version of a file a path named: equal signatures mean (for all practical purposes)
// the same content, owner and mode. Owner and mode are part of it directly, so a chmod or
// chown is seen however coarse the file system's timestamps are; a replacement changes the
// inode, and a write the size or the modification time. (An in-place rewrite to the same
// size within one timestamp tick of a read could go unseen; manifests are replaced, not
// edited, by anything that installs them.)
struct FileSignature {
  dev_t device = 0;
  ino_t inode = 0;
  mode_t mode = 0;
  uid_t owner = 0;
  gid_t group = 0;
  off_t size = 0;
  std::int64_t mtimeSeconds = 0;
  std::int64_t mtimeNanoseconds = 0;
  std::int64_t ctimeSeconds = 0;
  std::int64_t ctimeNanoseconds = 0;
  // The errno of a failed stat, 0 when it succeeded.
  int statError = 0;
  // Set when the file changed while it was being read: a signature that matches nothing,
  // so the file is read again next time.
  bool unstable = false;

  static FileSignature of(const struct stat& st);
  // stat(2) of `path`, following symbolic links.
  static FileSignature ofPath(const std::string& path);

  bool operator==(const FileSignature& other) const = default;
};

// Opens `path`, checks the trust rule, reads and parses it. `signature` receives the
// signature of the file that was checked (of the path when it could not be opened), so a
// caller can remember the outcome for exactly that version of the file.
Result<Application> readApplicationManifest(const std::string& path, FileSignature* signature);

// Builds an application from a parsed manifest; `path` only goes into manifestPath.
Result<Application> applicationFromManifest(const Value& manifest, const std::string& path);

}  // namespace daskel::platform
