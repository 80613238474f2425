#include "platform/extensions/ExtensionCatalog.h"

#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/extensions/ExtensionTestSupport.h"
#include "platform/log/CapturingLogSink.h"
#include "platform/plist/PropertyList.h"

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;
using extension_test::BundleContent;
using extension_test::infoPlistPath;
using extension_test::kProviderPoint;
using extension_test::replaceFile;
using extension_test::TemporaryTree;
using extension_test::writeFile;

BundleContent content(const std::string& identifier, const std::string& point = kProviderPoint) {
  BundleContent result;
  result.identifier = identifier;
  result.point = point;
  return result;
}

std::vector<std::string> identifiers(const ExtensionCatalog::Records& records) {
  std::vector<std::string> result;
  for (const auto& record : records)
    result.push_back(record->identifier());
  return result;
}

class ExtensionCatalogTest : public ::testing::Test {
 protected:
  TemporaryTree tree_;
  const std::string first_ = tree_.directory("local/extensions");
  const std::string second_ = tree_.directory("system/extensions");
  const std::string containers_ = tree_.path("containers");
  ExtensionCatalog catalog_{{first_, second_}, containers_};
};

TEST_F(ExtensionCatalogTest, BundlesAreListedDirectoryByDirectoryThenByName) {
  // Written out of order, so that neither creation nor directory order can pass for it.
  tree_.bundle(second_, "A.dkext", content("com.example.system-a"));
  tree_.bundle(first_, "Zeta.dkext", content("com.example.zeta"));
  tree_.bundle(first_, "Alpha.dkext", content("com.example.alpha"));
  tree_.bundle(second_, "B.dkext", content("com.example.system-b"));

  EXPECT_EQ(identifiers(catalog_.scan()),
            (std::vector<std::string>{"com.example.alpha", "com.example.zeta",
                                      "com.example.system-a", "com.example.system-b"}));
  const auto records = catalog_.scan();
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records.front()->groupContainersDirectory(), containers_);
}

TEST_F(ExtensionCatalogTest, OnlyVisibleDkextEntriesAreBundles) {
  tree_.bundle(first_, "Real.dkext", content("com.example.real"));
  tree_.bundle(first_, ".Hidden.dkext", content("com.example.hidden"));
  tree_.bundle(first_, "Other.bundle", content("com.example.other"));
  tree_.bundle(first_, "Real.dkext.partial", content("com.example.partial"));
  tree_.bundle(first_, ".dkext", content("com.example.nameless"));

  CapturingLogSink::Scope log;
  EXPECT_EQ(identifiers(catalog_.scan()), (std::vector<std::string>{"com.example.real"}));
  EXPECT_TRUE(log->lines().empty());
}

TEST_F(ExtensionCatalogTest, AMalformedBundleIsSkippedWithOneLinePerVersion) {
  tree_.bundle(first_, "Good.dkext", content("com.example.good"));
  const std::string bad = tree_.directory("local/extensions/Bad.dkext");
  BundleContent noIdentifier = content("");
  writeFile(infoPlistPath(bad), serializeXmlPropertyList(noIdentifier.info()));

  CapturingLogSink::Scope log;
  const std::string line = "Ignoring extension bundle " + bad +
                           ": BundleIdentifier is missing or not a non-empty string";
  for (int scan = 0; scan < 3; ++scan)
    EXPECT_EQ(identifiers(catalog_.scan()), (std::vector<std::string>{"com.example.good"}));
  EXPECT_EQ(log->count(kLogError, line), 1u);
  EXPECT_EQ(log->lines().size(), 1u);

  // A new version of the file that is still wrong is reported again, once.
  writeFile(infoPlistPath(bad), "not a property list at all");
  catalog_.scan();
  catalog_.scan();
  ASSERT_EQ(log->lines().size(), 2u);
  EXPECT_TRUE(log->lines()[1].message.starts_with("Ignoring extension bundle " + bad +
                                                  ": Info.plist: not a property list"))
      << log->lines()[1].message;

  // Fixed, it counts.
  replaceFile(infoPlistPath(bad), serializeXmlPropertyList(content("com.example.fixed").info()));
  EXPECT_EQ(identifiers(catalog_.scan()),
            (std::vector<std::string>{"com.example.fixed", "com.example.good"}));
  EXPECT_EQ(log->lines().size(), 2u);
}

TEST_F(ExtensionCatalogTest, AnUntrustedInfoPlistLeavesItsBundleOutUntilTrustedAgain) {
  const std::string path = tree_.bundle(first_, "Open.dkext", content("com.example.open"));
  ASSERT_EQ(::chmod(infoPlistPath(path).c_str(), 0666), 0);

  CapturingLogSink::Scope log;
  EXPECT_TRUE(catalog_.scan().empty());
  EXPECT_TRUE(catalog_.scan().empty());
  EXPECT_EQ(log->count(kLogError, "Ignoring extension bundle " + path +
                                      ": Info.plist: writable by group or others (mode 0666)"),
            1u);

  // The mode is part of the file's version: chmod alone brings the bundle back.
  ASSERT_EQ(::chmod(infoPlistPath(path).c_str(), 0644), 0);
  EXPECT_EQ(identifiers(catalog_.scan()), (std::vector<std::string>{"com.example.open"}));
}

