#include "platform/plist/PropertyList.h"

#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <numeric>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "platform/filesystem/FileSystem.h"

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;
using namespace std::literals;

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (fs::temp_directory_path() / "daskel-plist-XXXXXX").string();
    EXPECT_NE(::mkdtemp(pattern.data()), nullptr);
    path_ = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }
  std::set<std::string> entries() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(path_)) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }

 private:
  std::string path_;
};

Bytes bytesOf(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

std::string contentsOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// Everything the value model can hold that a property list keeps exactly.
Value richSample() {
  Value::Data longData(1000);
  for (std::size_t i = 0; i < longData.size(); ++i) {
    longData[i] = static_cast<std::uint8_t>(i * 7);
  }
  return Value(Value::Dictionary{
      {"markup", Value("a & b < c > d \"quoted\" 'single' &amp; <![CDATA[x]]>")},
      {"unicode", Value("Grüße, 日本語, emoji 🎉, combining é")},
      {"spacing", Value("  leading and trailing  ")},
      {"lines", Value("line one\nline two\ttabbed\r\ncrlf")},
      {"empty", Value("")},
      {"", Value("empty key")},
      {"key <&> with markup", Value(1)},
      {"ints", Value(Value::Array{Value(0), Value(-1), Value(42),
                                  Value(std::numeric_limits<std::int64_t>::min()),
                                  Value(std::numeric_limits<std::int64_t>::max())})},
      {"reals", Value(Value::Array{Value(0.1), Value(-2.5e-300), Value(1e300), Value(-0.0),
                                   Value(std::numeric_limits<double>::infinity()),
                                   Value(-std::numeric_limits<double>::infinity()), Value(1.0),
                                   Value(123456789.125)})},
      {"bools", Value(Value::Array{Value(true), Value(false)})},
      {"data", Value(Value::Array{Value(Value::Data{}), Value(Value::Data{0, 1, 0xfe, 0xff}),
                                  Value(longData)})},
      {"nested", Value(Value::Dictionary{
                     {"emptyArray", Value(Value::Array{})},
                     {"emptyDict", Value(Value::Dictionary{})},
                     {"deeper", Value(Value::Array{Value(Value::Array{Value("x")})})},
                 })},
  });
}

// Builds the libplist tree for a value, for producing binary and libplist-written XML input.
plist_t toPlist(const Value& value) {
  switch (value.type()) {
    case Value::Type::Boolean:
      return plist_new_bool(*value.boolean());
    case Value::Type::Integer:
      return plist_new_uint(static_cast<std::uint64_t>(*value.integer()));
    case Value::Type::Real:
      return plist_new_real(*value.real());
    case Value::Type::String:
      return plist_new_string(value.string()->c_str());
    case Value::Type::Data:
      return plist_new_data(reinterpret_cast<const char*>(value.data()->data()),
                            value.data()->size());
    case Value::Type::Array: {
      plist_t array = plist_new_array();
      for (const Value& element : *value.array()) {
        plist_array_append_item(array, toPlist(element));
      }
      return array;
    }
    case Value::Type::Dictionary: {
      plist_t dict = plist_new_dict();
      for (const auto& [key, element] : *value.dictionary()) {
        plist_dict_set_item(dict, key.c_str(), toPlist(element));
      }
      return dict;
    }
    default:
      ADD_FAILURE() << "no property-list form for " << Value::typeName(value.type());
      return plist_new_string("");
  }
}

Bytes binaryOf(plist_t root) {
  char* bytes = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(root, &bytes, &length);
  Bytes result(bytes, bytes + length);
  plist_to_bin_free(bytes);
  return result;
}

Bytes libplistXmlOf(plist_t root) {
  char* bytes = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(root, &bytes, &length);
  Bytes result(bytes, bytes + length);
  plist_to_xml_free(bytes);
  return result;
}

Bytes binaryOf(const Value& value) {
  plist_t root = toPlist(value);
  Bytes result = binaryOf(root);
  plist_free(root);
  return result;
}

// A hand-assembled binary property list: `objects` are encoded objects, references are
// `refSize` bytes wide, offsets 4 bytes, the top object is object 0.
Bytes assembleBinary(const std::vector<Bytes>& objects, std::size_t refSize) {
  Bytes out = bytesOf("bplist00");
  std::vector<std::uint32_t> offsets;
  for (const Bytes& object : objects) {
    offsets.push_back(static_cast<std::uint32_t>(out.size()));
    out.insert(out.end(), object.begin(), object.end());
  }
  std::uint64_t tableOffset = out.size();
  for (std::uint32_t offset : offsets) {
    for (int shift = 24; shift >= 0; shift -= 8) {
      out.push_back(static_cast<std::uint8_t>(offset >> shift));
    }
  }
  auto put64 = [&](std::uint64_t v) {
    for (int shift = 56; shift >= 0; shift -= 8) {
      out.push_back(static_cast<std::uint8_t>(v >> shift));
    }
  };
  out.insert(out.end(), {0, 0, 0, 0, 0, 0, 4, static_cast<std::uint8_t>(refSize)});
  put64(objects.size());
  put64(0);
  put64(tableOffset);
  return out;
}

// An array object holding references to `children`.
Bytes arrayObject(const std::vector<std::uint64_t>& children, std::size_t refSize) {
  Bytes out;
  if (children.size() < 15) {
    out.push_back(static_cast<std::uint8_t>(0xA0 | children.size()));
  } else {
    out.push_back(0xAF);
    out.push_back(0x12);
    for (int shift = 24; shift >= 0; shift -= 8) {
      out.push_back(static_cast<std::uint8_t>(children.size() >> shift));
    }
  }
  for (std::uint64_t child : children) {
    for (int shift = static_cast<int>(refSize - 1) * 8; shift >= 0; shift -= 8) {
      out.push_back(static_cast<std::uint8_t>(child >> shift));
    }
  }
  return out;
}

Bytes nestedBinaryArrays(std::size_t depth) {
  std::vector<Bytes> objects;
  for (std::size_t i = 0; i + 1 < depth; ++i) {
    objects.push_back(arrayObject({i + 1}, 4));
  }
  objects.push_back(arrayObject({}, 4));
  return assembleBinary(objects, 4);
}

std::string nestedXmlArrays(std::size_t depth) {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
  for (std::size_t i = 0; i < depth; ++i) {
    text += "<array>";
  }
  for (std::size_t i = 0; i < depth; ++i) {
    text += "</array>";
  }
  return text + "\n</plist>\n";
}

void expectRefused(const Result<Value>& result,
                   PropertyListErrorCode code,
                   const std::string& what) {
  ASSERT_FALSE(result.has_value()) << what;
  ASSERT_NE(result.error(), nullptr) << what;
  EXPECT_EQ(result.error()->domain, kPropertyListErrorDomain) << what;
  EXPECT_EQ(result.error()->code, static_cast<std::int64_t>(code)) << what;
  EXPECT_FALSE(result.error()->localizedDescription().empty()) << what;
}

Value parsed(std::string_view text) {
  Bytes bytes = bytesOf(text);
  auto result = parsePropertyList(bytes);
  EXPECT_TRUE(result.has_value()) << text << ": " << (result ? "" : result.error()->description());
  return result.value_or(Value());
}

TEST(PropertyList, OurXmlBinaryAndLibplistXmlAllReadBackAsTheSameValue) {
  const Value value = richSample();
  plist_t root = toPlist(value);
  const std::pair<const char*, Bytes> encodings[] = {
      {"our XML", bytesOf(serializeXmlPropertyList(value))},
      {"binary", binaryOf(root)},
      {"libplist XML", libplistXmlOf(root)},
  };
  plist_free(root);
  for (const auto& [what, bytes] : encodings) {
    auto result = parsePropertyList(bytes);
    ASSERT_TRUE(result.has_value()) << what << ": " << result.error()->description();
    EXPECT_EQ(*result, value) << what;
  }
}

TEST(PropertyList, NotANumberRoundTripsAndDroppedCharactersAreTheOnlyLoss) {
  Value nan(Value::Array{Value(std::numeric_limits<double>::quiet_NaN())});
  auto result = parsePropertyList(bytesOf(serializeXmlPropertyList(nan)));
  ASSERT_TRUE(result.has_value());
  ASSERT_TRUE(result->array()->at(0).real().has_value());
  EXPECT_TRUE(std::isnan(*result->array()->at(0).real()));

  Value written(
      Value::Array{Value("a\x01"
                         "b\xff"
                         "c")});
  EXPECT_EQ(parsePropertyList(bytesOf(serializeXmlPropertyList(written))).value(),
            Value(Value::Array{Value("abc")}));
}

TEST(PropertyList, IntegersBeyondInt64BecomeRealsAndNegativesStayIntegers) {
  EXPECT_EQ(parsed("<plist><integer>-1</integer></plist>"), Value(-1));
  EXPECT_EQ(parsed("<plist><integer>-9223372036854775808</integer></plist>"),
            Value(std::numeric_limits<std::int64_t>::min()));
  EXPECT_EQ(parsed("<plist><integer>9223372036854775807</integer></plist>"),
            Value(std::numeric_limits<std::int64_t>::max()));
  EXPECT_EQ(parsed("<plist><integer>18446744073709551615</integer></plist>"),
            Value(18446744073709551615.0));

  // The same through the binary form, where the large one is a 16-byte integer.
  for (std::string_view text : {"<plist><integer>-1</integer></plist>"sv,
                                "<plist><integer>18446744073709551615</integer></plist>"sv}) {
    plist_t root = nullptr;
    plist_from_memory(text.data(), static_cast<std::uint32_t>(text.size()), &root);
    ASSERT_NE(root, nullptr);
    Bytes binary = binaryOf(root);
    plist_free(root);
    EXPECT_EQ(parsePropertyList(binary).value(), parsed(text)) << text;
  }
}

TEST(PropertyList, DatesAndUidsBecomeNumbers) {
  plist_t root = plist_new_array();
  plist_array_append_item(root, plist_new_date(86400, 500000));
  plist_array_append_item(root, plist_new_uid(17));
  Bytes binary = binaryOf(root);
  plist_free(root);
  EXPECT_EQ(parsePropertyList(binary).value(), Value(Value::Array{Value(86400.5), Value(17)}));
  EXPECT_EQ(parsed("<plist><date>2001-01-02T00:00:00Z</date></plist>"), Value(86400.0));
}

TEST(PropertyList, ReadsListsWithCommentsAndEntities) {
  EXPECT_EQ(parsed("<?xml version=\"1.0\"?>\n<!-- <array> in a comment -->\n"
                   "<plist version=\"1.0\"><dict><key>a&amp;b</key>"
                   "<string>&lt;&#65;&#x42;&gt;</string></dict></plist>"),
            Value(Value::Dictionary{{"a&b", Value("<AB>")}}));
}

TEST(PropertyList, GarbageAndEmptyInputFailCleanly) {
  expectRefused(parsePropertyList({}), PropertyListErrorCode::Malformed, "empty");
  for (std::string_view text :
       {"x"sv, "hello, this is not a property list"sv, "{\"json\": true}"sv, "<plist>"sv,
        "<plist><dict><key>a</key>"sv, "<plist><array><integer>1</integer>"sv, "<html></html>"sv,
        "bplist00"sv, "bplist00\xd1\x01\x02"sv, "\0\0\0\0\0\0\0\0\0\0"sv}) {
    expectRefused(parsePropertyList(bytesOf(text)), PropertyListErrorCode::Malformed,
                  std::string(text));
  }
}

// Every cut of the binary form, cuts of the XML form, and thousands of random corruptions of
// each: refused with a property-list error (or read as some value), never a crash.
TEST(PropertyList, TruncatedAndCorruptedListsFailCleanlyAndNeverCrash) {
  const Bytes binary = binaryOf(richSample());
  const std::string xml = serializeXmlPropertyList(richSample());
  const auto refused = [](const Bytes& bytes) {
    auto result = parsePropertyList(bytes);
    EXPECT_TRUE(result || result.error()->domain == kPropertyListErrorDomain);
    return !result;
  };
  for (std::size_t length = 1; length < binary.size(); ++length) {
    ASSERT_TRUE(
        refused(Bytes(binary.begin(), binary.begin() + static_cast<std::ptrdiff_t>(length))))
        << "binary cut at " << length;
  }
  // Every cut before the closing tag of the top-level dictionary leaves it unterminated.
  for (std::size_t length = 1; length <= xml.rfind("</dict>"); length += 7) {
    ASSERT_TRUE(refused(bytesOf(std::string_view(xml).substr(0, length))))
        << "XML cut at " << length;
  }

  const auto corruptions = [&](const Bytes& original, const Bytes& replacements, int rounds,
                               int maxFlips, unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_int_distribution<std::size_t> position(0, original.size() - 1);
    std::uniform_int_distribution<std::size_t> pick(0, replacements.size() - 1);
    int count = 0;
    for (int round = 0; round < rounds; ++round) {
      Bytes corrupted = original;
      for (int i = 0; i < 1 + round % maxFlips; ++i) {
        corrupted[position(random)] = replacements[pick(random)];
      }
      count += refused(corrupted) ? 1 : 0;
    }
    return count;
  };
  Bytes anyByte(256);
  std::iota(anyByte.begin(), anyByte.end(), 0);
  // Most corruptions hit the object table, the trailer, a marker or a tag, and are noticed.
  EXPECT_GT(corruptions(binary, anyByte, 3000, 4, 20240601), 0);
  EXPECT_GT(corruptions(bytesOf(xml),
                        bytesOf("<>/&;![]-?\"\0\x80\xff"
                                "0aZ"sv),
                        2000, 3, 20240602),
            0);
}

TEST(PropertyList, NestingUpToTheLimitIsRead) {
  Value xmlValue = parsed(nestedXmlArrays(kMaxPropertyListNesting));
  Value binaryValue = parsePropertyList(nestedBinaryArrays(kMaxPropertyListNesting)).value();
  EXPECT_EQ(xmlValue, binaryValue);
  int depth = 1;
  for (const Value* v = &xmlValue; !v->array()->empty(); v = &v->array()->front()) {
    ++depth;
  }
  EXPECT_EQ(depth, kMaxPropertyListNesting);
}

TEST(PropertyList, TooDeepCyclicDanglingOrExplodingListsAreRefused) {
  // Forty levels of arrays each holding the next one twice: 2^41 objects once expanded.
  std::vector<Bytes> fanOut;
  for (std::uint64_t i = 0; i < 40; ++i) {
    fanOut.push_back(arrayObject({i + 1, i + 1}, 1));
  }
  fanOut.push_back({0x09});  // true
  const struct {
    const char* what;
    Bytes bytes;
    PropertyListErrorCode code;
  } cases[] = {
      {"xml one past the limit", bytesOf(nestedXmlArrays(kMaxPropertyListNesting + 1)),
       PropertyListErrorCode::TooDeep},
      {"binary one past the limit", nestedBinaryArrays(kMaxPropertyListNesting + 1),
       PropertyListErrorCode::TooDeep},
      // Deep enough to overflow libplist's recursive readers if they ever saw it.
      {"xml 1e6 deep", bytesOf(nestedXmlArrays(1'000'000)), PropertyListErrorCode::TooDeep},
      {"binary 3e5 deep", nestedBinaryArrays(300'000), PropertyListErrorCode::TooDeep},
      {"self reference", assembleBinary({arrayObject({0}, 1)}, 1),
       PropertyListErrorCode::Malformed},
      {"reference pair cycle", assembleBinary({arrayObject({1}, 1), arrayObject({0}, 1)}, 1),
       PropertyListErrorCode::Malformed},
      {"dangling reference", assembleBinary({arrayObject({5}, 1)}, 1),
       PropertyListErrorCode::Malformed},
      {"exponential fan-out", assembleBinary(fanOut, 1), PropertyListErrorCode::TooLarge},
  };
  for (const auto& c : cases) {
    expectRefused(parsePropertyList(c.bytes), c.code, c.what);
  }
}

TEST(PropertyList, SharedBinaryObjectsWithinReasonAreRead) {
  // One string referenced 1000 times, as writers do with repeated keys and values.
  std::vector<std::uint64_t> children(1000, 1);
  Bytes shared = {0x53, 'a', 'b', 'c'};
  auto result = parsePropertyList(assembleBinary({arrayObject(children, 1), shared}, 1));
  ASSERT_TRUE(result.has_value()) << result.error()->description();
  EXPECT_EQ(*result, Value(Value::Array(1000, Value("abc"))));
}

TEST(PropertyListFile, AtomicWriteCreatesAndReplacesLeavingNoTemporaryFile) {
  TemporaryDirectory dir;
  std::string path = dir / "store.plist";
  Value first(Value::Dictionary{{"version", Value(1)}});
  Value second = richSample();
  ASSERT_TRUE(writePropertyListAtomically(first, path).has_value());
  EXPECT_EQ(readPropertyListFile(path).value(), first);
  ASSERT_TRUE(writePropertyListAtomically(second, path).has_value());
  EXPECT_EQ(readPropertyListFile(path).value(), second);
  EXPECT_EQ(contentsOf(path), serializeXmlPropertyList(second));
  EXPECT_EQ(dir.entries(), std::set<std::string>{"store.plist"});
}

TEST(PropertyListFile, NewFilesAreOwnerOnlyAndReplacedFilesKeepTheirMode) {
  TemporaryDirectory dir;
  std::string path = dir / "file";
  ASSERT_TRUE(writeFileAtomically(path, "one").has_value());
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
  ASSERT_TRUE(writeFileAtomically(path, "two").has_value());
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  EXPECT_EQ(contentsOf(path), "two");
}

TEST(PropertyListFile, AFailedRenameRemovesTheTemporaryFile) {
  TemporaryDirectory dir;
  std::string path = dir / "occupied";
  fs::create_directories(path + "/child");
  auto result = writeFileAtomically(path, "content");
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error()->userInfo.at(kPosixErrorPathKey), Value(path));
  EXPECT_EQ(dir.entries(), std::set<std::string>{"occupied"});
  EXPECT_TRUE(fs::is_directory(path + "/child"));
}

TEST(PropertyListFile, AReaderNeverSeesAHalfWrittenFile) {
  TemporaryDirectory dir;
  std::string path = dir / "contended";
  const std::string a(256 * 1024, 'a');
  const std::string b(256 * 1024, 'b');
  ASSERT_TRUE(writeFileAtomically(path, a).has_value());
  std::atomic<bool> done{false};
  std::atomic<int> reads{0};
  std::atomic<int> torn{0};
  std::thread reader([&] {
    while (!done.load() || reads.load() == 0) {
      std::string seen = contentsOf(path);
      if (seen != a && seen != b) {
        torn.fetch_add(1);
      }
      reads.fetch_add(1);
    }
  });
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(writeFileAtomically(path, i % 2 ? a : b).has_value());
  }
  done = true;
  reader.join();
  EXPECT_EQ(torn.load(), 0);
  EXPECT_GT(reads.load(), 0);
  EXPECT_EQ(dir.entries(), std::set<std::string>{"contended"});
}

TEST(PropertyListFile, FailedReadsAndWritesNameThePathAndLeaveNoTemporaryFile) {
  TemporaryDirectory dir;
  const auto expectError = [](const auto& result, const char* domain, int code,
                              const std::string& path) {
    ASSERT_FALSE(result.has_value()) << path;
    EXPECT_EQ(result.error()->domain, domain) << path;
    if (code != 0) {
      EXPECT_EQ(result.error()->code, code) << path;
    }
    EXPECT_EQ(result.error()->userInfo.at(kPosixErrorPathKey), Value(path));
    EXPECT_NE(result.error()->localizedDescription().find(path), std::string::npos);
  };
  const std::string missing = dir / "missing/store.plist";
  expectError(writePropertyListAtomically(Value(1), missing), kPosixErrorDomain, ENOENT, missing);
  expectError(readPropertyListFile(dir / "absent.plist"), kPosixErrorDomain, ENOENT,
              dir / "absent.plist");
  const std::string damaged = dir / "damaged.plist";
  ASSERT_TRUE(writeFileAtomically(damaged, "<plist><dict><key>a</key>").has_value());
  expectError(readPropertyListFile(damaged), kPropertyListErrorDomain, 0, damaged);
  // A directory can be neither read nor written as a file.
  const auto readDirectory = readPropertyListFile(dir.path());
  const auto writeDirectory = writeFileAtomically(dir.path() + "/", "content");
  ASSERT_FALSE(readDirectory.has_value() || writeDirectory.has_value());
  EXPECT_EQ(readDirectory.error()->code, EISDIR);
  EXPECT_EQ(writeDirectory.error()->code, EISDIR);
  EXPECT_EQ(dir.entries(), std::set<std::string>{"damaged.plist"});
}

TEST(PropertyListFile, ReadsABinaryFile) {
  TemporaryDirectory dir;
  std::string path = dir / "binary.plist";
  Bytes binary = binaryOf(richSample());
  ASSERT_TRUE(
      writeFileAtomically(
          path, std::string_view(reinterpret_cast<const char*>(binary.data()), binary.size()))
          .has_value());
  EXPECT_EQ(readPropertyListFile(path).value(), richSample());
}

}  // namespace
}  // namespace daskel::platform
