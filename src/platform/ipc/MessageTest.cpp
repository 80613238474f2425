#include "platform/ipc/Message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "platform/errors/DKErrors.h"
#include "platform/ipc/WireCodec.h"

namespace daskel::platform {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes text(const std::string& value) {
  Bytes out;
  WireCodec::appendText(out, value);
  return out;
}

Bytes ascii(const std::string& value) {
  return Bytes(value.begin(), value.end());
}

Url url(const char* text) {
  std::optional<Url> parsed = Url::fromString(text);
  EXPECT_TRUE(parsed.has_value()) << text;
  return *parsed;
}

Bytes encoded(const Request& request) {
  Result<Bytes> bytes = encodeRequest(request);
  EXPECT_TRUE(bytes.has_value());
  return bytes ? *bytes : Bytes{};
}

Bytes encoded(const Reply& reply) {
  Result<Bytes> bytes = encodeReply(reply);
  EXPECT_TRUE(bytes.has_value());
  return bytes ? *bytes : Bytes{};
}

Message decoded(const Bytes& bytes) {
  Result<Message> message = decodeMessage(bytes);
  EXPECT_TRUE(message.has_value()) << (message ? "" : message.error()->localizedDescription());
  return message ? *message : Message{};
}

std::string refusalOf(const Bytes& bytes) {
  Result<Message> message = decodeMessage(bytes);
  if (message) {
    return "";
  }
  EXPECT_EQ(message.error()->domain, kIpcErrorDomain);
  EXPECT_EQ(message.error()->code, static_cast<std::int64_t>(IpcErrorCode::MessageRefused));
  return message.error()->localizedDescription();
}

// ---- The wire, pinned ---------------------------------------------------------------------

TEST(Message, ARequestWithAReplyBlockHasTheseExactBytes) {
  // {"op": "wakeUpCompletion:", "args": [], "reply": 0}
  const Bytes expected = Bytes{0xa3, 0x62} + ascii("op") + Bytes{0x71} +
                         ascii("wakeUpCompletion:") + Bytes{0x64} + ascii("args") +
                         Bytes{0x80, 0x65} + ascii("reply") + Bytes{0x00};
  EXPECT_EQ(encoded(Request{"wakeUpCompletion:", {}, 0}), expected);
}

TEST(Message, ARequestWithoutAReplyBlockHasNoReplyKey) {
  // {"op": "a:b:", "args": [1, "x"]}
  const Bytes expected = Bytes{0xa2, 0x62} + ascii("op") + Bytes{0x64} + ascii("a:b:") +
                         Bytes{0x64} + ascii("args") + Bytes{0x82, 0x01, 0x61, 'x'};
  EXPECT_EQ(encoded(Request{"a:b:", {Value(1), Value("x")}, std::nullopt}), expected);
}

TEST(Message, AReplyHasTheseExactBytes) {
  // {"reply": 500, "values": [null, "ok"]}
  const Bytes expected = Bytes{0xa2, 0x65} + ascii("reply") + Bytes{0x19, 0x01, 0xf4, 0x66} +
                         ascii("values") + Bytes{0x82, 0xf6, 0x62, 'o', 'k'};
  EXPECT_EQ(encoded(Reply{500, {Value(), Value("ok")}}), expected);
}

// ---- Round trips --------------------------------------------------------------------------

TEST(Message, RequestsAndRepliesSurviveARoundTrip) {
  auto error = std::make_shared<Error>(
      Error{"com.orvane.Daskel", 3, {{"providerIdentifier", Value("com.example.p")}}});
  const Value::Array args = {
      Value(url("file:///home/u/Docs/a%20b.txt")),
      Value("com.example.provider"),
      Value(Value::Dictionary{{"k", Value(Value::Array{Value(1.25), Value(Value::Data{1})})}}),
      Value(ErrorPtr(error)),
      Value(),
  };
  for (std::optional<std::uint64_t> id :
       {std::optional<std::uint64_t>(), std::optional<std::uint64_t>(0),
        std::optional<std::uint64_t>(std::numeric_limits<std::uint64_t>::max())}) {
    const Request request{
        "startProvidingItemAtURL:fromProviderID:forConsumerID:"
        "completionHandler:",
        args, id};
    EXPECT_EQ(decoded(encoded(request)), Message(request));
  }
  const Reply reply{std::numeric_limits<std::uint64_t>::max(), {Value(ErrorPtr(error))}};
  EXPECT_EQ(decoded(encoded(reply)), Message(reply));
  EXPECT_EQ(decoded(encoded(Reply{0, {}})), Message(Reply{0, {}}));
}

TEST(Message, KeysMayComeInAnyOrderAndWithIndefiniteLengths) {
  // {_ "reply": 7, "args": [_ 1], "op": "x:"} with everything indefinite that can be.
  const Bytes bytes = Bytes{0xbf} + text("reply") + Bytes{0x07} + text("args") +
                      Bytes{0x9f, 0x01, 0xff, 0x7f} + text("o") + text("p") + Bytes{0xff} +
                      text("x:") + Bytes{0xff};
  EXPECT_EQ(decoded(bytes), Message(Request{"x:", {Value(1)}, 7}));
  const Bytes reply = Bytes{0xa2} + text("values") + Bytes{0x80} + text("reply") +
                      Bytes{0x1b, 0x80, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(decoded(reply), Message(Reply{9223372036854775808ULL, {}}));
}

// ---- Refusals -----------------------------------------------------------------------------

TEST(Message, RefusesWhatIsNotAMap) {
  EXPECT_THAT(refusalOf({0x80}), testing::HasSubstr("not a map"));
  EXPECT_THAT(refusalOf(text("op")), testing::HasSubstr("not a map"));
  EXPECT_THAT(refusalOf({}), testing::HasSubstr("truncated"));
  EXPECT_THAT(refusalOf({0xa0}), testing::HasSubstr("neither a request nor a reply"));
  EXPECT_THAT(refusalOf({0x1c}), testing::HasSubstr("not well-formed"));
}

TEST(Message, RefusesOtherMissingAndRepeatedKeys) {
  const Bytes op = text("op") + text("x:");
  const Bytes args = text("args") + Bytes{0x80};
  EXPECT_THAT(refusalOf(Bytes{0xa3} + op + args + text("extra") + Bytes{0x01}),
              testing::HasSubstr("unknown key \"extra\""));
  EXPECT_THAT(refusalOf(Bytes{0xa1} + op), testing::HasSubstr("without \"args\""));
  EXPECT_THAT(refusalOf(Bytes{0xa1} + args), testing::HasSubstr("without \"op\""));
  EXPECT_THAT(refusalOf(Bytes{0xa1} + text("values") + Bytes{0x80}),
              testing::HasSubstr("reply without \"reply\""));
  EXPECT_THAT(refusalOf(Bytes{0xa1} + text("reply") + Bytes{0x01}),
              testing::HasSubstr("neither a request nor a reply"));
  EXPECT_THAT(refusalOf(Bytes{0xa3} + op + args + op), testing::HasSubstr("\"op\" twice"));
  EXPECT_THAT(refusalOf(Bytes{0xa3} + op + args + text("values") + Bytes{0x80}),
              testing::HasSubstr("request with \"values\""));
  EXPECT_THAT(refusalOf(Bytes{0xa3} + op + args + Bytes{0x01, 0x01}),
              testing::HasSubstr("key is not a text string"));
  // A map announcing more entries than the message holds.
  EXPECT_THAT(refusalOf(Bytes{0xbb, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff} + op + args),
              testing::HasSubstr("truncated"));
}

TEST(Message, RefusesFieldsOfTheWrongType) {
  const Bytes op = text("op") + text("x:");
  const Bytes args = text("args") + Bytes{0x80};
  EXPECT_THAT(refusalOf(Bytes{0xa2} + text("op") + Bytes{0x01} + args),
              testing::HasSubstr("\"op\" is not a text string"));
  EXPECT_THAT(refusalOf(Bytes{0xa2} + op + text("args") + Bytes{0xa0}),
              testing::HasSubstr("\"args\" is not an array"));
  EXPECT_THAT(refusalOf(Bytes{0xa2} + text("reply") + Bytes{0x01} + text("values") + text("v")),
              testing::HasSubstr("\"values\" is not an array"));
  for (const Bytes& id :
       {Bytes{0x20}, Bytes{0xf9, 0x3c, 0x00}, text("1"), Bytes{0xf6}, Bytes{0xc2, 0x41, 0x01}}) {
    EXPECT_THAT(refusalOf(Bytes{0xa3} + op + args + text("reply") + id),
                testing::HasSubstr("\"reply\" is not an unsigned integer"));
  }
}

TEST(Message, RefusesBadValuesInsideAndBytesAfter) {
  const Bytes op = text("op") + text("x:");
  EXPECT_THAT(refusalOf(Bytes{0xa2} + op + text("args") + Bytes{0x81, 0xd8, 0x20} + text("rel")),
              testing::HasSubstr("not an absolute URI"));
  EXPECT_THAT(refusalOf(Bytes{0xa2} + op + text("args") + Bytes{0x81, 0x61, 0xff}),
              testing::HasSubstr("not valid UTF-8"));
  EXPECT_THAT(refusalOf(Bytes{0xa2} + op + text("args") + Bytes{0x80, 0x00}),
              testing::HasSubstr("1 trailing bytes"));
  EXPECT_THAT(refusalOf(Bytes{0xa2} + op + text("args") + Bytes{0x82, 0x01}),
              testing::HasSubstr("truncated"));
}

TEST(Message, TheMessageMapAndArgumentArrayCountTowardsTheNestingLimit) {
  // Map (1) + args (2) + 62 arrays = 64 levels.
  Value deepest(Value::Array{});
  for (int i = 0; i < 61; ++i) {
    deepest = Value(Value::Array{deepest});
  }
  const Request fits{"x:", {deepest}, std::nullopt};
  EXPECT_EQ(decoded(encoded(fits)), Message(fits));

  const Request tooDeep{"x:", {Value(Value::Array{deepest})}, std::nullopt};
  EXPECT_FALSE(encodeRequest(tooDeep).has_value());
  const Bytes head = Bytes{0xa2} + text("op") + text("x:") + text("args");
  EXPECT_EQ(refusalOf(head + Bytes(62, 0x81) + Bytes{0x80}), "");
  EXPECT_THAT(refusalOf(head + Bytes(63, 0x81) + Bytes{0x80}),
              testing::HasSubstr("deeper than 64"));
}

TEST(Message, EncodingRefusesTextThatIsNotUtf8) {
  EXPECT_FALSE(encodeRequest(Request{"x\xff:", {}, std::nullopt}).has_value());
  EXPECT_FALSE(encodeRequest(Request{"x:", {Value(std::string("\xff"))}, 1}).has_value());
  EXPECT_FALSE(encodeReply(Reply{1, {Value(std::string("\xc3"))}}).has_value());
}

}  // namespace
}  // namespace daskel::platform
