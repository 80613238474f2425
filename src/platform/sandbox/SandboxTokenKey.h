// SandboxTokenKey: the 256-bit secret behind sandbox tokens, kept as 32 raw bytes in one key
// file (<DASKEL_STATE_DIR>/sandbox-token.key for the live issuer), and the HMAC-SHA256 made
// with it.
//
// loadOrCreate() makes the key on first use: 32 random bytes are written to a temporary file
// that only this call can have created (mkstemp, mode 0600) in the key's directory, synced,
// and published with link(), which fails if another process or thread got there first. Every
// caller then reads the key back from the file, so all of them, whoever won, use the same key
// and nobody ever reads a half-written file. The directory is created (0700) if it is missing.
//
// A key file is used only if it is a regular file of exactly 32 bytes, owned by the effective
// user, and grants no permission to group or others; anything else is refused (not repaired):
// a key that others could read or change can no longer vouch for anything.
//
// The bytes are wiped when the last copy of the key goes away.
//
// THREADING NOTES: immutable after loading; mac() may be called from any thread at once. The
// static functions may race each other in any number of threads and processes.
// Failure: errors of kSandboxTokenErrorDomain: KeyMissing (load() only), KeyRejected,
// KeyUnavailable (with the POSIX error under "underlyingError"). Descriptions name the path.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/value/Result.h"

namespace daskel::platform {

class SandboxTokenKey {
 public:
  static constexpr std::size_t kSize = 32;
  using Bytes = std::array<std::uint8_t, kSize>;

  // The key in `path`, creating it first when there is none.
  static Result<SandboxTokenKey> loadOrCreate(const std::string& path);
  // The key in `path`; KeyMissing when there is no file.
  static Result<SandboxTokenKey> load(const std::string& path);

  // HMAC-SHA256 of `text` under this key, as 64 lower-case hex digits ("" in the unheard-of
  // case that the library could not compute it).
  std::string mac(std::string_view text) const;

  // Compares in time independent of where the texts differ. Texts of different lengths are
  // unequal (their lengths are not secret).
  static bool equalInConstantTime(std::string_view a, std::string_view b);

  bool operator==(const SandboxTokenKey& other) const;

 private:
  struct Secret {
    Bytes bytes{};
    Secret() = default;
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    ~Secret();
  };

  explicit SandboxTokenKey(std::shared_ptr<const Secret> secret) : secret_(std::move(secret)) {}

  std::shared_ptr<const Secret> secret_;
};

}  // namespace daskel::platform
