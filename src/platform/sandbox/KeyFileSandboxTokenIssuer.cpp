#include "platform/sandbox/KeyFileSandboxTokenIssuer.h"

#include <openssl/rand.h>

#include <chrono>

#include "platform/sandbox/SandboxToken.h"

namespace daskel::platform {

Result<SandboxTokenKey> KeyFileSandboxTokenIssuer::key(bool create) {
  std::lock_guard lock(mutex_);
  if (!key_) {
    auto loaded =
        create ? SandboxTokenKey::loadOrCreate(keyPath_) : SandboxTokenKey::load(keyPath_);
    if (!loaded) {
      return loaded;
    }
    key_ = std::move(*loaded);
  }
  return *key_;
}

Result<std::string> KeyFileSandboxTokenIssuer::issueToken(std::string_view accessClass,
                                                          std::string_view path) {
  if (auto valid = SandboxToken::checkRequest(accessClass, path); !valid) {
    return failure(valid.error());
  }
  auto signingKey = key(/*create=*/true);
  if (!signingKey) {
    return failure(signingKey.error());
  }
  SandboxToken token;
  token.accessClass = accessClass;
  token.path = path;
  token.issueTime = std::chrono::duration_cast<std::chrono::seconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count();
  if (RAND_bytes(token.nonce.data(), static_cast<int>(token.nonce.size())) != 1) {
    return failure(sandboxTokenError(SandboxTokenError::KeyUnavailable,
                                     "No random bytes for a sandbox token nonce."));
  }
  token.mac = signingKey->mac(token.signedText());
  if (token.mac.empty()) {
    return failure(sandboxTokenError(SandboxTokenError::KeyUnavailable,
                                     "The sandbox token could not be signed."));
  }
  return token.text();
}

Result<SandboxGrant> KeyFileSandboxTokenIssuer::verifyToken(std::string_view text) {
  auto token = SandboxToken::parse(text);
  if (!token) {
    return failure(token.error());
  }
  auto checkingKey = key(/*create=*/false);
  if (!checkingKey) {
    return failure(checkingKey.error());
  }
  const std::string expected = checkingKey->mac(token->signedText());
  if (!SandboxTokenKey::equalInConstantTime(expected, token->mac)) {
    return failure(sandboxTokenError(
        SandboxTokenError::BadSignature,
        "The sandbox token's MAC does not match: it was altered, or issued under another key "
        "than " +
            keyPath_ + ".",
        {{"path", Value(keyPath_)}}));
  }
  return SandboxGrant{std::move(token->accessClass), std::move(token->path), token->issueTime};
}

}  // namespace daskel::platform