TEST_F(ExtensionCatalogTest, TheFirstBundleOfAnIdentifierWinsWithOneNotice) {
  const std::string winner = tree_.bundle(first_, "Z.dkext", content("com.example.same"));
  const std::string loser = tree_.bundle(second_, "A.dkext", content("com.example.same"));
  // Another extension point does not make a second claim acceptable.
  const std::string otherPoint =
      tree_.bundle(second_, "B.dkext", content("com.example.same", "com.example.other-point"));

  CapturingLogSink::Scope log;
  for (int scan = 0; scan < 3; ++scan) {
    const auto records = catalog_.scan();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records.front()->bundlePath(), winner);
  }
  EXPECT_EQ(
      log->count(kLogNotice, "Ignoring extension bundle " + loser +
                                 ": its identifier com.example.same is already used by " + winner),
      1u);
  EXPECT_EQ(
      log->count(kLogNotice, "Ignoring extension bundle " + otherPoint +
                                 ": its identifier com.example.same is already used by " + winner),
      1u);
  EXPECT_EQ(log->lines().size(), 2u);

  // With the first one gone, the next in search order takes its place.
  fs::remove_all(winner);
  const auto records = catalog_.scan();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records.front()->bundlePath(), loser);
}

TEST_F(ExtensionCatalogTest, MatchingKeepsOnlyTheExtensionPointAsked) {
  tree_.bundle(first_, "Provider.dkext", content("com.example.provider"));
  tree_.bundle(first_, "Share.dkext", content("com.example.share", "com.orvane.share-services"));
  tree_.bundle(second_, "Other.dkext", content("com.example.second-provider"));

  const auto all = catalog_.scan();
  EXPECT_EQ(identifiers(ExtensionCatalog::matching(all, kProviderPoint)),
            (std::vector<std::string>{"com.example.provider", "com.example.second-provider"}));
  EXPECT_EQ(identifiers(ExtensionCatalog::matching(all, "com.orvane.share-services")),
            (std::vector<std::string>{"com.example.share"}));
  EXPECT_TRUE(ExtensionCatalog::matching(all, "com.orvane.daskel-ui").empty());

  // A look-up by identifier does not care about the point.
  auto share = catalog_.recordForIdentifier("com.example.share");
  ASSERT_TRUE(share);
  EXPECT_EQ(share->extensionPointIdentifier(), "com.orvane.share-services");
  EXPECT_FALSE(catalog_.recordForIdentifier("com.example.absent"));
}

TEST_F(ExtensionCatalogTest, AnUnchangedBundleKeepsItsRecordObjectAndAChangedOneGetsANewOne) {
  const std::string path = tree_.bundle(first_, "Kept.dkext", content("com.example.kept"));
  const auto before = catalog_.scan();
  const auto again = catalog_.scan();
  ASSERT_EQ(before.size(), 1u);
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(before.front(), again.front());

  // The executable is looked at on every scan, even when the Info.plist stayed the same.
  replaceFile(path + "/provider", extension_test::executableBytes(), 0755);
  const auto after = catalog_.scan();
  ASSERT_EQ(after.size(), 1u);
  EXPECT_NE(*after.front(), *before.front());
  EXPECT_NE(after.front()->executableIdentity().inode, before.front()->executableIdentity().inode);
}

TEST_F(ExtensionCatalogTest, MissingDirectoriesAreEmptyAndUnusableOnesReportedOnce) {
  tree_.bundle(second_, "Only.dkext", content("com.example.only"));
  const std::string notADirectory = tree_.path("plain-file");
  writeFile(notADirectory, "x");
  ExtensionCatalog catalog(
      {tree_.path("missing/extensions"), notADirectory, "relative/extensions", second_},
      containers_);

  CapturingLogSink::Scope log;
  EXPECT_EQ(identifiers(catalog.scan()), (std::vector<std::string>{"com.example.only"}));
  EXPECT_EQ(identifiers(catalog.scan()), (std::vector<std::string>{"com.example.only"}));
  EXPECT_EQ(log->count(kLogError, "Cannot read extension bundles in " + notADirectory + ": " +
                                      std::strerror(ENOTDIR)),
            1u);
  EXPECT_EQ(log->count(kLogError,
                       "Ignoring extensions directory relative/extensions: not an absolute path"),
            1u);
  EXPECT_EQ(log->lines().size(), 2u);
}

}  // namespace
}  // namespace daskel::platform
