// Error: a domain, an integer code and a user-info dictionary, as every layer of Daskel
// reports failures (IPC errors, Daskel's own errors, errors that provider extensions send).
//
// Errors travel as ErrorPtr (shared, immutable); a null ErrorPtr means "no error", the way a
// completion block receives nil on success.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/value/Value.h"

namespace daskel::platform {

struct Error {
  std::string domain;
  std::int64_t code = 0;
  Value::Dictionary userInfo;

  // The human-readable text under "description" in userInfo, or "" when there is none.
  std::string localizedDescription() const;
  // "Error Domain=<domain> Code=<code> \"<description>\" UserInfo={...}"; what "%@" prints.
  std::string description() const;

  bool operator==(const Error& other) const = default;
};

inline constexpr char kErrorDescriptionKey[] = "description";

// Makes an error whose userInfo holds `description` under "description" plus `extra`.
ErrorPtr makeError(std::string domain,
                   std::int64_t code,
                   std::string description,
                   Value::Dictionary extra = {});

}  // namespace daskel::platform
