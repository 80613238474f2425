#include "platform/errors/DKErrors.h"

#include <utility>

namespace daskel {

using platform::ErrorPtr;
using platform::makeError;
using platform::Value;

namespace {

ErrorPtr daskelError(DKErrorCode code, std::string description, Value::Dictionary userInfo = {}) {
  return makeError(kDKErrorDomain, static_cast<std::int64_t>(code), std::move(description),
                   std::move(userInfo));
}

}  // namespace

ErrorPtr DKClientLacksEntitlement(const std::optional<std::string>& entitlement) {
  if (!entitlement) {
    return daskelError(DKErrorCode::ClientLacksEntitlement,
                       "The client lacks a required entitlement.");
  }
  return daskelError(DKErrorCode::ClientLacksEntitlement,
                     "The client lacks the entitlement " + *entitlement + ".",
                     {{kDKEntitlementKey, Value(*entitlement)}});
}

ErrorPtr DKInvalidParameterError(const std::string& parameter, const Value& value) {
  Value::Dictionary userInfo{{kDKParameterKey, Value(parameter)}};
  if (!value.isNull()) {
    userInfo.emplace(kDKValueKey, value);
  }
  return daskelError(DKErrorCode::InvalidParameter, "Invalid parameter " + parameter + ".",
                     std::move(userInfo));
}

ErrorPtr DKNotFoundError(const std::optional<std::string>& providerIdentifier) {
  if (!providerIdentifier) {
    return daskelError(DKErrorCode::NotFound, "No provider was found.");
  }
  return daskelError(DKErrorCode::NotFound,
                     "No provider with identifier " + *providerIdentifier + " was found.",
                     {{kDKProviderIdentifierKey, Value(*providerIdentifier)}});
}

ErrorPtr DKNotPermittedError() {
  return daskelError(DKErrorCode::NotPermitted, "The operation is not permitted.");
}

ErrorPtr DKInvalidBookmarkableStringError() {
  return daskelError(DKErrorCode::InvalidBookmarkableString, "The bookmarkable string is invalid.");
}

ErrorPtr DKSandboxExtensionFailedError(const std::optional<platform::Url>& url) {
  if (!url) {
    return daskelError(DKErrorCode::SandboxExtensionFailed,
                       "A sandbox extension could not be issued.");
  }
  return daskelError(DKErrorCode::SandboxExtensionFailed,
                     "A sandbox extension could not be issued for " + url->absoluteString() + ".",
                     {{kDKURLKey, Value(*url)}});
}

ErrorPtr DKProxyNotFoundError(const std::string& providerIdentifier,
                              const ErrorPtr& underlyingError) {
  Value::Dictionary userInfo{{kDKProviderIdentifierKey, Value(providerIdentifier)}};
  if (underlyingError) {
    userInfo.emplace(kDKUnderlyingErrorKey, Value(underlyingError));
  }
  return daskelError(
      DKErrorCode::ProxyNotFound,
      "No proxy for the provider with identifier " + providerIdentifier + " could be obtained.",
      std::move(userInfo));
}

ErrorPtr DKPluginOperationFailedError(const ErrorPtr& underlyingError) {
  if (!underlyingError) {
    return nullptr;
  }
  std::string description = "The provider extension's operation failed";
  std::string underlyingText = underlyingError->localizedDescription();
  description += underlyingText.empty() ? "." : ": " + underlyingText;
  return daskelError(DKErrorCode::PluginOperationFailed, std::move(description),
                     {{kDKUnderlyingErrorKey, Value(underlyingError)}});
}

ErrorPtr IpcError(IpcErrorCode code, const std::string& description) {
  return makeError(kIpcErrorDomain, static_cast<std::int64_t>(code), description);
}

}  // namespace daskel
