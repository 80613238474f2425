#include "platform/value/Value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/value/Error.h"

namespace daskel::platform {
namespace {

Value nestedSample() {
  return Value(Value::Dictionary{
      {"name", Value("Daskel")},
      {"items", Value(Value::Array{Value(1), Value(2.5), Value(true), Value(nullptr)})},
      {"inner", Value(Value::Dictionary{{"url", Value(*Url::fromString("file:///x"))},
                                        {"data", Value(Value::Data{1, 2, 3})}})},
  });
}

TEST(Value, TypedAccessorsAnswerOnlyForTheirOwnType) {
  Value number(42);
  EXPECT_EQ(number.type(), Value::Type::Integer);
  EXPECT_EQ(number.integer(), 42);
  EXPECT_FALSE(number.boolean().has_value());
  EXPECT_FALSE(number.real().has_value());
  EXPECT_EQ(number.string(), nullptr);
  EXPECT_EQ(number.array(), nullptr);
  EXPECT_EQ(number.dictionary(), nullptr);
  EXPECT_EQ(number.error(), nullptr);
  EXPECT_EQ(number.find("x"), nullptr);

  // Small integers are not booleans, string views are strings, a null error is null.
  EXPECT_EQ(Value(std::uint8_t{7}).type(), Value::Type::Integer);
  EXPECT_EQ(Value(std::string_view("text")).type(), Value::Type::String);
  EXPECT_TRUE(Value(ErrorPtr()).isNull());
  EXPECT_TRUE(Value(nullptr).isNull());
}

TEST(Value, FindLooksUpDictionaryKeys) {
  Value value = nestedSample();
  ASSERT_NE(value.find("name"), nullptr);
  EXPECT_EQ(*value.find("name")->string(), "Daskel");
  EXPECT_EQ(value.find("missing"), nullptr);
  EXPECT_EQ(value.find("inner")->find("data")->data()->size(), 3u);
}

TEST(Value, EqualityIsDeep) {
  EXPECT_EQ(nestedSample(), nestedSample());
  Value changed(Value::Dictionary{
      {"name", Value("Daskel")},
      {"items", Value(Value::Array{Value(1), Value(2.5), Value(true), Value(nullptr)})},
      {"inner", Value(Value::Dictionary{{"url", Value(*Url::fromString("file:///x"))},
                                        {"data", Value(Value::Data{1, 2, 4})}})},
  });
  EXPECT_NE(nestedSample(), changed);
  EXPECT_NE(Value(Value::Array{Value(1)}), Value(Value::Array{Value(1), Value(1)}));
  EXPECT_EQ(Value(makeError("d", 1, "x", {{"k", Value(1)}})),
            Value(makeError("d", 1, "x", {{"k", Value(1)}})));
  EXPECT_NE(Value(makeError("d", 1, "x")), Value(makeError("d", 2, "x")));
}

TEST(Value, EqualityKeepsTypesApartAndNotANumberEqualsItsCopy) {
  EXPECT_NE(Value(1), Value(1.0));
  EXPECT_NE(Value(1), Value(true));
  EXPECT_NE(Value("1"), Value(1));
  EXPECT_NE(Value(""), Value());
  EXPECT_NE(Value("file:///x"), Value(*Url::fromString("file:///x")));
  Value nan(std::numeric_limits<double>::quiet_NaN());
  Value copy = nan;
  EXPECT_EQ(nan, copy);
  EXPECT_NE(nan, Value(0.0));
}

TEST(Value, NumbersCountForEntitlementsWhenTrueOrNonZeroStringsNever) {
  EXPECT_TRUE(Value(true).isTrueNumber());
  EXPECT_TRUE(Value(1).isTrueNumber());
  EXPECT_TRUE(Value(-1).isTrueNumber());
  EXPECT_TRUE(Value(0.25).isTrueNumber());
  EXPECT_FALSE(Value(false).isTrueNumber());
  EXPECT_FALSE(Value(0).isTrueNumber());
  EXPECT_FALSE(Value(0.0).isTrueNumber());
  EXPECT_FALSE(Value(-0.0).isTrueNumber());
  EXPECT_FALSE(Value(std::nan("")).isTrueNumber());
  EXPECT_FALSE(Value("1").isTrueNumber());
  EXPECT_FALSE(Value("YES").isTrueNumber());
  EXPECT_FALSE(Value("true").isTrueNumber());
  EXPECT_FALSE(Value().isTrueNumber());
  EXPECT_FALSE(Value(Value::Array{Value(true)}).isTrueNumber());
}

TEST(Value, DescriptionsAreWhatALogLinePrints) {
  Value::Data longData(100);
  for (std::size_t i = 0; i < longData.size(); ++i) {
    longData[i] = static_cast<std::uint8_t>(i);
  }
  const std::pair<Value, const char*> cases[] = {
      {Value("plain text, no quotes"), "plain text, no quotes"},
      {Value(""), ""},
      {Value(*Url::fromString("file:///a%20b/")), "file:///a%20b/"},
      {Value(), "(null)"},
      {Value(true), "1"},
      {Value(false), "0"},
      {Value(-42), "-42"},
      {Value(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808"},
      {Value(0.5), "0.5"},
      {Value(0.1), "0.1"},
      {Value(3.0), "3"},
      {Value(Value::Data{}), "{length = 0, bytes = 0x}"},
      {Value(Value::Data{0x01, 0x02, 0xff}), "{length = 3, bytes = 0x0102ff}"},
      // Long data is cut in the middle.
      {Value(longData), "{length = 100, bytes = 0x000102030405060708090a0b0c0d0e0f ... 60616263}"},
      {Value(Value::Array{}), "(\n)"},
      {Value(Value::Array{Value("a"), Value("b")}), "(\n    a,\n    b\n)"},
      {Value(Value::Dictionary{}), "{\n}"},
      {Value(Value::Dictionary{{"b", Value(2)}, {"a", Value(1)}}), "{\n    a = 1;\n    b = 2;\n}"},
  };
  for (const auto& [value, expected] : cases) {
    EXPECT_EQ(value.description(), expected);
  }
}

TEST(Value, NestedContainersIndentOneLevelPerDepth) {
  Value value(Value::Dictionary{
      {"list", Value(Value::Array{Value(1), Value(Value::Array{Value(2)})})},
      {"map", Value(Value::Dictionary{{"x", Value(Value::Dictionary{{"y", Value()}})}})},
  });
  EXPECT_EQ(value.description(),
            "{\n"
            "    list = (\n"
            "        1,\n"
            "        (\n"
            "            2\n"
            "        )\n"
            "    );\n"
            "    map = {\n"
            "        x = {\n"
            "            y = (null);\n"
            "        };\n"
            "    };\n"
            "}");
}

TEST(Value, StringsInsideContainersAreQuotedWhenTheyCouldBeMisread) {
  Value value(Value::Array{Value("plain"), Value("two words"), Value(""), Value("a,b"),
                           Value("say \"hi\"\n"), Value("com.orvane.x/y:z-1")});
  EXPECT_EQ(value.description(),
            "(\n"
            "    plain,\n"
            "    \"two words\",\n"
            "    \"\",\n"
            "    \"a,b\",\n"
            "    \"say \\\"hi\\\"\\n\",\n"
            "    com.orvane.x/y:z-1\n"
            ")");
  EXPECT_EQ(Value(Value::Dictionary{{"a key", Value("v")}}).description(),
            "{\n    \"a key\" = v;\n}");
}

TEST(Value, ErrorValueDescribesItselfAsTheError) {
  ErrorPtr error = makeError("dom", 5, "Broken");
  EXPECT_EQ(Value(error).description(), error->description());
  EXPECT_EQ(Value(Value::Array{Value(error)}).description(),
            "(\n    Error Domain=dom Code=5 \"Broken\" UserInfo={description=Broken}\n)");
}

}  // namespace
}  // namespace daskel::platform
