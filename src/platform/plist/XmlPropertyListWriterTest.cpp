#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "platform/plist/PropertyList.h"
#include "platform/value/Error.h"

namespace daskel::platform {
namespace {

using namespace std::literals;

constexpr std::string_view kHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

std::string document(std::string_view body) {
  return std::string(kHeader) + std::string(body) + "</plist>\n";
}

std::string escaped(std::string_view text) {
  std::string out;
  appendXmlEscaped(out, text);
  return out;
}

TEST(XmlPropertyListWriter, WritesAStandardDocumentWithTabIndentation) {
  Value value(Value::Dictionary{
      {"name", Value("Daskel")},
      {"count", Value(3)},
      {"ratio", Value(0.25)},
      {"on", Value(true)},
      {"off", Value(false)},
      {"list", Value(Value::Array{Value("a"), Value(Value::Dictionary{{"k", Value(-7)}})})},
  });
  EXPECT_EQ(serializeXmlPropertyList(value), document("<dict>\n"
                                                      "\t<key>count</key>\n"
                                                      "\t<integer>3</integer>\n"
                                                      "\t<key>list</key>\n"
                                                      "\t<array>\n"
                                                      "\t\t<string>a</string>\n"
                                                      "\t\t<dict>\n"
                                                      "\t\t\t<key>k</key>\n"
                                                      "\t\t\t<integer>-7</integer>\n"
                                                      "\t\t</dict>\n"
                                                      "\t</array>\n"
                                                      "\t<key>name</key>\n"
                                                      "\t<string>Daskel</string>\n"
                                                      "\t<key>off</key>\n"
                                                      "\t<false/>\n"
                                                      "\t<key>on</key>\n"
                                                      "\t<true/>\n"
                                                      "\t<key>ratio</key>\n"
                                                      "\t<real>0.25</real>\n"
                                                      "</dict>\n"));
}

TEST(XmlPropertyListWriter, EmptyContainersAreSelfClosing) {
  Value value(Value::Dictionary{{"a", Value(Value::Array{})},
                                {"d", Value(Value::Dictionary{})},
                                {"n", Value(Value::Array{Value(Value::Array{})})}});
  EXPECT_EQ(serializeXmlPropertyList(value), document("<dict>\n"
                                                      "\t<key>a</key>\n"
                                                      "\t<array/>\n"
                                                      "\t<key>d</key>\n"
                                                      "\t<dict/>\n"
                                                      "\t<key>n</key>\n"
                                                      "\t<array>\n"
                                                      "\t\t<array/>\n"
                                                      "\t</array>\n"
                                                      "</dict>\n"));
  EXPECT_EQ(serializeXmlPropertyList(Value(Value::Dictionary{})), document("<dict/>\n"));
}

TEST(XmlPropertyListWriter, AContainerEndingInAStringThatLooksLikeATagIsNotEmpty) {
  EXPECT_EQ(serializeXmlPropertyList(Value(Value::Array{Value("<dict>")})),
            document("<array>\n\t<string>&lt;dict&gt;</string>\n</array>\n"));
}

TEST(XmlPropertyListWriter, EscapesMarkupButNotQuotes) {
  EXPECT_EQ(escaped("a&b<c>d\"e'f"), "a&amp;b&lt;c&gt;d\"e'f");
  EXPECT_EQ(escaped("&amp;"), "&amp;amp;");
  Value value(Value::Dictionary{{"<k&>", Value("<v&>")}});
  EXPECT_EQ(serializeXmlPropertyList(value),
            document("<dict>\n\t<key>&lt;k&amp;&gt;</key>\n\t<string>&lt;v&amp;&gt;</string>\n"
                     "</dict>\n"));
}

TEST(XmlPropertyListWriter, EscapesASpecialCharacterWhereverItFallsInALongString) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"&", "&amp;"}, {"<", "&lt;"}, {">", "&gt;"}, {"\x01", ""},
      {"\t", "\t"},   {"é", "é"},    {"\xff", ""},  {"\r", "&#13;"}};
  for (const auto& [special, replacement] : cases) {
    for (std::size_t at = 0; at < 40; ++at) {
      std::string text = std::string(at, 'x') + std::string(special) + std::string(20, 'y');
      std::string expected = std::string(at, 'x') + std::string(replacement) + std::string(20, 'y');
      EXPECT_EQ(escaped(text), expected) << "at " << at;
    }
  }
}

