#include "platform/ipc/WireCodec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "platform/errors/DKErrors.h"

// Allocation watch: every operator new of this test binary records the largest single request
// made while a watch is on, so a test can show that a claimed length was not allocated.
namespace {
std::atomic<bool> gWatchingAllocations{false};
std::atomic<std::size_t> gLargestAllocation{0};

void* trackedAllocate(std::size_t size) {
  if (gWatchingAllocations.load(std::memory_order_relaxed)) {
    std::size_t largest = gLargestAllocation.load(std::memory_order_relaxed);
    while (size > largest && !gLargestAllocation.compare_exchange_weak(largest, size)) {
    }
  }
  if (void* p = std::malloc(size == 0 ? 1 : size)) {
    return p;
  }
  throw std::bad_alloc();
}
}  // namespace

void* operator new(std::size_t size) {
  return trackedAllocate(size);
}
void* operator new[](std::size_t size) {
  return trackedAllocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return trackedAllocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return trackedAllocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  std::free(p);
}

namespace daskel::platform {

// The largest single allocation made while `body` ran. Shared with FrameTest.cpp.
std::size_t largestAllocationDuring(const std::function<void()>& body) {
  gLargestAllocation = 0;
  gWatchingAllocations = true;
  body();
  gWatchingAllocations = false;
  return gLargestAllocation.load();
}

namespace {

using Bytes = std::vector<std::uint8_t>;
using Type = Value::Type;

std::string hex(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (std::uint8_t b : bytes) {
    if (!text.empty()) {
      text += ' ';
    }
    text += kDigits[b >> 4];
    text += kDigits[b & 15];
  }
  return text;
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes textItem(const std::string& text) {
  Bytes out;
  WireCodec::appendText(out, text);
  return out;
}

Url url(const char* text) {
  std::optional<Url> parsed = Url::fromString(text);
  EXPECT_TRUE(parsed.has_value()) << text;
  return *parsed;
}

Bytes encoded(const Value& value) {
  Result<Bytes> bytes = WireCodec::encode(value);
  EXPECT_TRUE(bytes.has_value()) << (bytes ? "" : bytes.error()->description());
  return bytes ? *bytes : Bytes{};
}

// The refusal text of decoding `bytes`, or "" when they decoded.
std::string refusalOf(const Bytes& bytes) {
  Result<Value> value = WireCodec::decode(bytes);
  if (value) {
    return "";
  }
  EXPECT_EQ(value.error()->domain, kIpcErrorDomain);
  EXPECT_EQ(value.error()->code, static_cast<std::int64_t>(IpcErrorCode::MessageRefused));
  return value.error()->localizedDescription();
}

Value decoded(const Bytes& bytes) {
  Result<Value> value = WireCodec::decode(bytes);
  EXPECT_TRUE(value.has_value()) << hex(bytes) << ": "
                                 << (value ? "" : value.error()->localizedDescription());
  return value ? *value : Value();
}

Value nestedArrays(int levels, Value innermost) {
  Value value = std::move(innermost);
  for (int i = 0; i < levels; ++i) {
    value = Value(Value::Array{value});
  }
  return value;
}

Bytes nestedArrayBytes(int levels, const Bytes& innermost) {
  Bytes out(static_cast<std::size_t>(levels), 0x81);
  return out + innermost;
}

Value sampleError() {
  Value::Dictionary inner{{"description", Value("inner")}};
  auto underlying = std::make_shared<Error>(Error{"com.example.provider", -7, inner});
  Value::Dictionary userInfo{
      {"description", Value("outer")},
      {"URL", Value(url("file:///tmp/a%20b/"))},
      {"underlyingError", Value(ErrorPtr(underlying))},
      {"value", Value(Value::Array{Value(1), Value(2.5), Value(nullptr)})},
  };
  return Value(ErrorPtr(std::make_shared<Error>(Error{"com.orvane.Daskel", 8, userInfo})));
}

// ---- Round trips --------------------------------------------------------------------------

TEST(WireCodec, EveryScalarKindSurvivesARoundTrip) {
  const std::vector<Value> values = {
      Value(),
      Value(true),
      Value(false),
      Value(0),
      Value(23),
      Value(24),
      Value(255),
      Value(256),
      Value(65536),
      Value(std::numeric_limits<std::int64_t>::max()),
      Value(-1),
      Value(-24),
      Value(-25),
      Value(std::numeric_limits<std::int64_t>::min()),
      Value(0.0),
      Value(-0.0),
      Value(1.5),
      Value(65504.0),
      Value(5.960464477539063e-8),  // the smallest half subnormal
      Value(100000.0),
      Value(3.141592653589793),
      Value(1e300),
      Value(std::numeric_limits<double>::infinity()),
      Value(-std::numeric_limits<double>::infinity()),
      Value(std::numeric_limits<double>::quiet_NaN()),
      Value(""),
      Value("plain ascii text that is longer than eight bytes"),
      Value("\xc3\xa9t\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"),
      Value(Value::Data{}),
      Value(Value::Data{0x00, 0xff, 0x80, 0x7f}),
      Value(url("file:///tmp/a%20b/")),
      Value(url("https://example.org/x?y=1#z")),
  };
  for (const Value& value : values) {
    EXPECT_EQ(decoded(encoded(value)), value) << value.description();
    // Signed zero keeps its sign.
    if (value.type() == Type::Real) {
      EXPECT_EQ(std::signbit(*decoded(encoded(value)).real()), std::signbit(*value.real()));
    }
  }
}

TEST(WireCodec, NestedContainersAndErrorsSurviveARoundTrip) {
  Value::Dictionary dictionary{
      {"array", Value(Value::Array{Value(1), Value("two"), Value(Value::Data{3})})},
      {"empty array", Value(Value::Array{})},
      {"empty dictionary", Value(Value::Dictionary{})},
      {"error", sampleError()},
      {"nested", Value(Value::Dictionary{{"deeper", Value(Value::Dictionary{{"x", Value()}})}})},
      {"url", Value(url("file:///var/lib/x"))},
  };
  const Value value(Value::Array{Value(dictionary), sampleError(), Value(Value::Array{})});
  EXPECT_EQ(decoded(encoded(value)), value);
}

// ---- Exact bytes --------------------------------------------------------------------------

TEST(WireCodec, ScalarsHaveTheirShortestEncodings) {
  EXPECT_EQ(hex(encoded(Value())), "f6");
  EXPECT_EQ(hex(encoded(Value(true))), "f5");
  EXPECT_EQ(hex(encoded(Value(false))), "f4");
  EXPECT_EQ(hex(encoded(Value(23))), "17");
  EXPECT_EQ(hex(encoded(Value(24))), "18 18");
  EXPECT_EQ(hex(encoded(Value(1000))), "19 03 e8");
  EXPECT_EQ(hex(encoded(Value(-1))), "20");
  EXPECT_EQ(hex(encoded(Value(-1000))), "39 03 e7");
  EXPECT_EQ(hex(encoded(Value(std::numeric_limits<std::int64_t>::min()))),
            "3b 7f ff ff ff ff ff ff ff");
  EXPECT_EQ(hex(encoded(Value(1.5))), "f9 3e 00");
  EXPECT_EQ(hex(encoded(Value(-0.0))), "f9 80 00");
  EXPECT_EQ(hex(encoded(Value(5.960464477539063e-8))), "f9 00 01");
  EXPECT_EQ(hex(encoded(Value(100000.0))), "fa 47 c3 50 00");
  EXPECT_EQ(hex(encoded(Value(1.1))), "fb 3f f1 99 99 99 99 99 9a");
  EXPECT_EQ(hex(encoded(Value(std::numeric_limits<double>::infinity()))), "f9 7c 00");
  EXPECT_EQ(hex(encoded(Value(std::numeric_limits<double>::quiet_NaN()))), "f9 7e 00");
  EXPECT_EQ(hex(encoded(Value("a\xc3\xa9"))), "63 61 c3 a9");
  EXPECT_EQ(hex(encoded(Value(Value::Data{1, 2}))), "42 01 02");
}

TEST(WireCodec, UrlsAndErrorsAreTaggedAndKeysGoShortestFirst) {
  EXPECT_EQ(hex(encoded(Value(url("a:b")))), "d8 20 63 61 3a 62");
  auto error = std::make_shared<Error>(Error{"d", 2, {{"k", Value(1)}}});
  EXPECT_EQ(hex(encoded(Value(ErrorPtr(error)))),
            "d8 1b 84 65 65 72 72 6f 72 61 64 02 a1 61 6b 01");
  const Value dictionary(
      Value::Dictionary{{"bb", Value(1)}, {"a", Value(2)}, {"c", Value(Value::Array{})}});
  EXPECT_EQ(hex(encoded(dictionary)), "a3 61 61 02 61 63 80 62 62 62 01");
}

// ---- Decoding what peers may send ---------------------------------------------------------

TEST(WireCodec, AllFloatWidthsDecode) {
  EXPECT_EQ(decoded({0xf9, 0x3c, 0x00}), Value(1.0));
  EXPECT_EQ(decoded({0xfa, 0x3f, 0xc0, 0x00, 0x00}), Value(1.5));
  EXPECT_EQ(decoded({0xfb, 0x40, 0x09, 0x21, 0xfb, 0x54, 0x44, 0x2d, 0x18}),
            Value(3.141592653589793));
}

TEST(WireCodec, IntegersOutsideInt64DecodeAsReals) {
  const Value big = decoded({0x1b, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff});
  ASSERT_EQ(big.type(), Type::Real);
  EXPECT_EQ(*big.real(), 18446744073709551615.0);
  const Value justOver = decoded({0x1b, 0x80, 0, 0, 0, 0, 0, 0, 0});
  ASSERT_EQ(justOver.type(), Type::Real);
  EXPECT_EQ(*justOver.real(), 9223372036854775808.0);
  const Value veryNegative = decoded({0x3b, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff});
  ASSERT_EQ(veryNegative.type(), Type::Real);
  EXPECT_EQ(*veryNegative.real(), -18446744073709551616.0);
  const Value smallest = decoded({0x3b, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff});
  ASSERT_EQ(smallest.type(), Type::Integer);
  EXPECT_EQ(*smallest.integer(), std::numeric_limits<std::int64_t>::min());
}

TEST(WireCodec, IndefiniteLengthItemsAreAccepted) {
  EXPECT_EQ(decoded({0x9f, 0x01, 0x9f, 0xff, 0x02, 0xff}),
            Value(Value::Array{Value(1), Value(Value::Array{}), Value(2)}));
  EXPECT_EQ(decoded({0xbf, 0x61, 0x61, 0x01, 0x7f, 0x61, 0x62, 0x61, 0x63, 0xff, 0xf6, 0xff}),
            Value(Value::Dictionary{{"a", Value(1)}, {"bc", Value()}}));
  EXPECT_EQ(decoded({0x7f, 0x62, 0xc3, 0xa9, 0x60, 0x61, 0x21, 0xff}), Value("\xc3\xa9!"));
  EXPECT_EQ(decoded({0x5f, 0x41, 0x01, 0x42, 0x02, 0x03, 0xff}), Value(Value::Data{1, 2, 3}));
  EXPECT_EQ(decoded({0x7f, 0xff}), Value(""));
  // A URL whose text arrives in chunks.
  EXPECT_EQ(decoded(Bytes{0xd8, 0x20, 0x7f} + textItem("file:") + textItem("///x") + Bytes{0xff}),
            Value(url("file:///x")));
  // An error whose array and userInfo are indefinite.
  EXPECT_EQ(decoded(Bytes{0xd8, 0x1b, 0x9f} + textItem("error") + textItem("d") +
                    Bytes{0x02, 0xbf} + textItem("k") + Bytes{0x01, 0xff, 0xff}),
            Value(ErrorPtr(std::make_shared<Error>(Error{"d", 2, {{"k", Value(1)}}}))));
}

TEST(WireCodec, ErrorUserInfoMayHoldAnyValue) {
  const Bytes bytes = Bytes{0xd8, 0x1b, 0x84} + textItem("error") + textItem("x.y") +
                      Bytes{0x29, 0xa2} + textItem("a") + Bytes{0x42, 0x00, 0x01} + textItem("b") +
                      Bytes{0x81, 0xd8, 0x20} + textItem("file:///");
  const Value value = decoded(bytes);
  ASSERT_EQ(value.type(), Type::Error);
  EXPECT_EQ(value.error()->code, -10);
  EXPECT_EQ(value.error()->userInfo.at("b"), Value(Value::Array{Value(url("file:///"))}));
}

// ---- Refusals -----------------------------------------------------------------------------

TEST(WireCodec, RefusesEveryMalformedOrUnmappedInputNamingWhy) {
  const Bytes tag = {0xd8, 0x1b};  // an error
  const Bytes emptyMap = {0xa0};
  const struct {
    Bytes bytes;
    const char* refusal;  // a fragment of the refusal text; "" when any refusal will do
  } cases[] = {
      // Empty, truncated and trailing input.
      {{}, "truncated"},
      {{0x19, 0x01}, "truncated"},
      {{0x82, 0x01}, "truncated"},
      {{0x63, 0x61, 0x62}, "truncated"},
      {{0x9f, 0x01}, "truncated"},
      {{0x01, 0x02}, "1 trailing bytes"},
      {{0x80, 0xf6, 0xf6}, "2 trailing bytes"},
      // Text that is not UTF-8.
      {{0x61, 0xff}, "not valid UTF-8"},
      {{0x62, 0xc0, 0x80}, "not valid UTF-8"},              // overlong
      {{0x63, 0xed, 0xa0, 0x80}, "not valid UTF-8"},        // a surrogate
      {{0x64, 0xf4, 0x90, 0x80, 0x80}, "not valid UTF-8"},  // above U+10FFFF
      {{0x62, 0xe2, 0x82}, "not valid UTF-8"},              // cut short
      // Non-ASCII inside a long ASCII run, where the eight-byte fast path is taken.
      {Bytes{0x6a} + Bytes(9, 'a') + Bytes{0x80}, "not valid UTF-8"},
      // A character split between chunks of an indefinite string.
      {{0x7f, 0x61, 0xc3, 0x61, 0xa9, 0xff}, "UTF-8"},
      // Keys are text too.
      {{0xa1, 0x61, 0xfe, 0x01}, "not valid UTF-8"},
      // URLs that are not absolute.
      {Bytes{0xd8, 0x20} + textItem("relative/path"), "not an absolute URI"},
      {Bytes{0xd8, 0x20} + textItem("//host/path"), "not an absolute URI"},
      {Bytes{0xd8, 0x20} + textItem(""), "not an absolute URI"},
      {{0xd8, 0x20, 0x01}, "tag 32 does not hold a text"},
      {{0xd8, 0x20, 0x41, 0x61}, "tag 32 does not hold a text"},
      // Tags other than URL and error.
      {Bytes{0xc0} + textItem("2013-03-21T20:04:00Z"), "tag 0 is not allowed"},
      {{0xc1, 0x01}, "tag 1 is not allowed"},
      {{0xd9, 0xd9, 0xf7, 0xf6}, "tag 55799 is not allowed"},
      {{0x81, 0xd8, 0x21, 0x60}, "tag 33 is not allowed"},
      // Malformed errors.
      {tag + Bytes{0x83} + textItem("error") + textItem("d") + Bytes{0x01}, "array of 4"},
      {tag + Bytes{0x84} + textItem("erro") + textItem("d") + Bytes{0x01} + emptyMap,
       "does not start with \"error\""},
      {tag + Bytes{0x84} + textItem("error") + Bytes{0x01, 0x01} + emptyMap,
       "domain is not a text string"},
      {tag + Bytes{0x84} + textItem("error") + textItem("d") + Bytes{0xf9, 0x3c, 0x00} + emptyMap,
       "code is not an integer"},
      // A code beyond int64 would decode as a real: not an integer either.
      {tag + Bytes{0x84} + textItem("error") + textItem("d") +
           Bytes{0x1b, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff} + emptyMap,
       "code is not an integer"},
      {tag + Bytes{0x84} + textItem("error") + textItem("d") + Bytes{0x01, 0x80},
       "userInfo is not a map"},
      {tag + Bytes{0xa0}, "tag 27 does not hold an array"},
      {tag + textItem("error"), "tag 27 does not hold an array"},
      // Maps with duplicate or non-text keys.
      {Bytes{0xa2} + textItem("k") + Bytes{0x01} + textItem("k") + Bytes{0x02},
       "\"k\" appears twice"},
      // The same key spelled once definite and once in chunks is still the same key.
      {Bytes{0xbf} + textItem("ab") + Bytes{0x01, 0x7f} + textItem("a") + textItem("b") +
           Bytes{0xff, 0x02, 0xff},
       "\"ab\" appears twice"},
      {{0xa1, 0x01, 0x02}, "map key is not a text string"},
      {{0xa1, 0x41, 0x61, 0x02}, "map key is not a text string"},
      {Bytes{0xa1, 0xd8, 0x20} + textItem("file:///") + Bytes{0x02},
       "map key is not a text string"},
      {{0xa1, 0x80, 0x02}, "map key is not a text string"},
      {{0xa1, 0xf6, 0x02}, "map key is not a text string"},
      // An indefinite map that ends between a key and its value.
      {Bytes{0xbf} + textItem("k") + Bytes{0xff}, "between a key and its value"},
      // Malformed and unmapped items.
      {{0x1c}, "malformed"},  // reserved length
      {{0x1f}, "malformed"},  // indefinite integer
      {{0xff}, "break code"},
      {{0x81, 0xff}, "break code"},
      {{0xf7}, "undefined"},
      {{0xe0}, ""},        // simple value 0
      {{0xf8, 0x20}, ""},  // simple value 32
      // Chunks of an indefinite string must be definite strings of its own type.
      {{0x7f, 0x41, 0x61, 0xff}, "chunk"},
      {{0x5f, 0x61, 0x61, 0xff}, "chunk"},
      {{0x7f, 0x7f, 0xff, 0xff}, "chunk"},
      {{0x5f, 0x01, 0xff}, "chunk"},
  };
  for (const auto& c : cases) {
    const std::string refusal = refusalOf(c.bytes);
    EXPECT_FALSE(refusal.empty()) << hex(c.bytes);
    EXPECT_THAT(refusal, testing::HasSubstr(c.refusal)) << hex(c.bytes);
  }
}

TEST(WireCodec, SixtyFourLevelsOfNestingAreAcceptedAndSixtyFiveRefused) {
  EXPECT_EQ(decoded(nestedArrayBytes(64, {0x01})), nestedArrays(64, Value(1)));
  EXPECT_EQ(decoded(nestedArrayBytes(63, {0x80})), nestedArrays(63, Value(Value::Array{})));
  EXPECT_THAT(refusalOf(nestedArrayBytes(65, {0x01})), testing::HasSubstr("deeper than 64"));
  EXPECT_THAT(refusalOf(nestedArrayBytes(64, {0x80})), testing::HasSubstr("deeper than 64"));
  EXPECT_THAT(refusalOf(nestedArrayBytes(64, {0xa0})), testing::HasSubstr("deeper than 64"));
  EXPECT_THAT(refusalOf(nestedArrayBytes(65, {})), testing::HasSubstr("deeper than 64"));
  EXPECT_THAT(refusalOf(Bytes(65, 0x9f) + Bytes(65, 0xff)), testing::HasSubstr("deeper than 64"));

  // A tag is a level: a URL is two levels above a scalar, an error three.
  const Bytes urlItem = Bytes{0xd8, 0x20} + textItem("file:///");
  EXPECT_EQ(decoded(nestedArrayBytes(63, urlItem)), nestedArrays(63, Value(url("file:///"))));
  EXPECT_THAT(refusalOf(nestedArrayBytes(64, urlItem)), testing::HasSubstr("deeper than 64"));
  const Value error(ErrorPtr(std::make_shared<Error>(Error{"d", 1, {{"k", Value(1)}}})));
  EXPECT_EQ(decoded(nestedArrayBytes(61, encoded(error))), nestedArrays(61, error));
  EXPECT_THAT(refusalOf(nestedArrayBytes(62, encoded(error))),
              testing::HasSubstr("deeper than 64"));
}

TEST(WireCodec, EncodingRefusesWhatDecodingWould) {
  EXPECT_TRUE(WireCodec::encode(nestedArrays(64, Value(1))).has_value());
  EXPECT_FALSE(WireCodec::encode(nestedArrays(65, Value(1))).has_value());
  EXPECT_FALSE(WireCodec::encode(nestedArrays(64, Value(url("file:///")))).has_value());
  EXPECT_FALSE(WireCodec::encode(Value(std::string("\xff"))).has_value());
  EXPECT_FALSE(
      WireCodec::encode(Value(Value::Dictionary{{std::string("\xc0\x80"), Value(1)}})).has_value());
  const Result<Bytes> refused = WireCodec::encode(Value(Value::Array{Value(std::string("\xff"))}));
  ASSERT_FALSE(refused.has_value());
  EXPECT_EQ(refused.error()->domain, kIpcErrorDomain);
  EXPECT_EQ(refused.error()->code, static_cast<std::int64_t>(IpcErrorCode::MessageRefused));
}

TEST(WireCodec, HugeClaimedLengthsInATinyInputFailWithoutABigAllocation) {
  const std::vector<Bytes> claims = {
      {0x9b, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01},  // array of 2^32
      {0x9b, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01},  // array of 2^63 - 1
      {0xbb, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x61},  // map of 2^32 pairs
      {0x5b, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01},  // byte string of 2^32
      {0x7b, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x61},  // text of 2^64 - 1
      {0x81, 0x9a, 0xff, 0xff, 0xff, 0xff, 0x01, 0x02},              // nested claim
  };
  for (const Bytes& claim : claims) {
    std::string refusal;
    const std::size_t largest = largestAllocationDuring([&] { refusal = refusalOf(claim); });
    EXPECT_THAT(refusal, testing::HasSubstr("truncated")) << hex(claim);
    EXPECT_LT(largest, 4096u) << hex(claim);
  }
}

TEST(WireCodec, DecodePrefixReportsWhereTheItemEnds) {
  std::size_t consumed = 0;
  const Bytes bytes = {0x82, 0x01, 0x02, 0xf6, 0xf6};
  const Result<Value> value = WireCodec::decodePrefix(bytes, 0, &consumed);
  ASSERT_TRUE(value.has_value());
  EXPECT_EQ(consumed, 3u);
  // The enclosing depth counts towards the limit.
  EXPECT_FALSE(WireCodec::decodePrefix(bytes, 64, &consumed).has_value());
  EXPECT_TRUE(WireCodec::decodePrefix(bytes, 63, &consumed).has_value());
}

}  // namespace
}  // namespace daskel::platform
