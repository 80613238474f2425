// Application: what the application registry knows about one application, as its manifest
// says it: the bundle identifier, the executables that are this application, and its
// entitlements. A plain value; copies are cheap (the entitlements dictionary is shared).
//
// THREADING NOTES: immutable once built; safe to read from any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/value/Value.h"

namespace daskel::platform {

struct Application {
  std::string bundleIdentifier;
  // Absolute paths, as the manifest lists them (not resolved).
  std::vector<std::string> executables;
  // A dictionary Value: entitlement name to value.
  Value entitlements = Value(Value::Dictionary());
  // The manifest file this came from, for log lines.
  std::string manifestPath;

  // The value of entitlement `key`, or a null Value when the application does not have it.
  Value entitlementValue(std::string_view key) const {
    const Value* value = entitlements.find(key);
    return value ? *value : Value();
  }
};

}  // namespace daskel::platform
