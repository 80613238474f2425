// SandboxToken: the text form of a sandbox token, which grants one access class to one
// absolute path:
//
//   v1;<class>;<hex of the path>;<issue time, unix seconds>;<nonce, 32 hex>;<HMAC-SHA256, 64 hex>
//
// All hex is lower case. The MAC covers the text before its own ';' (signedText()); who may
// compute it is SandboxTokenKey's business. This class only builds and takes apart the text,
// strictly: a text that could not have been built by format() is refused by parse().
//
// Plain value type; safe to share between threads. parse() reports failure as an error of
// kSandboxTokenErrorDomain, code Malformed, whose description says which field is wrong.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/value/Result.h"

namespace daskel::platform {

inline constexpr char kSandboxTokenErrorDomain[] = "daskel.platform.SandboxToken";

enum class SandboxTokenError : std::int64_t {
  // Issuing refused: the path is not absolute, holds a NUL or is too long, or the access
  // class is not a word of lower-case letters, digits and '-'.
  InvalidRequest = 1,
  // The text is not a well-formed token.
  Malformed = 2,
  // Well formed, but the MAC does not match: altered, or issued under another key.
  BadSignature = 3,
  // The key file does not exist (nothing was ever issued under it).
  KeyMissing = 4,
  // The key file exists but may not be used: wrong size, not a regular file, another owner,
  // or readable or writable by group or others.
  KeyRejected = 5,
  // The key file or the random source could not be read or written; the underlying POSIX
  // error is under "underlyingError".
  KeyUnavailable = 6,
};

// The one access class that Daskel issues.
inline constexpr char kSandboxReadWriteAccessClass[] = "read-write";

// The longest path a token may name (PATH_MAX without its NUL).
inline constexpr std::size_t kSandboxTokenMaxPathLength = 4095;

ErrorPtr sandboxTokenError(SandboxTokenError code,
                           std::string description,
                           Value::Dictionary extra = {});

class SandboxToken {
 public:
  using Nonce = std::array<std::uint8_t, 16>;

  std::string accessClass;
  std::string path;
  std::int64_t issueTime = 0;
  Nonce nonce{};
  // 64 lower-case hex digits; empty until signed.
  std::string mac;

  // Refuses what issuing must refuse (see SandboxTokenError::InvalidRequest).
  static Result<void> checkRequest(std::string_view accessClass, std::string_view path);

  // The text that the MAC covers: everything before the last ';'.
  std::string signedText() const;
  // The whole token: signedText() + ";" + mac.
  std::string text() const;

  // Takes a token text apart. Checks the form only, not the MAC.
  static Result<SandboxToken> parse(std::string_view text);

  bool operator==(const SandboxToken& other) const = default;
};

// Lower-case hex of `bytes`.
std::string lowerHex(std::string_view bytes);

}  // namespace daskel::platform
