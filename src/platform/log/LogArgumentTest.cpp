#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "platform/log/Log.h"
#include "platform/url/Url.h"
#include "platform/value/Error.h"
#include "platform/value/Value.h"

namespace daskel::platform {
namespace {

struct Described {
  std::string description() const { return "<described>"; }
};

TEST(LogFormat, EachIntegerConversionPrintsAsPrintfWould) {
  EXPECT_EQ(formatLogMessage("%d %i", {-42, 7}), "-42 7");
  EXPECT_EQ(formatLogMessage("%ld", {-1234567890123L}), "-1234567890123");
  EXPECT_EQ(formatLogMessage("%lld", {std::numeric_limits<long long>::min()}),
            "-9223372036854775808");
  EXPECT_EQ(formatLogMessage("%u", {4000000000u}), "4000000000");
  EXPECT_EQ(formatLogMessage("%lu", {18446744073709551615UL}), "18446744073709551615");
  EXPECT_EQ(formatLogMessage("%llu", {12345ULL}), "12345");
  EXPECT_EQ(formatLogMessage("%zu", {std::size_t{99}}), "99");
  EXPECT_EQ(formatLogMessage("%x", {255u}), "ff");
  EXPECT_EQ(formatLogMessage("%05d|%-4d|%+d", {42, 7, 3}), "00042|7   |+3");
  EXPECT_EQ(formatLogMessage("%d %d", {true, false}), "1 0");
  EXPECT_EQ(formatLogMessage("%d", {std::int8_t{-5}}), "-5");
}

TEST(LogFormat, UnsignedConversionsReadNegativeArgumentsAtTheirLength) {
  EXPECT_EQ(formatLogMessage("%u", {-1}), "4294967295");
  EXPECT_EQ(formatLogMessage("%x", {-1}), "ffffffff");
  EXPECT_EQ(formatLogMessage("%lu", {-1L}), "18446744073709551615");
  EXPECT_EQ(formatLogMessage("%hhx", {-1}), "ff");
}

TEST(LogFormat, StringPointerRealAndPercentConversions) {
  EXPECT_EQ(formatLogMessage("%s and %s", {"literal", std::string("string")}),
            "literal and string");
  EXPECT_EQ(formatLogMessage("[%5s|%-5s|%.2s]", {"ab", "cd", "efgh"}), "[   ab|cd   |ef]");
  int object = 0;
  char expected[32];
  std::snprintf(expected, sizeof expected, "%p", static_cast<void*>(&object));
  EXPECT_EQ(formatLogMessage("%p", {static_cast<const void*>(&object)}), expected);
  EXPECT_EQ(formatLogMessage("%f %.2f", {1.5, 2.0 / 3}), "1.500000 0.67");
  EXPECT_EQ(formatLogMessage("100%% sure, %d%%", {5}), "100% sure, 5%");
  EXPECT_EQ(formatLogMessage("no directives", {}), "no directives");
}

TEST(LogFormat, ObjectPlaceholderPrintsDescriptions) {
  const std::string text = "a string";
  const std::string_view view = "a view";
  EXPECT_EQ(formatLogMessage("%@ / %@ / %@", {text, view, "a C string"}),
            "a string / a view / a C string");
  EXPECT_EQ(formatLogMessage("%@", {static_cast<const char*>(nullptr)}), "(null)");
  EXPECT_EQ(formatLogMessage("%s", {static_cast<const char*>(nullptr)}), "(null)");
  EXPECT_EQ(formatLogMessage("%@", {Described{}}), "<described>");
  EXPECT_EQ(formatLogMessage("%@", {std::make_shared<Described>()}), "<described>");
  EXPECT_EQ(formatLogMessage("%@", {std::shared_ptr<Described>()}), "(null)");
}

TEST(LogFormat, ObjectPlaceholderPrintsValuesUrlsAndErrors) {
  // A string value prints without quotes, a URL as its absolute string.
  EXPECT_EQ(formatLogMessage("Serving: %@", {Value("startProvidingItemAtURL:")}),
            "Serving: startProvidingItemAtURL:");
  auto url = Url::fromString("file:///home/user/Documents/a%20b.txt");
  ASSERT_TRUE(url.has_value());
  EXPECT_EQ(formatLogMessage("%@", {*url}), "file:///home/user/Documents/a%20b.txt");
  EXPECT_EQ(formatLogMessage("%@", {Value(*url)}), "file:///home/user/Documents/a%20b.txt");
  EXPECT_EQ(formatLogMessage("%@", {Value()}), "(null)");

  ErrorPtr none;
  EXPECT_EQ(formatLogMessage("error: %@", {none}), "error: (null)");
  ErrorPtr error = makeError("com.example", 4, "it broke");
  EXPECT_EQ(formatLogMessage("%@", {error}), error->description());
  std::shared_ptr<const Value> noValue;
  EXPECT_EQ(formatLogMessage("%@", {noValue}), "(null)");
}

TEST(LogFormat, MismatchedOrMissingArgumentsPrintAPlaceholder) {
  EXPECT_EQ(formatLogMessage("%d", {"text"}), "(?)");
  EXPECT_EQ(formatLogMessage("%s", {42}), "(?)");
  EXPECT_EQ(formatLogMessage("%@", {3.5}), "(?)");
  EXPECT_EQ(formatLogMessage("%f", {1}), "(?)");
  EXPECT_EQ(formatLogMessage("%p", {7}), "(?)");
  EXPECT_EQ(formatLogMessage("%u", {2.0}), "(?)");
  // A mismatch consumes its argument; the next directive takes the next one.
  EXPECT_EQ(formatLogMessage("%d %s", {"one", "two"}), "(?) two");
  EXPECT_EQ(formatLogMessage("%s and %d", {"only one"}), "only one and (?)");
  EXPECT_EQ(formatLogMessage("%@", {}), "(?)");
}

TEST(LogFormat, ExtraArgumentsAndOddDirectivesAreHarmless) {
  EXPECT_EQ(formatLogMessage("just %d", {1, 2, "three"}), "just 1");
  // An unknown conversion is printed as written and takes no argument; "%n" never writes.
  EXPECT_EQ(formatLogMessage("%k %d", {5}), "%k 5");
  EXPECT_EQ(formatLogMessage("%n%d", {5}), "%n5");
  EXPECT_EQ(formatLogMessage("ends with %", {}), "ends with %");
  EXPECT_EQ(formatLogMessage("unfinished %5l", {5}), "unfinished %5l");
}

TEST(LogArgument, ConvertsBetweenIntegerKindsAndDescribesItself) {
  LogArgument negative(-3);
  EXPECT_EQ(negative.kind(), LogArgument::Kind::Signed);
  EXPECT_EQ(negative.asSigned(), -3);
  EXPECT_EQ(negative.asUnsigned(), static_cast<std::uint64_t>(-3));
  EXPECT_EQ(negative.text(), "-3");

  LogArgument large(std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(large.kind(), LogArgument::Kind::Unsigned);
  EXPECT_EQ(large.asUnsigned(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(large.asSigned(), -1);
  EXPECT_EQ(large.text(), "18446744073709551615");

  EXPECT_EQ(LogArgument('A').kind(), LogArgument::Kind::Signed);
  EXPECT_EQ(LogArgument(true).asSigned(), 1);
  EXPECT_EQ(LogArgument("abc").kind(), LogArgument::Kind::CString);
  EXPECT_EQ(LogArgument("abc").text(), "abc");
  EXPECT_EQ(LogArgument(2.5).text(), "2.5");
  EXPECT_EQ(LogArgument(Described{}).text(), "<described>");
}

}  // namespace
}  // namespace daskel::platform
