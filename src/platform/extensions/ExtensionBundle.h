// ExtensionBundle: what one provider extension bundle, a directory `<Name>.dkext/`, says about
// itself in its Info.plist, checked and read once:
//
//   BundleIdentifier   string, required, not empty
//   BundleExecutable   string, required: a file name inside the bundle (no "/", not "." or "..")
//   BundleVersion      string, optional
//   OxExtension        dictionary, required, with
//     OxExtensionPointIdentifier       string, required, not empty: the point it extends
//     OxExtensionDaskelDocumentGroup   app-group id of its documents (read, not required here:
//                                      whoever uses it for a given point judges it)
//   Entitlements       dictionary, optional, with
//     com.orvane.security.application-groups   array of strings, optional
//
// Other keys are kept in the Info.plist dictionary and otherwise left alone. The Info.plist must
// pass the trust rule of identity/TrustedFile.h (owned by root or the daemon's user, not writable
// by group or others). A bundle is judged on its Info.plist alone: its executable need not exist
// or be runnable; only its identity (device, inode, modification time) is noted, so that a
// replaced executable can be told from the old one.
//
// A plain value, immutable once read; copies are cheap (the Info.plist dictionary is shared).
// THREADING NOTES: read() has no shared state and may run on any thread; a bundle may be read
// from any number of threads at once.
// Failure: read() returns errors in kExtensionBundleErrorDomain, code an ExtensionBundleError,
// whose description says what is wrong in words fit to follow "<bundle path>: " in a log line.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/identity/ApplicationManifest.h"
#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel::platform {

inline constexpr char kExtensionBundleErrorDomain[] = "daskel.platform.ExtensionBundle";

enum class ExtensionBundleError : std::int64_t {
  // The bundle or its Info.plist cannot be opened, read or parsed as a property list.
  Unreadable = 1,
  // The Info.plist fails the trust rule.
  Untrusted = 2,
  // Not a directory, or an Info.plist that is a property list but not of the bundle's shape.
  Malformed = 3,
};

inline constexpr std::string_view kExtensionBundleSuffix = ".dkext";
inline constexpr char kInfoPlistFileName[] = "Info.plist";
inline constexpr char kBundleIdentifierKey[] = "BundleIdentifier";
inline constexpr char kBundleExecutableKey[] = "BundleExecutable";
inline constexpr char kBundleVersionKey[] = "BundleVersion";
inline constexpr char kOxExtensionKey[] = "OxExtension";
inline constexpr char kOxExtensionPointIdentifierKey[] = "OxExtensionPointIdentifier";
inline constexpr char kOxExtensionDaskelDocumentGroupKey[] = "OxExtensionDaskelDocumentGroup";
inline constexpr char kEntitlementsKey[] = "Entitlements";
inline constexpr char kApplicationGroupsEntitlement[] = "com.orvane.security.application-groups";

// Larger Info.plist files are refused as unreadable.
inline constexpr std::size_t kMaxInfoPlistSize = 1024 * 1024;

// Which file an executable path named when it was looked at: a file replaced by another (a
// new inode) or rewritten in place (a new modification time) gets another identity. Owner,
// mode and change time are left out on purpose: a chmod or a new hard link is no update.
struct ExecutableIdentity {
  // 0 when the path named a file; else the errno of stat(2) (ENOENT: no executable yet).
  int statError = 0;
  dev_t device = 0;
  ino_t inode = 0;
  std::int64_t mtimeSeconds = 0;
  std::int64_t mtimeNanoseconds = 0;

  bool exists() const { return statError == 0; }
  // stat(2) of `path`, following symbolic links.
  static ExecutableIdentity ofPath(const std::string& path);

  bool operator==(const ExecutableIdentity& other) const = default;
};

class ExtensionBundle {
 public:
  // Reads the bundle directory at `bundlePath` (an absolute path, kept as given less any
  // trailing "/"; a relative one is refused as unreadable). When `infoSignature` is given it
  // receives the signature of the Info.plist that was judged (of its path when it could not
  // be opened), so a caller can keep the outcome for exactly that version of the file.
  static Result<ExtensionBundle> read(const std::string& bundlePath,
                                      FileSignature* infoSignature = nullptr);

  // Checks a parsed Info.plist and builds the bundle from it; the executable's identity is
  // looked up under `bundlePath`.
  static Result<ExtensionBundle> fromInfoDictionary(const Value& info,
                                                    const std::string& bundlePath);

  // True for a file name that may stand for a bundle's executable or an app group's
  // directory: not empty, no "/", not "." or "..", no NUL.
  static bool isPlainFileName(std::string_view name);

  // The bundle directory as it was given, without a trailing "/".
  const std::string& path() const { return path_; }
  // The last component of path(), "Name.dkext".
  std::string directoryName() const;
  const std::string& identifier() const { return identifier_; }
  const std::optional<std::string>& version() const { return version_; }
  // The whole Info.plist, a dictionary.
  const Value& infoDictionary() const { return info_; }
  const std::string& executableName() const { return executableName_; }
  // path() + "/" + executableName().
  std::string executablePath() const;
  const ExecutableIdentity& executableIdentity() const { return executableIdentity_; }
  const std::string& extensionPointIdentifier() const { return extensionPointIdentifier_; }
  // OxExtension → OxExtensionDaskelDocumentGroup, when it is a string.
  std::optional<std::string> documentGroup() const;
  // The app groups of the entitlements, in the order listed (possibly empty).
  const std::vector<std::string>& applicationGroups() const { return applicationGroups_; }

  // The same bundle with its executable's identity looked up again (for a caller that keeps
  // a bundle read earlier while its Info.plist is unchanged).
  ExtensionBundle withCurrentExecutableIdentity() const;

 private:
  ExtensionBundle() = default;

  std::string path_;
  std::string identifier_;
  std::optional<std::string> version_;
  Value info_;
  std::string executableName_;
  ExecutableIdentity executableIdentity_;
  std::string extensionPointIdentifier_;
  std::vector<std::string> applicationGroups_;
};

}  // namespace daskel::platform