TEST(XmlPropertyListWriter, DropsCharactersXmlCannotHold) {
  EXPECT_EQ(escaped("a\x01"
                    "b\x1f"
                    "c\x7f"
                    "d"),
            "abc\x7f"
            "d");
  EXPECT_EQ(escaped("nul\0inside"sv), "nulinside");
  EXPECT_EQ(escaped("tab\tline\nkept"), "tab\tline\nkept");
  // A carriage return survives as a reference (a reader would turn a raw one into "\n").
  EXPECT_EQ(escaped("cr\r"), "cr&#13;");
}

TEST(XmlPropertyListWriter, KeepsValidUtf8AndDropsBrokenSequences) {
  EXPECT_EQ(escaped("Grüße 日本 🎉"), "Grüße 日本 🎉");
  EXPECT_EQ(escaped("a\xff"
                    "b"),
            "ab");                   // never valid
  EXPECT_EQ(escaped("a\xc3"), "a");  // truncated
  EXPECT_EQ(escaped("a\xc0\xaf"
                    "b"),
            "ab");  // overlong "/"
  EXPECT_EQ(escaped("a\xed\xa0\x80"
                    "b"),
            "ab");  // surrogate
  EXPECT_EQ(escaped("a\xef\xbf\xbe"
                    "b\xef\xbf\xbf"),
            "ab");  // U+FFFE, U+FFFF
  EXPECT_EQ(escaped("a\xf4\x90\x80\x80"
                    "b"),
            "ab");                                     // above U+10FFFF
  EXPECT_EQ(escaped("\xef\xbf\xbd"), "\xef\xbf\xbd");  // U+FFFD is fine
}

TEST(XmlPropertyListWriter, WritesSpecialRealsInThePropertyListSpelling) {
  XmlPropertyListWriter writer;
  writer.beginArray();
  writer.real(std::numeric_limits<double>::infinity());
  writer.real(-std::numeric_limits<double>::infinity());
  writer.real(std::numeric_limits<double>::quiet_NaN());
  writer.real(1e300);
  writer.endArray();
  EXPECT_EQ(writer.finish(), document("<array>\n"
                                      "\t<real>+infinity</real>\n"
                                      "\t<real>-infinity</real>\n"
                                      "\t<real>nan</real>\n"
                                      "\t<real>1e+300</real>\n"
                                      "</array>\n"));
}

TEST(XmlPropertyListWriter, WritesDataAsWrappedBase64) {
  XmlPropertyListWriter writer;
  writer.beginArray();
  const std::uint8_t bytes[] = {'M', 'a', 'n', 'M', 'a'};
  writer.data(bytes);
  writer.data({});
  std::vector<std::uint8_t> longData(60, 0xff);
  writer.data(longData);
  writer.endArray();
  EXPECT_EQ(writer.finish(), document("<array>\n"
                                      "\t<data>\n"
                                      "\tTWFuTWE=\n"
                                      "\t</data>\n"
                                      "\t<data></data>\n"
                                      "\t<data>\n"
                                      "\t" +
                                      std::string(68, '/') +
                                      "\n"
                                      "\t" +
                                      std::string(12, '/') +
                                      "\n"
                                      "\t</data>\n"
                                      "</array>\n"));
}

TEST(XmlPropertyListWriter, WritesNullUrlsAndErrorsAsPlainTypes) {
  Value value(Value::Array{
      Value(),
      Value(*Url::fromString("file:///a%20b")),
      Value(makeError("dom", 4, "Oops")),
  });
  EXPECT_EQ(serializeXmlPropertyList(value), document("<array>\n"
                                                      "\t<string></string>\n"
                                                      "\t<string>file:///a%20b</string>\n"
                                                      "\t<dict>\n"
                                                      "\t\t<key>code</key>\n"
                                                      "\t\t<integer>4</integer>\n"
                                                      "\t\t<key>domain</key>\n"
                                                      "\t\t<string>dom</string>\n"
                                                      "\t\t<key>userInfo</key>\n"
                                                      "\t\t<dict>\n"
                                                      "\t\t\t<key>description</key>\n"
                                                      "\t\t\t<string>Oops</string>\n"
                                                      "\t\t</dict>\n"
                                                      "\t</dict>\n"
                                                      "</array>\n"));
}

TEST(XmlPropertyListWriter, StartsAFreshDocumentAfterFinish) {
  XmlPropertyListWriter writer;
  writer.reserve(1024);
  writer.beginDictionary();
  writer.key("a");
  writer.integer(std::numeric_limits<std::int64_t>::min());
  writer.endDictionary();
  EXPECT_EQ(writer.finish(),
            document("<dict>\n\t<key>a</key>\n\t<integer>-9223372036854775808</integer>\n"
                     "</dict>\n"));
  writer.string("second");
  EXPECT_EQ(writer.finish(), document("<string>second</string>\n"));
}

}  // namespace
}  // namespace daskel::platform
