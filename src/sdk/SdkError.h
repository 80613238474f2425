// Errors of the provider SDK itself (domain kSdkErrorDomain), and makeError, the helper with
// which authors make the errors their operations send. An error keeps its domain, code and
// description all the way to the daemon, which passes it on as it came.
//
// Plain functions; safe from any thread.
#pragma once

#include <cstdint>
#include <string>

#include "platform/value/Error.h"

namespace daskel::sdk {

inline constexpr char kSdkErrorDomain[] = "com.orvane.daskel.sdk";

enum class SdkError : std::int64_t {
  // A URL or item identifier names nothing inside the storage directory (outside it, the
  // directory itself, "..", a symbolic link leading out, not a file URL).
  InvalidItem = 1,
  // The storage directory or a file in it could not be made or written.
  StorageUnavailable = 2,
  // The extension's bundle lacks what the SDK needs (document group, container).
  Misconfigured = 3,
  // The daemon sent nil where the operation needs a value.
  MissingArgument = 4,
};

// An error with `domain`, `code` and "description" = `description` in its userInfo.
inline platform::ErrorPtr makeError(std::string domain,
                                    std::int64_t code,
                                    std::string description) {
  return platform::makeError(std::move(domain), code, std::move(description));
}

inline platform::ErrorPtr sdkError(SdkError code, std::string description) {
  return platform::makeError(kSdkErrorDomain, static_cast<std::int64_t>(code),
                             std::move(description));
}

}  // namespace daskel::sdk
