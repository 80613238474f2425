// Result<T>: the return type of anything that can fail. Holds a T, or a non-null ErrorPtr
// that says what went wrong. No exceptions cross a module boundary in Daskel.
#pragma once

#include <expected>

#include "platform/value/Error.h"

namespace daskel::platform {

template <typename T>
using Result = std::expected<T, ErrorPtr>;

inline std::unexpected<ErrorPtr> failure(ErrorPtr error) {
  return std::unexpected<ErrorPtr>(std::move(error));
}

}  // namespace daskel::platform
