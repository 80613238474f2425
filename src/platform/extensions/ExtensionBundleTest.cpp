#include "platform/extensions/ExtensionBundle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/extensions/ExtensionTestSupport.h"
#include "platform/plist/PropertyList.h"

namespace daskel::platform {
namespace {

using extension_test::BundleContent;
using extension_test::infoPlistPath;
using extension_test::kProviderPoint;
using extension_test::TemporaryTree;
using extension_test::writeFile;

std::int64_t codeOf(ExtensionBundleError error) {
  return static_cast<std::int64_t>(error);
}

// `info` with `key` set to `value`, or removed when `value` is null.
Value with(const Value& info, const std::string& key, Value value) {
  Value::Dictionary dictionary = *info.dictionary();
  if (value.isNull())
    dictionary.erase(key);
  else
    dictionary[key] = std::move(value);
  return Value(std::move(dictionary));
}

TEST(ExtensionBundle, ABundleIsReadWithEverythingItsInfoPlistDeclares) {
  TemporaryTree tree;
  BundleContent content;
  content.identifier = "com.example.cloud";
  content.executable = "cloud-provider";
  content.version = "2.5";
  content.documentGroup = "group.com.example.docs";
  content.groups = {"group.com.example.docs", "group.com.example.cache"};
  Value::Dictionary info = *content.info().dictionary();
  info["Comment"] = Value("kept, though unused");
  const std::string path = tree.directory("extensions/Cloud.dkext");
  writeFile(infoPlistPath(path), serializeXmlPropertyList(Value(info)));
  writeFile(path + "/cloud-provider", extension_test::executableBytes(), 0755);

  // A trailing separator is not part of the bundle's path.
  FileSignature signature;
  auto bundle = ExtensionBundle::read(path + "/", &signature);
  ASSERT_TRUE(bundle) << bundle.error()->description();
  EXPECT_EQ(bundle->path(), path);
  EXPECT_EQ(bundle->directoryName(), "Cloud.dkext");
  EXPECT_EQ(bundle->identifier(), "com.example.cloud");
  EXPECT_EQ(bundle->version(), "2.5");
  EXPECT_EQ(bundle->executableName(), "cloud-provider");
  EXPECT_EQ(bundle->executablePath(), path + "/cloud-provider");
  EXPECT_EQ(bundle->extensionPointIdentifier(), kProviderPoint);
  EXPECT_EQ(bundle->documentGroup(), "group.com.example.docs");
  EXPECT_EQ(bundle->applicationGroups(),
            (std::vector<std::string>{"group.com.example.docs", "group.com.example.cache"}));
  EXPECT_EQ(bundle->infoDictionary(), Value(info));
  EXPECT_EQ(signature, FileSignature::ofPath(infoPlistPath(path)));

  struct stat executable;
  ASSERT_EQ(::stat((path + "/cloud-provider").c_str(), &executable), 0);
  EXPECT_TRUE(bundle->executableIdentity().exists());
  EXPECT_EQ(bundle->executableIdentity().inode, executable.st_ino);
  EXPECT_EQ(bundle->executableIdentity().device, executable.st_dev);
  EXPECT_EQ(bundle->executableIdentity().mtimeSeconds, executable.st_mtim.tv_sec);
  EXPECT_EQ(bundle->executableIdentity().mtimeNanoseconds, executable.st_mtim.tv_nsec);
}

TEST(ExtensionBundle, VersionEntitlementsAndDocumentGroupMayBeAbsent) {
  BundleContent content;
  content.version.reset();
  content.documentGroup.reset();
  Value info = with(content.info(), kEntitlementsKey, Value());
  auto bundle = ExtensionBundle::fromInfoDictionary(info, "/nowhere/Plain.dkext");
  ASSERT_TRUE(bundle) << bundle.error()->description();
  EXPECT_FALSE(bundle->version());
  EXPECT_FALSE(bundle->documentGroup());
  EXPECT_TRUE(bundle->applicationGroups().empty());

  // Entitlements without app groups are fine too.
  auto noGroups = ExtensionBundle::fromInfoDictionary(
      with(content.info(), kEntitlementsKey, Value(Value::Dictionary{{"other", Value(true)}})),
      "/nowhere/Plain.dkext");
  ASSERT_TRUE(noGroups);
  EXPECT_TRUE(noGroups->applicationGroups().empty());

  // A document group that is no string is not this reader's business: it reads as none.
  Value::Dictionary extension{{kOxExtensionPointIdentifierKey, Value(kProviderPoint)},
                              {kOxExtensionDaskelDocumentGroupKey, Value(7)}};
  auto oddGroup = ExtensionBundle::fromInfoDictionary(
      with(content.info(), kOxExtensionKey, Value(extension)), "/nowhere/Plain.dkext");
  ASSERT_TRUE(oddGroup);
  EXPECT_FALSE(oddGroup->documentGroup());
}

TEST(ExtensionBundle, EachMalformedInfoPlistIsRefusedWithItsReason) {
  const Value good = BundleContent().info();
  const std::string groupsReason =
      std::string(kApplicationGroupsEntitlement) + " is not an array of strings";
  struct Case {
    Value info;
    std::string reason;
  };
  const std::vector<Case> cases = {
      {Value(Value::Array{}), "Info.plist is not a dictionary"},
      {with(good, kBundleIdentifierKey, Value()),
       "BundleIdentifier is missing or not a non-empty string"},
      {with(good, kBundleIdentifierKey, Value("")),
       "BundleIdentifier is missing or not a non-empty string"},
      {with(good, kBundleIdentifierKey, Value(3)),
       "BundleIdentifier is missing or not a non-empty string"},
      {with(good, kBundleExecutableKey, Value()),
       "BundleExecutable is missing or not a file name inside the bundle"},
      {with(good, kBundleExecutableKey, Value(Value::Array{})),
       "BundleExecutable is missing or not a file name inside the bundle"},
      {with(good, kBundleVersionKey, Value(2)), "BundleVersion is not a string"},
      {with(good, kOxExtensionKey, Value()), "OxExtension is missing or not a dictionary"},
      {with(good, kOxExtensionKey, Value("com.orvane.daskel-nonui")),
       "OxExtension is missing or not a dictionary"},
      {with(good, kOxExtensionKey, Value(Value::Dictionary{})),
       "OxExtension has no OxExtensionPointIdentifier that is a non-empty string"},
      {with(good, kOxExtensionKey,
            Value(Value::Dictionary{{kOxExtensionPointIdentifierKey, Value("")}})),
       "OxExtension has no OxExtensionPointIdentifier that is a non-empty string"},
      {with(good, kEntitlementsKey, Value(Value::Array{})), "Entitlements is not a dictionary"},
      {with(good, kEntitlementsKey,
            Value(Value::Dictionary{{kApplicationGroupsEntitlement, Value("group.one")}})),
       groupsReason},
      {with(good, kEntitlementsKey,
            Value(Value::Dictionary{{kApplicationGroupsEntitlement,
                                     Value(Value::Array{Value("group.one"), Value(1)})}})),
       groupsReason},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    auto bundle = ExtensionBundle::fromInfoDictionary(c.info, "/nowhere/Bad.dkext");
    ASSERT_FALSE(bundle);
    EXPECT_EQ(bundle.error()->domain, kExtensionBundleErrorDomain);
    EXPECT_EQ(bundle.error()->code, codeOf(ExtensionBundleError::Malformed));
    EXPECT_EQ(bundle.error()->localizedDescription(), c.reason);
  }
}

TEST(ExtensionBundle, TheExecutableMustBeAFileDirectlyInsideTheBundle) {
  const Value good = BundleContent().info();
  for (const char* name : {"", ".", "..", "../escape", "bin/provider", "/usr/bin/env"}) {
    SCOPED_TRACE(name);
    auto bundle = ExtensionBundle::fromInfoDictionary(with(good, kBundleExecutableKey, Value(name)),
                                                      "/nowhere/Bad.dkext");
    ASSERT_FALSE(bundle);
    EXPECT_EQ(bundle.error()->code, codeOf(ExtensionBundleError::Malformed));
  }
  EXPECT_TRUE(ExtensionBundle::fromInfoDictionary(
      with(good, kBundleExecutableKey, Value("..provider")), "/nowhere/Good.dkext"));
}

TEST(ExtensionBundle, AMissingExecutableDoesNotStopTheBundleFromBeingRead) {
  TemporaryTree tree;
  const std::string path =
      tree.bundle(tree.directory("extensions"), "NoBinary.dkext", {}, /*withExecutable=*/false);
  auto bundle = ExtensionBundle::read(path);
  ASSERT_TRUE(bundle) << bundle.error()->description();
  EXPECT_FALSE(bundle->executableIdentity().exists());
  EXPECT_EQ(bundle->executableIdentity().statError, ENOENT);

  // Once it is there, looking again sees it.
  writeFile(bundle->executablePath(), extension_test::executableBytes(), 0755);
  EXPECT_TRUE(bundle->withCurrentExecutableIdentity().executableIdentity().exists());
}

TEST(ExtensionBundle, AnInfoPlistOthersCouldHaveWrittenIsUntrusted) {
  TemporaryTree tree;
  const std::string path = tree.bundle(tree.directory("extensions"), "Open.dkext");
  for (mode_t mode : {0664, 0646}) {
    SCOPED_TRACE(mode);
    ASSERT_EQ(::chmod(infoPlistPath(path).c_str(), mode), 0);
    FileSignature signature;
    auto bundle = ExtensionBundle::read(path, &signature);
    ASSERT_FALSE(bundle);
    EXPECT_EQ(bundle.error()->code, codeOf(ExtensionBundleError::Untrusted));
    char expected[80];
    std::snprintf(expected, sizeof expected, "Info.plist: writable by group or others (mode 0%o)",
                  mode);
    EXPECT_EQ(bundle.error()->localizedDescription(), expected);
    // The verdict is tied to this version of the file.
    EXPECT_EQ(signature, FileSignature::ofPath(infoPlistPath(path)));
  }
  // Only the Info.plist is judged: a world-writable executable is the launcher's concern.
  ASSERT_EQ(::chmod(infoPlistPath(path).c_str(), 0644), 0);
  ASSERT_EQ(::chmod((path + "/provider").c_str(), 0777), 0);
  EXPECT_TRUE(ExtensionBundle::read(path));
}

TEST(ExtensionBundle, AnInfoPlistOfAnotherUserIsUntrusted) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "needs root to give a file away";
  TemporaryTree tree;
  const std::string path = tree.bundle(tree.directory("extensions"), "Foreign.dkext");
  ASSERT_EQ(::chown(infoPlistPath(path).c_str(), 12345, 12345), 0);
  auto bundle = ExtensionBundle::read(path);
  ASSERT_FALSE(bundle);
  EXPECT_EQ(bundle.error()->code, codeOf(ExtensionBundleError::Untrusted));
  EXPECT_EQ(bundle.error()->localizedDescription(),
            "Info.plist: owned by uid 12345, neither root nor the daemon's user (uid 0)");
}

TEST(ExtensionBundle, BundlesThatCannotBeReadSayWhy) {
  TemporaryTree tree;
  const std::string extensions = tree.directory("extensions");

  auto noInfo = ExtensionBundle::read(tree.directory("extensions/Empty.dkext"));
  ASSERT_FALSE(noInfo);
  EXPECT_EQ(noInfo.error()->code, codeOf(ExtensionBundleError::Unreadable));
  EXPECT_EQ(noInfo.error()->localizedDescription(), "no Info.plist");

  const std::string garbage = tree.directory("extensions/Garbage.dkext");
  writeFile(infoPlistPath(garbage), "this is not a property list");
  auto unparsable = ExtensionBundle::read(garbage);
  ASSERT_FALSE(unparsable);
  EXPECT_EQ(unparsable.error()->code, codeOf(ExtensionBundleError::Unreadable));
  EXPECT_TRUE(
      unparsable.error()->localizedDescription().starts_with("Info.plist: not a property list"))
      << unparsable.error()->localizedDescription();

  writeFile(extensions + "/File.dkext", "a file, not a bundle");
  auto file = ExtensionBundle::read(extensions + "/File.dkext");
  ASSERT_FALSE(file);
  EXPECT_EQ(file.error()->code, codeOf(ExtensionBundleError::Malformed));
  EXPECT_EQ(file.error()->localizedDescription(), "not a directory");

  auto missing = ExtensionBundle::read(extensions + "/Gone.dkext");
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error()->code, codeOf(ExtensionBundleError::Unreadable));
  EXPECT_EQ(missing.error()->localizedDescription(), std::string("stat: ") + std::strerror(ENOENT));

  auto relative = ExtensionBundle::read("extensions/Relative.dkext");
  ASSERT_FALSE(relative);
  EXPECT_EQ(relative.error()->localizedDescription(), "not an absolute path");
}

}  // namespace
}  // namespace daskel::platform
