#include "platform/identity/ApplicationManifest.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/identity/IdentityTestSupport.h"
#include "platform/plist/PropertyList.h"

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;

Value manifest(Value bundleIdentifier, Value executables, Value entitlements) {
  Value::Dictionary content;
  if (!bundleIdentifier.isNull())
    content["BundleIdentifier"] = bundleIdentifier;
  if (!executables.isNull())
    content["Executables"] = executables;
  if (!entitlements.isNull())
    content["Entitlements"] = entitlements;
  return Value(std::move(content));
}

std::int64_t codeOf(ApplicationManifestError error) {
  return static_cast<std::int64_t>(error);
}

TEST(ApplicationManifest, AManifestBecomesTheApplicationItDescribes) {
  Value::Dictionary content{
      {"BundleIdentifier", Value("com.example.editor")},
      {"Executables", Value(Value::Array{Value("/usr/bin/editor"), Value("/opt/editor/bin/ed")})},
      {"Entitlements",
       Value(Value::Dictionary{{"com.example.read", Value(true)},
                               {"com.example.groups", Value(Value::Array{Value("g1")})}})},
      // Keys a manifest does not use are left alone.
      {"Comment", Value("installed by the package")},
  };
  auto application = applicationFromManifest(Value(content), "/etc/apps/editor.plist");
  ASSERT_TRUE(application) << application.error()->description();
  EXPECT_EQ(application->bundleIdentifier, "com.example.editor");
  EXPECT_EQ(application->executables,
            (std::vector<std::string>{"/usr/bin/editor", "/opt/editor/bin/ed"}));
  EXPECT_EQ(application->manifestPath, "/etc/apps/editor.plist");
  EXPECT_EQ(application->entitlementValue("com.example.read"), Value(true));
  EXPECT_EQ(application->entitlementValue("com.example.groups"), Value(Value::Array{Value("g1")}));
  EXPECT_TRUE(application->entitlementValue("com.example.write").isNull());

  // An application known only by its bundle identifier (a Flatpak one) lists no executable.
  auto sandboxed = applicationFromManifest(
      manifest(Value("org.example.App"), Value(Value::Array{}), Value(Value::Dictionary{})), "");
  ASSERT_TRUE(sandboxed);
  EXPECT_TRUE(sandboxed->executables.empty());
}

TEST(ApplicationManifest, EachMalformedShapeIsRefusedWithItsReason) {
  const Value executables(Value::Array{Value("/usr/bin/tool")});
  const Value entitlements(Value::Dictionary{});
  struct Case {
    Value content;
    std::string reason;
  };
  const std::vector<Case> cases = {
      {Value(Value::Array{}), "not a dictionary"},
      {Value("com.example.tool"), "not a dictionary"},
      {manifest(Value(), executables, entitlements),
       "BundleIdentifier is missing or not a non-empty string"},
      {manifest(Value(7), executables, entitlements),
       "BundleIdentifier is missing or not a non-empty string"},
      {manifest(Value(""), executables, entitlements),
       "BundleIdentifier is missing or not a non-empty string"},
      {manifest(Value("com.example.tool"), Value(), entitlements),
       "Executables is missing or not an array"},
      {manifest(Value("com.example.tool"), Value("/usr/bin/tool"), entitlements),
       "Executables is missing or not an array"},
      {manifest(Value("com.example.tool"), Value(Value::Array{Value("/usr/bin/tool"), Value(1)}),
                entitlements),
       "Executables holds a value that is not a string"},
      {manifest(Value("com.example.tool"), Value(Value::Array{Value("bin/tool")}), entitlements),
       "Executables entry \"bin/tool\" is not an absolute path"},
      {manifest(Value("com.example.tool"), Value(Value::Array{Value("")}), entitlements),
       "Executables entry \"\" is not an absolute path"},
      {manifest(Value("com.example.tool"), executables, Value()),
       "Entitlements is missing or not a dictionary"},
      {manifest(Value("com.example.tool"), executables, Value(Value::Array{Value("x")})),
       "Entitlements is missing or not a dictionary"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    auto application = applicationFromManifest(c.content, "/m.plist");
    ASSERT_FALSE(application);
    EXPECT_EQ(application.error()->domain, kApplicationManifestErrorDomain);
    EXPECT_EQ(application.error()->code, codeOf(ApplicationManifestError::Malformed));
    EXPECT_EQ(application.error()->localizedDescription(), c.reason);
  }
}

class ApplicationManifestFileTest : public ::testing::Test {
 protected:

  std::string write(const std::string& name, const std::string& bytes, mode_t mode = 0644) {
    std::string path = (root_ / name).string();
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    ::chmod(path.c_str(), mode);
    return path;
  }

  std::string validBytes() const {
    return serializeXmlPropertyList(manifest(Value("com.example.tool"),
                                             Value(Value::Array{Value("/usr/bin/tool")}),
                                             Value(Value::Dictionary{{"k", Value(1)}})));
  }

  testing::TemporaryTree tree_{"manifest"};
  const fs::path root_ = tree_.root();
};

TEST_F(ApplicationManifestFileTest, ATrustedFileIsReadAndItsSignatureReported) {
  std::string path = write("tool.plist", validBytes(), 0600);
  FileSignature signature;
  auto application = readApplicationManifest(path, &signature);
  ASSERT_TRUE(application) << application.error()->description();
  EXPECT_EQ(application->bundleIdentifier, "com.example.tool");
  EXPECT_EQ(application->manifestPath, path);
  EXPECT_EQ(signature, FileSignature::ofPath(path));
  EXPECT_FALSE(signature.unstable);

  // chmod alone (a new change time) makes it another version of the file.
  ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
  EXPECT_FALSE(signature == FileSignature::ofPath(path));
}

TEST_F(ApplicationManifestFileTest, FilesOthersCouldHaveWrittenAreUntrusted) {
  for (mode_t mode : {0664, 0646, 0666, 0620}) {
    SCOPED_TRACE(mode);
    std::string path = write("tool.plist", validBytes(), mode);
    FileSignature signature;
    auto application = readApplicationManifest(path, &signature);
    ASSERT_FALSE(application);
    EXPECT_EQ(application.error()->code, codeOf(ApplicationManifestError::Untrusted));
    char expected[64];
    std::snprintf(expected, sizeof expected, "writable by group or others (mode 0%o)", mode);
    EXPECT_EQ(application.error()->localizedDescription(), expected);
    // The outcome belongs to exactly this version of the file.
    EXPECT_EQ(signature, FileSignature::ofPath(path));
  }

  // Through a symbolic link the file itself is judged, not the link.
  std::string target = write("target.plist", validBytes(), 0666);
  fs::create_symlink(target, root_ / "link.plist");
  auto viaLink = readApplicationManifest((root_ / "link.plist").string(), nullptr);
  ASSERT_FALSE(viaLink);
  EXPECT_EQ(viaLink.error()->code, codeOf(ApplicationManifestError::Untrusted));
}

TEST_F(ApplicationManifestFileTest, AFileOfAnotherOwnerIsUntrusted) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "needs root to give a file away";
  std::string path = write("tool.plist", validBytes());
  ASSERT_EQ(::chown(path.c_str(), 12345, 0), 0);
  auto application = readApplicationManifest(path, nullptr);
  ASSERT_FALSE(application);
  EXPECT_EQ(application.error()->code, codeOf(ApplicationManifestError::Untrusted));
  EXPECT_EQ(application.error()->localizedDescription(),
            "owned by uid 12345, neither root nor the daemon's user (uid 0)");
}

