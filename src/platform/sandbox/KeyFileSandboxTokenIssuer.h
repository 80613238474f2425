// KeyFileSandboxTokenIssuer: the live SandboxTokenIssuer, signing with the key in one key
// file (SandboxTokenKey).
//
// The key is read on first use and kept for the issuer's life. Issuing creates the key file
// when there is none; verifying never does (with no key, no token can be valid, and it says
// so). A failure to get the key is not remembered: the next call tries again.
//
// Nonces come from OpenSSL's RAND_bytes, issue times from the system clock.
//
// THREADING NOTES: every member may be called from any thread; the key is loaded under a
// mutex, signing and checking run without it.
// Failure: errors of kSandboxTokenErrorDomain (see SandboxTokenError).
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "platform/sandbox/SandboxTokenIssuer.h"
#include "platform/sandbox/SandboxTokenKey.h"

namespace daskel::platform {

class KeyFileSandboxTokenIssuer final : public SandboxTokenIssuer {
 public:
  explicit KeyFileSandboxTokenIssuer(std::string keyPath) : keyPath_(std::move(keyPath)) {}

  KeyFileSandboxTokenIssuer(const KeyFileSandboxTokenIssuer&) = delete;
  KeyFileSandboxTokenIssuer& operator=(const KeyFileSandboxTokenIssuer&) = delete;

  Result<std::string> issueToken(std::string_view accessClass, std::string_view path) override;
  Result<SandboxGrant> verifyToken(std::string_view token) override;

  const std::string& keyPath() const { return keyPath_; }

 private:
  // The cached key, else the file's (created first when `create`).
  Result<SandboxTokenKey> key(bool create);

  const std::string keyPath_;
  std::mutex mutex_;  // guards key_
  std::optional<SandboxTokenKey> key_;
};

}  // namespace daskel::platform
