// Daskel's own errors: domain "com.orvane.Daskel", one code per constructor, the
// constructor's arguments in userInfo under fixed keys, and a human-readable "description".
// These are the wire's error values too, so clients in any language can read them.
//
// Plain functions; safe from any thread.
#pragma once

#include <optional>
#include <string>

#include "platform/value/Error.h"
#include "platform/url/Url.h"

namespace daskel {

inline constexpr char kDKErrorDomain[] = "com.orvane.Daskel";
inline constexpr char kIpcErrorDomain[] = "com.orvane.ipc";

enum class DKErrorCode : std::int64_t {
  ClientLacksEntitlement = 1,
  InvalidParameter = 2,
  NotFound = 3,
  NotPermitted = 4,
  InvalidBookmarkableString = 5,
  SandboxExtensionFailed = 6,
  ProxyNotFound = 7,
  PluginOperationFailed = 8,
};

enum class IpcErrorCode : std::int64_t {
  ConnectionInterrupted = 1,
  ConnectionInvalid = 2,
  MessageRefused = 3,
};

// userInfo keys.
inline constexpr char kDKEntitlementKey[] = "entitlement";
inline constexpr char kDKParameterKey[] = "parameter";
inline constexpr char kDKValueKey[] = "value";
inline constexpr char kDKProviderIdentifierKey[] = "providerIdentifier";
inline constexpr char kDKURLKey[] = "URL";
inline constexpr char kDKUnderlyingErrorKey[] = "underlyingError";

platform::ErrorPtr DKClientLacksEntitlement(const std::optional<std::string>& entitlement);
platform::ErrorPtr DKInvalidParameterError(const std::string& parameter,
                                           const platform::Value& value = {});
platform::ErrorPtr DKNotFoundError(const std::optional<std::string>& providerIdentifier);
platform::ErrorPtr DKNotPermittedError();
platform::ErrorPtr DKInvalidBookmarkableStringError();
platform::ErrorPtr DKSandboxExtensionFailedError(const std::optional<platform::Url>& url);
platform::ErrorPtr DKProxyNotFoundError(const std::string& providerIdentifier,
                                        const platform::ErrorPtr& underlyingError);
// Yields no error (nullptr) when `underlyingError` is null, so success passes through.
platform::ErrorPtr DKPluginOperationFailedError(const platform::ErrorPtr& underlyingError);

platform::ErrorPtr IpcError(IpcErrorCode code, const std::string& description);

}  // namespace daskel