TEST_F(ApplicationManifestFileTest, WhatIsNoRegularFileIsRefusedWithoutBlocking) {
  // A FIFO would block an ordinary open until a writer came.
  std::string fifo = (root_ / "fifo.plist").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  auto fromFifo = readApplicationManifest(fifo, nullptr);
  ASSERT_FALSE(fromFifo);
  EXPECT_EQ(fromFifo.error()->code, codeOf(ApplicationManifestError::Untrusted));
  EXPECT_EQ(fromFifo.error()->localizedDescription(), "not a regular file");

  fs::create_directory(root_ / "directory.plist");
  fs::permissions(root_ / "directory.plist", fs::perms(0755));
  auto fromDirectory = readApplicationManifest((root_ / "directory.plist").string(), nullptr);
  ASSERT_FALSE(fromDirectory);
  EXPECT_EQ(fromDirectory.error()->localizedDescription(), "not a regular file");
}

TEST_F(ApplicationManifestFileTest, UnreadableContentIsRefusedAsUnreadable) {
  auto missing = readApplicationManifest((root_ / "missing.plist").string(), nullptr);
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error()->code, codeOf(ApplicationManifestError::Unreadable));
  EXPECT_EQ(missing.error()->localizedDescription(), std::string("open: ") + std::strerror(ENOENT));

  auto garbage =
      readApplicationManifest(write("garbage.plist", std::string("\x00\x01\x02", 3)), nullptr);
  ASSERT_FALSE(garbage);
  EXPECT_EQ(garbage.error()->code, codeOf(ApplicationManifestError::Unreadable));
  EXPECT_TRUE(garbage.error()->localizedDescription().starts_with("not a property list"))
      << garbage.error()->localizedDescription();

  auto empty = readApplicationManifest(write("empty.plist", ""), nullptr);
  ASSERT_FALSE(empty);
  EXPECT_EQ(empty.error()->code, codeOf(ApplicationManifestError::Unreadable));

  std::string huge = validBytes();
  huge.insert(
      huge.find("<dict>") + 6,
      "<key>Padding</key><string>" + std::string(kMaxApplicationManifestSize, 'x') + "</string>");
  auto tooLarge = readApplicationManifest(write("huge.plist", huge), nullptr);
  ASSERT_FALSE(tooLarge);
  EXPECT_EQ(tooLarge.error()->code, codeOf(ApplicationManifestError::Unreadable));
  EXPECT_EQ(tooLarge.error()->localizedDescription(),
            "larger than " + std::to_string(kMaxApplicationManifestSize) + " bytes");
}

}  // namespace
}  // namespace daskel::platform
