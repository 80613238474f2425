#include "platform/identity/TrustedFile.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "platform/identity/IdentityTestSupport.h"
#include "platform/plist/PropertyList.h"

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;

// Writes `bytes` to `path` in place (truncating) and sets `mode`.
void writeFile(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    ASSERT_TRUE(out.good()) << "cannot write " << path;
  }
  ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path << ": " << std::strerror(errno);
}

using testing::TemporaryTree;

std::int64_t codeOf(TrustedFileError error) {
  return static_cast<std::int64_t>(error);
}

TEST(TrustedFile, ATrustedFileIsReadAndTheCheckedVersionReported) {
  TemporaryTree tree{"trusted"};
  const std::string path = tree.path("Info.plist");
  const Value content(Value::Dictionary{{"Key", Value("value")}});
  writeFile(path, serializeXmlPropertyList(content), 0644);

  FileSignature signature;
  auto value = readTrustedPropertyListFile(path, 4096, &signature);
  ASSERT_TRUE(value) << value.error()->description();
  EXPECT_EQ(*value, content);
  EXPECT_EQ(signature, FileSignature::ofPath(path));
  EXPECT_FALSE(signature.unstable);
}

TEST(TrustedFile, FilesThatOthersCouldHaveWrittenAreUntrusted) {
  TemporaryTree tree{"trusted"};
  for (mode_t mode : {0664, 0646, 0666, 0620}) {
    SCOPED_TRACE(mode);
    const std::string path = tree.path("Info.plist");
    writeFile(path, "<plist><dict/></plist>", mode);
    auto bytes = readTrustedFile(path, 4096, nullptr);
    ASSERT_FALSE(bytes);
    EXPECT_EQ(bytes.error()->domain, kTrustedFileErrorDomain);
    EXPECT_EQ(bytes.error()->code, codeOf(TrustedFileError::Untrusted));
    char expected[64];
    std::snprintf(expected, sizeof expected, "writable by group or others (mode 0%o)", mode);
    EXPECT_EQ(bytes.error()->localizedDescription(), expected);
  }
}

TEST(TrustedFile, AFileOfAnotherOwnerIsUntrustedAndOfTheDaemonsUserTrusted) {
  TemporaryTree tree{"trusted"};
  const std::string path = tree.path("Info.plist");
  writeFile(path, "<plist><dict/></plist>");
  ASSERT_TRUE(readTrustedFile(path, 4096, nullptr));  // ours

  if (::geteuid() != 0)
    GTEST_SKIP() << "needs root to give a file away";
  ASSERT_EQ(::chown(path.c_str(), 12345, 0), 0);
  auto bytes = readTrustedFile(path, 4096, nullptr);
  ASSERT_FALSE(bytes);
  EXPECT_EQ(bytes.error()->code, codeOf(TrustedFileError::Untrusted));
  EXPECT_EQ(bytes.error()->localizedDescription(),
            "owned by uid 12345, neither root nor the daemon's user (uid 0)");
}

TEST(TrustedFile, WhatIsNoRegularFileIsRefusedWithoutBlocking) {
  TemporaryTree tree{"trusted"};
  const std::string fifo = tree.path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  auto fromFifo = readTrustedFile(fifo, 4096, nullptr);
  ASSERT_FALSE(fromFifo);
  EXPECT_EQ(fromFifo.error()->code, codeOf(TrustedFileError::Untrusted));
  EXPECT_EQ(fromFifo.error()->localizedDescription(), "not a regular file");
}

TEST(TrustedFile, OversizedMissingAndUnparsableFilesAreUnreadable) {
  TemporaryTree tree{"trusted"};
  const std::string big = tree.path("big");
  writeFile(big, std::string(100, 'x'));
  auto tooLarge = readTrustedFile(big, 99, nullptr);
  ASSERT_FALSE(tooLarge);
  EXPECT_EQ(tooLarge.error()->code, codeOf(TrustedFileError::Unreadable));
  EXPECT_EQ(tooLarge.error()->localizedDescription(), "larger than 99 bytes");

  FileSignature signature;
  auto missing = readTrustedFile(tree.path("missing"), 4096, &signature);
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error()->code, codeOf(TrustedFileError::Unreadable));
  EXPECT_EQ(signature.statError, ENOENT);

  const std::string garbage = tree.path("garbage");
  writeFile(garbage, std::string("\x00\x01\x02", 3));
  auto unparsable = readTrustedPropertyListFile(garbage, 4096, nullptr);
  ASSERT_FALSE(unparsable);
  EXPECT_EQ(unparsable.error()->code, codeOf(TrustedFileError::Unreadable));
  EXPECT_TRUE(unparsable.error()->localizedDescription().starts_with("not a property list"))
      << unparsable.error()->localizedDescription();
}

}  // namespace
}  // namespace daskel::platform
