// What daskelctl prints: the readable form, the JSON document (parsed back here with a real
// JSON parser) and the error report with its nested userInfo.
#include "tools/daskelctl/OutputFormatter.h"

#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/errors/DKErrors.h"

namespace daskel::ctl {
namespace {

using nlohmann::json;
using platform::Url;
using platform::Value;

Url url(const char* text) {
  return *Url::fromString(text);
}

CommandOutcome extendSandboxOutcome() {
  CommandOutcome outcome;
  outcome.command = "extend-sandbox";
  outcome.fields = {{"token", Value("v1;read-write;2f61;1;00;ff")},
                    {"placeholderURL", Value(url("file:///srv/.Report%20One.txt"))},
                    {"placeholderToken", Value()}};
  return outcome;
}

// A proxy failure over a plug-in failure over a POSIX error: three levels.
platform::ErrorPtr nestedError() {
  auto posix = platform::makeError("posix", ENOENT, "Could not open /srv/missing",
                                   {{"path", Value("/srv/missing")}});
  auto plugin = platform::makeError("com.orvane.Daskel", 8, "The extension failed.",
                                    {{"underlyingError", Value(posix)}});
  return platform::makeError(
      "com.orvane.Daskel", 7, "No proxy for com.example.provider.",
      {{"providerIdentifier", Value("com.example.provider")}, {"underlyingError", Value(plugin)}});
}

CommandOutcome failedOutcome() {
  CommandOutcome outcome;
  outcome.command = "start-providing";
  outcome.error = nestedError();
  outcome.status = ExitStatus::OperationError;
  return outcome;
}

TEST(OutputFormatter, ReadableOutputShowsEachReplyValueByNameWithNilAsNone) {
  EXPECT_EQ(OutputFormatter::standardOutput(extendSandboxOutcome(), /*json=*/false),
            "token: v1;read-write;2f61;1;00;ff\n"
            "placeholderURL: file:///srv/.Report%20One.txt\n"
            "placeholderToken: (none)\n");
  EXPECT_EQ(OutputFormatter::standardError(extendSandboxOutcome()), "");
}

TEST(OutputFormatter, ReadableOutputIndentsNestedDictionariesAndSaysWhenOneIsEmpty) {
  CommandOutcome outcome;
  outcome.command = "providers";
  outcome.fields = {
      {"providers",
       Value(Value::Dictionary{
           {"com.b", Value(Value::Dictionary{{"documentStorageURL", Value(url("file:///b/"))},
                                             {"providerIdentifier", Value("com.b")}})},
           {"com.a", Value(Value::Dictionary{})}})}};
  EXPECT_EQ(OutputFormatter::readableOutput(outcome),
            "providers:\n"
            "  com.a: (empty)\n"
            "  com.b:\n"
            "    documentStorageURL: file:///b/\n"
            "    providerIdentifier: com.b\n");
}

TEST(OutputFormatter, ASummaryReplacesTheValuesOnlyWhenTheCommandSucceeded) {
  CommandOutcome outcome;
  outcome.command = "post-notification";
  outcome.summary = "Posted com.orvane.first-unlock.";
  outcome.fields = {{"name", Value("com.orvane.first-unlock")}};
  EXPECT_EQ(OutputFormatter::readableOutput(outcome), "Posted com.orvane.first-unlock.\n");

  outcome.status = ExitStatus::OperationError;
  outcome.error = DKNotPermittedError();
  EXPECT_EQ(OutputFormatter::readableOutput(outcome), "name: com.orvane.first-unlock\n");
}

TEST(OutputFormatter, ReadableOutputOfAFailureShowsOnlyTheValuesThatCame) {
  CommandOutcome outcome = extendSandboxOutcome();
  outcome.fields[0].second = Value();
  outcome.error = DKNotFoundError("com.example.provider");
  outcome.status = ExitStatus::OperationError;
  EXPECT_EQ(OutputFormatter::readableOutput(outcome),
            "placeholderURL: file:///srv/.Report%20One.txt\n");
}

TEST(OutputFormatter, ControlCharactersInTextsAreEscapedInReadableOutput) {
  CommandOutcome outcome;
  outcome.command = "verify-token";
  outcome.fields = {{"path", Value(std::string("/a\nb\tc\x1b[2J\\d\x7f", 13))}};
  EXPECT_EQ(OutputFormatter::readableOutput(outcome), "path: /a\\nb\\tc\\x1b[2J\\\\d\\x7f\n");
}

TEST(OutputFormatter, TheErrorReportNamesDomainCodeDescriptionAndEveryUserInfoEntryAtEveryDepth) {
  EXPECT_EQ(OutputFormatter::standardError(failedOutcome()),
            "daskelctl: start-providing: No proxy for com.example.provider.\n"
            "  domain: com.orvane.Daskel\n"
            "  code: 7\n"
            "  providerIdentifier: com.example.provider\n"
            "  underlyingError:\n"
            "    description: The extension failed.\n"
            "    domain: com.orvane.Daskel\n"
            "    code: 8\n"
            "    underlyingError:\n"
            "      description: Could not open /srv/missing\n"
            "      domain: posix\n"
            "      code: 2\n"
            "      path: /srv/missing\n");
  // Nothing of a failure without values goes to standard output.
  EXPECT_EQ(OutputFormatter::standardOutput(failedOutcome(), /*json=*/false), "");
}

TEST(OutputFormatter, JsonOutputIsOneDocumentWithTheResultByName) {
  const json document = json::parse(OutputFormatter::standardOutput(extendSandboxOutcome(), true));
  EXPECT_EQ(document["command"], "extend-sandbox");
  EXPECT_EQ(document["ok"], true);
  EXPECT_EQ(document["exitStatus"], 0);
  EXPECT_FALSE(document.contains("error"));
  EXPECT_EQ(document["result"]["token"], "v1;read-write;2f61;1;00;ff");
  EXPECT_EQ(document["result"]["placeholderURL"], "file:///srv/.Report%20One.txt");
  EXPECT_TRUE(document["result"]["placeholderToken"].is_null());
}

TEST(OutputFormatter, JsonOfAFailureCarriesTheErrorWithNestedUserInfo) {
  const json document = json::parse(OutputFormatter::jsonOutput(failedOutcome()));
  EXPECT_EQ(document["ok"], false);
  EXPECT_EQ(document["exitStatus"], 1);
  const json& error = document["error"];
  EXPECT_EQ(error["domain"], "com.orvane.Daskel");
  EXPECT_EQ(error["code"], 7);
  EXPECT_EQ(error["userInfo"]["providerIdentifier"], "com.example.provider");
  const json& plugin = error["userInfo"]["underlyingError"];
  EXPECT_EQ(plugin["code"], 8);
  const json& posix = plugin["userInfo"]["underlyingError"];
  EXPECT_EQ(posix["domain"], "posix");
  EXPECT_EQ(posix["code"], ENOENT);
  EXPECT_EQ(posix["userInfo"]["path"], "/srv/missing");
  EXPECT_EQ(posix["description"], posix["userInfo"]["description"]);
}

TEST(OutputFormatter, EveryKindOfValueHasAJsonForm) {
  const Value value(Value::Array{Value(), Value(true), Value(-3), Value(2.5), Value("text"),
                                 Value(Value::Data{0x00, 0xab, 0xff}), Value(url("file:///x%20y")),
                                 Value(Value::Dictionary{{"k", Value(Value::Array{})}})});
  EXPECT_EQ(OutputFormatter::toJson(value),
            json::parse(R"([null, true, -3, 2.5, "text", {"hex": "00abff"}, "file:///x%20y",
                            {"k": []}])"));
}

TEST(OutputFormatter, BytesThatAreNotUtf8StillMakeParsableJson) {
  CommandOutcome outcome;
  outcome.command = "verify-token";
  outcome.fields = {{"path", Value(std::string("/caf\xe9/\xff\"q\"\n"))}};
  const json document = json::parse(OutputFormatter::jsonOutput(outcome));
  EXPECT_EQ(document["result"]["path"], "/caf\xef\xbf\xbd/\xef\xbf\xbd\"q\"\n");
}

}  // namespace
}  // namespace daskel::ctl
