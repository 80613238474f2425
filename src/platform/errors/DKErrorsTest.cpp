#include "platform/errors/DKErrors.h"

#include <gtest/gtest.h>

#include <set>

namespace daskel {
namespace {

using platform::ErrorPtr;
using platform::Url;
using platform::Value;

std::set<std::string> keysOf(const ErrorPtr& error) {
  std::set<std::string> keys;
  for (const auto& [key, value] : error->userInfo) {
    keys.insert(key);
  }
  return keys;
}

void expectDaskelError(const ErrorPtr& error,
                       DKErrorCode code,
                       const std::set<std::string>& argumentKeys) {
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, "com.orvane.Daskel");
  EXPECT_EQ(error->code, static_cast<std::int64_t>(code));
  std::set<std::string> expected = argumentKeys;
  expected.insert("description");
  EXPECT_EQ(keysOf(error), expected);
  EXPECT_FALSE(error->localizedDescription().empty());
}

TEST(DKErrors, EachConstructorHasItsCodeAndArgumentKeys) {
  ErrorPtr underlying = platform::makeError("com.example", 4, "Disk on fire.");
  Url url = *Url::fromString("file:///storage/doc.txt");
  expectDaskelError(DKClientLacksEntitlement("com.orvane.daskel.acl-read"),
                    DKErrorCode::ClientLacksEntitlement, {"entitlement"});
  expectDaskelError(DKInvalidParameterError("URL", Value(url)), DKErrorCode::InvalidParameter,
                    {"parameter", "value"});
  expectDaskelError(DKNotFoundError("com.example.provider"), DKErrorCode::NotFound,
                    {"providerIdentifier"});
  expectDaskelError(DKNotPermittedError(), DKErrorCode::NotPermitted, {});
  expectDaskelError(DKInvalidBookmarkableStringError(), DKErrorCode::InvalidBookmarkableString, {});
  expectDaskelError(DKSandboxExtensionFailedError(url), DKErrorCode::SandboxExtensionFailed,
                    {"URL"});
  expectDaskelError(DKProxyNotFoundError("com.example.provider", underlying),
                    DKErrorCode::ProxyNotFound, {"providerIdentifier", "underlyingError"});
  expectDaskelError(DKPluginOperationFailedError(underlying), DKErrorCode::PluginOperationFailed,
                    {"underlyingError"});
}

TEST(DKErrors, AbsentArgumentsLeaveTheirKeysOut) {
  expectDaskelError(DKClientLacksEntitlement(std::nullopt), DKErrorCode::ClientLacksEntitlement,
                    {});
  expectDaskelError(DKInvalidParameterError("bookmarkableString"), DKErrorCode::InvalidParameter,
                    {"parameter"});
  expectDaskelError(DKNotFoundError(std::nullopt), DKErrorCode::NotFound, {});
  expectDaskelError(DKSandboxExtensionFailedError(std::nullopt),
                    DKErrorCode::SandboxExtensionFailed, {});
  expectDaskelError(DKProxyNotFoundError("com.example.provider", nullptr),
                    DKErrorCode::ProxyNotFound, {"providerIdentifier"});
}

TEST(DKErrors, ArgumentsAreStoredWithTheirTypes) {
  Url url = *Url::fromString("file:///storage/a%20b");
  ErrorPtr underlying = platform::makeError("com.example", 4, "Disk on fire.");
  EXPECT_EQ(DKClientLacksEntitlement("com.orvane.daskel.acl-read")->userInfo.at("entitlement"),
            Value("com.orvane.daskel.acl-read"));
  EXPECT_EQ(DKInvalidParameterError("URL", Value(url))->userInfo.at("parameter"), Value("URL"));
  EXPECT_EQ(DKInvalidParameterError("URL", Value(url))->userInfo.at("value"), Value(url));
  EXPECT_EQ(DKInvalidParameterError("count", Value(3))->userInfo.at("value"), Value(3));
  EXPECT_EQ(DKNotFoundError("p")->userInfo.at("providerIdentifier"), Value("p"));
  EXPECT_EQ(DKSandboxExtensionFailedError(url)->userInfo.at("URL"), Value(url));
  EXPECT_EQ(DKProxyNotFoundError("p", underlying)->userInfo.at("underlyingError"),
            Value(underlying));
  EXPECT_EQ(DKPluginOperationFailedError(underlying)->userInfo.at("underlyingError").error(),
            underlying);
}

TEST(DKErrors, DescriptionsSayWhatWentWrongAndWithWhat) {
  EXPECT_EQ(DKClientLacksEntitlement("com.orvane.daskel.acl-read")->localizedDescription(),
            "The client lacks the entitlement com.orvane.daskel.acl-read.");
  EXPECT_EQ(DKInvalidParameterError("URL")->localizedDescription(), "Invalid parameter URL.");
  EXPECT_EQ(DKNotFoundError("com.example.provider")->localizedDescription(),
            "No provider with identifier com.example.provider was found.");
  EXPECT_EQ(DKNotPermittedError()->localizedDescription(), "The operation is not permitted.");
  EXPECT_EQ(DKInvalidBookmarkableStringError()->localizedDescription(),
            "The bookmarkable string is invalid.");
  EXPECT_EQ(DKSandboxExtensionFailedError(*Url::fromString("file:///x"))->localizedDescription(),
            "A sandbox extension could not be issued for file:///x.");
  EXPECT_EQ(DKProxyNotFoundError("p", nullptr)->localizedDescription(),
            "No proxy for the provider with identifier p could be obtained.");
  EXPECT_EQ(DKPluginOperationFailedError(platform::makeError("x", 1, "Disk on fire."))
                ->localizedDescription(),
            "The provider extension's operation failed: Disk on fire.");
}

TEST(DKErrors, PluginOperationFailedWithoutAnUnderlyingErrorIsNoError) {
  EXPECT_EQ(DKPluginOperationFailedError(nullptr), nullptr);
}

TEST(DKErrors, IpcErrorsHaveTheirOwnDomain) {
  ErrorPtr error = IpcError(IpcErrorCode::MessageRefused, "Frame too large.");
  EXPECT_EQ(error->domain, "com.orvane.ipc");
  EXPECT_EQ(error->code, 3);
  EXPECT_EQ(error->localizedDescription(), "Frame too large.");
  EXPECT_EQ(IpcError(IpcErrorCode::ConnectionInterrupted, "x")->code, 1);
  EXPECT_EQ(IpcError(IpcErrorCode::ConnectionInvalid, "x")->code, 2);
}

}  // namespace
}  // namespace daskel
