#include "platform/ipc/IpcInterface.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/errors/DKErrors.h"

namespace daskel::platform {
namespace {

using Type = Value::Type;

Url url(const char* text) {
  std::optional<Url> parsed = Url::fromString(text);
  EXPECT_TRUE(parsed.has_value()) << text;
  return *parsed;
}

Value error(Value::Dictionary userInfo = {}) {
  return Value(ErrorPtr(std::make_shared<Error>(Error{"com.example", 1, std::move(userInfo)})));
}

// A protocol shaped like the ones the daemon serves.
IpcInterface sampleInterface() {
  return IpcInterface::Builder("DKSample")
      .operation("wakeUpCompletion:", {}, {})
      .operation("startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:",
                 {Type::Url, Type::String, Type::String}, {Type::Error})
      .operation("fetchItemsWithOptions:completionHandler:",
                 {Type::Dictionary | Type::Array | Type::String},
                 {Type::Array | Type::Url, Type::Error})
      .operationWithoutReply("itemChangedAtURL:", {Type::Url})
      .build();
}

std::string refusalOf(const Result<void>& result) {
  if (result) {
    return "";
  }
  EXPECT_EQ(result.error()->domain, kIpcErrorDomain);
  EXPECT_EQ(result.error()->code, static_cast<std::int64_t>(IpcErrorCode::MessageRefused));
  return result.error()->localizedDescription();
}

TEST(IpcInterface, AcceptsRequestsThatFitTheirOperation) {
  const IpcInterface interface = sampleInterface();
  EXPECT_EQ(refusalOf(interface.check(Request{"wakeUpCompletion:", {}, 0})), "");
  EXPECT_EQ(refusalOf(interface.check(
                Request{"startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:",
                        {Value(url("file:///a")), Value("p"), Value("c")},
                        42})),
            "");
  EXPECT_EQ(refusalOf(interface.check(
                Request{"itemChangedAtURL:", {Value(url("file:///a"))}, std::nullopt})),
            "");
}

TEST(IpcInterface, NilIsAllowedEverywhere) {
  const IpcInterface interface = sampleInterface();
  EXPECT_EQ(refusalOf(interface.check(
                Request{"startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:",
                        {Value(), Value(), Value()},
                        1})),
            "");
  EXPECT_EQ(refusalOf(interface.check(Request{
                "fetchItemsWithOptions:completionHandler:",
                {Value(Value::Dictionary{{"a", Value()}, {"b", Value(Value::Array{Value()})}})},
                1})),
            "");
  EXPECT_EQ(refusalOf(interface.checkReply("wakeUpCompletion:", {})), "");
}

TEST(IpcInterface, RefusesUnknownOperationsAndWrongArity) {
  const IpcInterface interface = sampleInterface();
  EXPECT_EQ(refusalOf(interface.check(Request{"deleteEverything:", {Value()}, std::nullopt})),
            "DKSample has no operation \"deleteEverything:\"");
  // A selector is matched whole, not by its first piece.
  EXPECT_THAT(refusalOf(interface.check(Request{"wakeUp", {}, 0})),
              testing::HasSubstr("has no operation"));
  EXPECT_EQ(refusalOf(interface.check(Request{"itemChangedAtURL:", {}, std::nullopt})),
            "itemChangedAtURL: takes 1 argument, the message has 0");
  EXPECT_EQ(refusalOf(interface.check(Request{"wakeUpCompletion:", {Value(1)}, 0})),
            "wakeUpCompletion: takes 0 arguments, the message has 1");
}

TEST(IpcInterface, RefusesAReplyIdThatDoesNotMatchTheReplyBlock) {
  const IpcInterface interface = sampleInterface();
  EXPECT_EQ(refusalOf(interface.check(Request{"wakeUpCompletion:", {}, std::nullopt})),
            "wakeUpCompletion: takes a reply block, the message has no reply id");
  EXPECT_EQ(refusalOf(interface.check(Request{"itemChangedAtURL:", {Value(url("file:///a"))}, 3})),
            "itemChangedAtURL: takes no reply block, the message has a reply id");
}

TEST(IpcInterface, RefusesAnArgumentOfAClassNotAllowed) {
  const IpcInterface interface = sampleInterface();
  EXPECT_EQ(
      refusalOf(interface.check(
          Request{"startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:",
                  {Value(url("file:///a")), Value(7), Value("c")},
                  1})),
      "argument 1 of startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:: "
      "is an Integer where only String is allowed");
  // A URL is not a string, nor a string a URL.
  EXPECT_THAT(
      refusalOf(interface.check(Request{"itemChangedAtURL:", {Value("file:///a")}, std::nullopt})),
      testing::HasSubstr("is a String where only URL is allowed"));
}

TEST(IpcInterface, RefusesAForbiddenClassThreeLevelsDeepInsideADictionary) {
  const IpcInterface interface = sampleInterface();
  // {"a": [{"b": <URL>}]}: the URL sits at depth 3.
  const Value options(Value::Dictionary{
      {"a", Value(Value::Array{Value(Value::Dictionary{{"b", Value(url("file:///x"))}})})},
  });
  EXPECT_EQ(
      refusalOf(interface.check(Request{"fetchItemsWithOptions:completionHandler:", {options}, 1})),
      "argument 0 of fetchItemsWithOptions:completionHandler:: holds a URL where only "
      "String, Array or Dictionary is allowed (depth 3)");
  // Nor is data, at any depth.
  const Value withData(Value::Dictionary{{"a", Value(Value::Data{1})}});
  EXPECT_THAT(refusalOf(interface.check(
                  Request{"fetchItemsWithOptions:completionHandler:", {withData}, 1})),
              testing::HasSubstr("holds a Data where only String, Array or Dictionary is allowed "
                                 "(depth 1)"));
}

TEST(IpcInterface, AnErrorIsCheckedAsAnErrorWhateverItsUserInfoHolds) {
  const IpcInterface interface = sampleInterface();
  const Value rich = error({{"URL", Value(url("file:///x"))},
                            {"value", Value(Value::Array{Value(Value::Data{1}), Value(2.5)})},
                            {"underlyingError", error({{"n", Value(1)}})}});
  EXPECT_EQ(refusalOf(interface.checkReply(
                "startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:", {rich})),
            "");
  // Where errors are not allowed, one is refused like any other class.
  EXPECT_THAT(
      refusalOf(interface.check(Request{
          "fetchItemsWithOptions:completionHandler:", {Value(Value::Dictionary{{"e", rich}})}, 1})),
      testing::HasSubstr("holds an Error where only String, Array or Dictionary is "
                         "allowed"));
}

TEST(IpcInterface, ChecksReplyValuesAgainstTheReplyBlock) {
  const IpcInterface interface = sampleInterface();
  const std::string fetch = "fetchItemsWithOptions:completionHandler:";
  EXPECT_EQ(refusalOf(interface.checkReply(
                fetch, {Value(Value::Array{Value(url("file:///a"))}), Value()})),
            "");
  EXPECT_EQ(refusalOf(interface.checkReply(fetch, {Value()})),
            "the reply to fetchItemsWithOptions:completionHandler: takes 2 values, the message "
            "has 1");
  EXPECT_EQ(refusalOf(interface.checkReply(fetch, {Value(Value::Array{Value("s")}), Value()})),
            "reply value 0 of fetchItemsWithOptions:completionHandler:: holds a String where "
            "only URL or Array is allowed (depth 1)");
  EXPECT_EQ(refusalOf(interface.checkReply("itemChangedAtURL:", {})),
            "itemChangedAtURL: takes no reply block");
  EXPECT_THAT(refusalOf(interface.checkReply("nothing:", {})),
              testing::HasSubstr("has no operation"));
}

TEST(IpcInterface, SetClassesWidensOneArgumentAtEveryDepth) {
  IpcInterface interface = sampleInterface();
  const std::string fetch = "fetchItemsWithOptions:completionHandler:";
  const Value options(Value::Dictionary{{"urls", Value(Value::Array{Value(url("file:///a"))})}});
  const Request request{fetch, {options}, 1};
  EXPECT_NE(refusalOf(interface.check(request)), "");

  ASSERT_TRUE(interface.setClasses(Type::Dictionary | Type::Array | Type::Url, fetch, 0));
  EXPECT_EQ(refusalOf(interface.check(request)), "");
  // Replacing, not adding: strings are no longer allowed.
  EXPECT_THAT(refusalOf(interface.check(Request{fetch, {Value("s")}, 1})),
              testing::HasSubstr("where only URL, Array or Dictionary is allowed"));

  // Reply values are set the same way.
  ASSERT_TRUE(interface.setClasses(ClassSet::any(), fetch, 0, true));
  EXPECT_EQ(refusalOf(interface.checkReply(fetch, {Value(1), Value()})), "");

  EXPECT_FALSE(interface.setClasses(Type::String, "unknown:", 0));
  EXPECT_FALSE(interface.setClasses(Type::String, fetch, 1));
  EXPECT_FALSE(interface.setClasses(Type::String, fetch, 2, true));
}

TEST(IpcInterface, ClassSetsDescribeThemselvesInTypeOrder) {
  EXPECT_EQ(ClassSet().description(), "nil");
  EXPECT_EQ(ClassSet(Type::Url).description(), "URL");
  EXPECT_EQ((Type::Error | Type::String).description(), "String or Error");
  EXPECT_EQ((ClassSet{Type::Dictionary, Type::Boolean, Type::Data}).description(),
            "Boolean, Data or Dictionary");
  EXPECT_TRUE(ClassSet().allows(Type::Null));
  EXPECT_FALSE(ClassSet().allows(Type::Boolean));
  EXPECT_TRUE(ClassSet::any().allows(Type::Error));
}

TEST(IpcInterface, AnInterfaceWithoutOperationsRefusesEverything) {
  const IpcInterface host("DKHostProtocol");
  EXPECT_THAT(refusalOf(host.check(Request{"anything:", {Value()}, std::nullopt})),
              testing::HasSubstr("DKHostProtocol has no operation"));
}

}  // namespace
}  // namespace daskel::platform
