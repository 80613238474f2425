// SandboxTokenIssuer: issues sandbox tokens (see SandboxToken for the text form) and verifies
// the tokens it is shown, so a broker can act on one. The daemon and tools get an issuer
// injected; live() is the real one, bound to <DASKEL_STATE_DIR>/sandbox-token.key.
//
// A token is a grant of one access class (kSandboxReadWriteAccessClass is the one Daskel
// issues) to one absolute path. Verification checks the form and the MAC; it does not judge
// the issue time, which it returns for the caller to judge.
//
// In the daemon's replies a token travels as data holding the token text, without a
// terminating NUL.
//
// THREADING NOTES: implementations may be called from any thread at once.
// Failure: errors of kSandboxTokenErrorDomain (see SandboxTokenError).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/value/Result.h"

namespace daskel::platform {

// What a valid token grants.
struct SandboxGrant {
  std::string accessClass;
  std::string path;
  std::int64_t issueTime = 0;  // unix seconds

  bool operator==(const SandboxGrant& other) const = default;
};

class SandboxTokenIssuer {
 public:
  virtual ~SandboxTokenIssuer() = default;

  // A token granting `accessClass` to `path`. Refused (InvalidRequest) for a relative path or
  // one holding a NUL; fails when the key cannot be had.
  virtual Result<std::string> issueToken(std::string_view accessClass, std::string_view path) = 0;
  // What `token` grants, or why it grants nothing (Malformed, BadSignature, or a key error).
  virtual Result<SandboxGrant> verifyToken(std::string_view token) = 0;

  Result<std::string> issueReadWriteToken(std::string_view path);

  // <DASKEL_STATE_DIR>/sandbox-token.key, read from the environment on every call.
  static std::string defaultKeyPath();
  // A live issuer on defaultKeyPath() as it is now.
  static std::shared_ptr<SandboxTokenIssuer> live();
};

}  // namespace daskel::platform
