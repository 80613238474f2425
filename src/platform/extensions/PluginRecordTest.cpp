#include "platform/extensions/PluginRecord.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/extensions/ExtensionTestSupport.h"
#include "platform/filesystem/FileSystem.h"
#include "platform/log/CapturingLogSink.h"
#include "platform/plist/PropertyList.h"

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;
using extension_test::BundleContent;
using extension_test::executableBytes;
using extension_test::infoPlistPath;
using extension_test::replaceFile;
using extension_test::TemporaryTree;
using extension_test::writeFile;

class PluginRecordTest : public ::testing::Test {
 protected:
  PluginRecord read(const std::string& bundlePath) {
    auto bundle = ExtensionBundle::read(bundlePath);
    EXPECT_TRUE(bundle) << bundle.error()->description();
    return PluginRecord(std::move(*bundle), containers_);
  }

  mode_t modeOf(const std::string& path) {
    struct stat status;
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }

  TemporaryTree tree_;
  const std::string extensions_ = tree_.directory("extensions");
  // Two levels that do not exist yet: the first use creates them.
  const std::string containers_ = tree_.path("data/group-containers");
};

TEST_F(PluginRecordTest, ARecordGivesTheBundlesIdentityInfoAndLocation) {
  BundleContent content;
  content.identifier = "com.example.files";
  content.version = "3.1";
  const std::string path = tree_.bundle(extensions_, "Files Provider.dkext", content);
  const PluginRecord record = read(path);

  EXPECT_EQ(record.identifier(), "com.example.files");
  EXPECT_EQ(record.version(), "3.1");
  EXPECT_EQ(record.infoDictionary(), content.info());
  EXPECT_EQ(record.extensionPointIdentifier(), extension_test::kProviderPoint);
  EXPECT_EQ(record.bundlePath(), path);
  EXPECT_EQ(record.executablePath(), path + "/provider");
  EXPECT_TRUE(record.bundleUrl().isFileUrl());
  EXPECT_TRUE(record.bundleUrl().hasDirectoryPath());
  EXPECT_EQ(record.bundleUrl().path(), path + "/");
  EXPECT_EQ(record.bundleUrl().lastPathComponent(), "Files Provider.dkext");
  EXPECT_EQ(record.description(), "com.example.files 3.1 (" + path + ")");

  content.version.reset();
  const PluginRecord unversioned = read(tree_.bundle(extensions_, "Bare.dkext", content));
  EXPECT_EQ(unversioned.description(), "com.example.files (" + extensions_ + "/Bare.dkext)");
}

TEST_F(PluginRecordTest, GroupContainersAreCreatedPrivateOnFirstUseOnly) {
  BundleContent content;
  content.groups = {"group.com.example.docs", "group.com.example.cache"};
  const PluginRecord record = read(tree_.bundle(extensions_, "Docs.dkext", content));
  // Discovery alone creates nothing.
  EXPECT_FALSE(fs::exists(containers_));

  // A permissive umask must not widen the containers' mode, a strict one not narrow it.
  const mode_t savedUmask = ::umask(0);
  const auto urls = record.groupContainerUrls();
  ::umask(savedUmask);

  ASSERT_EQ(urls.size(), 2u);
  for (const std::string group : {"group.com.example.docs", "group.com.example.cache"}) {
    SCOPED_TRACE(group);
    const std::string path = containers_ + "/" + group;
    ASSERT_TRUE(urls.contains(group));
    EXPECT_EQ(urls.at(group), *Url::fileUrlWithPath(path, /*isDirectory=*/true));
    EXPECT_TRUE(fs::is_directory(path));
    EXPECT_EQ(modeOf(path), 0700u);
    // The container must be the daemon's user's.
    struct stat status;
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, ::geteuid());
  }
  EXPECT_EQ(modeOf(containers_), 0700u);

  // A later use finds the container as it is: its content and a mode set by its owner stay.
  const std::string docs = containers_ + "/group.com.example.docs";
  writeFile(docs + "/note", "kept");
  ASSERT_EQ(::chmod(docs.c_str(), 0750), 0);
  auto again = record.groupContainerUrl("group.com.example.docs");
  ASSERT_TRUE(again) << again.error()->description();
  EXPECT_EQ(*again, urls.at("group.com.example.docs"));
  EXPECT_EQ(modeOf(docs), 0750u);
  EXPECT_TRUE(fs::exists(docs + "/note"));
}

TEST_F(PluginRecordTest, GroupIdsThatCannotNameAContainerAreRefusedWithOneLineEach) {
  BundleContent content;
  content.groups = {"group.ok", "", "a/b", ".", "..", "group.ok"};
  const PluginRecord record = read(tree_.bundle(extensions_, "Odd.dkext", content));

  CapturingLogSink::Scope log;
  const auto urls = record.groupContainerUrls();
  ASSERT_EQ(urls.size(), 1u);
  EXPECT_TRUE(urls.contains("group.ok"));
  std::size_t errors = 0;
  for (const auto& line : log->lines()) {
    if (line.level == kLogError && line.message.starts_with("No container for app group"))
      ++errors;
  }
  EXPECT_EQ(errors, 4u);
  EXPECT_EQ(log->count(kLogError,
                       "No container for app group \"a/b\" of com.example.provider: \"a/b\" cannot "
                       "name a container (empty, \"/\", \".\" or \"..\")"),
            1u);
  // Nothing was created for them: "a" would have appeared for "a/b".
  EXPECT_EQ(std::distance(fs::directory_iterator(containers_), fs::directory_iterator()), 1);

  // A group the bundle is not entitled to has no container through this record.
  auto foreign = record.groupContainerUrl("group.someone-else");
  ASSERT_FALSE(foreign);
  EXPECT_FALSE(fs::exists(containers_ + "/group.someone-else"));
}

TEST_F(PluginRecordTest, AFileWhereTheContainerShouldBeIsReportedNotReplaced) {
  const PluginRecord record = read(tree_.bundle(extensions_, "Blocked.dkext"));
  fs::create_directories(containers_);
  writeFile(containers_ + "/group.com.example", "in the way");

  auto url = record.groupContainerUrl("group.com.example");
  ASSERT_FALSE(url);
  EXPECT_EQ(url.error()->domain, kPosixErrorDomain);
  EXPECT_EQ(url.error()->code, ENOTDIR);

  CapturingLogSink::Scope log;
  EXPECT_TRUE(record.groupContainerUrls().empty());
  EXPECT_EQ(log->lines().size(), 1u);
  EXPECT_TRUE(fs::is_regular_file(containers_ + "/group.com.example"));
}

TEST_F(PluginRecordTest, AnUntouchedBundleReadTwiceGivesEqualRecords) {
  const std::string path = tree_.bundle(extensions_, "Stable.dkext");
  const PluginRecord first = read(path);
  const PluginRecord second = read(path);
  EXPECT_EQ(first, second);

  // Changing only the executable's mode or adding a link to it is no update.
  ASSERT_EQ(::chmod(first.executablePath().c_str(), 0700), 0);
  ASSERT_EQ(::link(first.executablePath().c_str(), (tree_.path("hardlink")).c_str()), 0);
  EXPECT_EQ(read(path), first);

  // Neither is an Info.plist written anew with the same content.
  replaceFile(infoPlistPath(path), serializeXmlPropertyList(BundleContent().info()));
  EXPECT_EQ(read(path), first);
}

TEST_F(PluginRecordTest, AnUpdatedInfoPlistComparesUnequal) {
  const std::string path = tree_.bundle(extensions_, "Updated.dkext");
  const PluginRecord before = read(path);

  BundleContent updated;
  updated.version = "1.1";
  replaceFile(infoPlistPath(path), serializeXmlPropertyList(updated.info()));
  EXPECT_NE(read(path), before);

  // Content counts even where identifier and version stay: a new app group is an update.
  BundleContent regrouped;
  regrouped.groups.push_back("group.com.example.extra");
  replaceFile(infoPlistPath(path), serializeXmlPropertyList(regrouped.info()));
  const PluginRecord after = read(path);
  EXPECT_EQ(after.identifier(), before.identifier());
  EXPECT_EQ(after.version(), before.version());
  EXPECT_NE(after, before);
}

TEST_F(PluginRecordTest, AReplacedExecutableComparesUnequalEvenWithTheOldModificationTime) {
  const std::string path = tree_.bundle(extensions_, "Replaced.dkext");
  const PluginRecord before = read(path);
  const std::string executable = before.executablePath();

  // Same bytes, same modification time, but a new file renamed over the old one.
  struct stat old;
  ASSERT_EQ(::stat(executable.c_str(), &old), 0);
  writeFile(executable + ".new", executableBytes(), 0755);
  const struct timespec times[2] = {old.st_atim, old.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, (executable + ".new").c_str(), times, 0), 0);
  ASSERT_EQ(::rename((executable + ".new").c_str(), executable.c_str()), 0);

  const PluginRecord after = read(path);
  EXPECT_EQ(after.executableIdentity().mtimeSeconds, before.executableIdentity().mtimeSeconds);
  EXPECT_EQ(after.executableIdentity().mtimeNanoseconds,
            before.executableIdentity().mtimeNanoseconds);
  EXPECT_NE(after.executableIdentity().inode, before.executableIdentity().inode);
  EXPECT_NE(after, before);
}

TEST_F(PluginRecordTest, AnExecutableRewrittenInPlaceComparesUnequal) {
  const std::string path = tree_.bundle(extensions_, "Rewritten.dkext");
  const PluginRecord before = read(path);
  const std::string executable = before.executablePath();

  // Same inode, a modification time surely different from the first write's.
  writeFile(executable, "#!/bin/sh\nexit 1\n", 0755);
  const struct timespec times[2] = {{0, UTIME_OMIT},
                                    {before.executableIdentity().mtimeSeconds + 5, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, executable.c_str(), times, 0), 0);

  const PluginRecord after = read(path);
  EXPECT_EQ(after.executableIdentity().inode, before.executableIdentity().inode);
  EXPECT_NE(after, before);

  // And an executable that appears where there was none.
  const std::string bare = tree_.bundle(extensions_, "Bare.dkext", {}, /*withExecutable=*/false);
  const PluginRecord without = read(bare);
  writeFile(bare + "/provider", executableBytes(), 0755);
  EXPECT_NE(read(bare), without);
}

TEST_F(PluginRecordTest, TheSameBundleContentElsewhereIsAnotherRecord) {
  const PluginRecord here = read(tree_.bundle(extensions_, "Here.dkext"));
  const std::string moved = extensions_ + "/There.dkext";
  ASSERT_EQ(::rename(here.bundlePath().c_str(), moved.c_str()), 0);
  const PluginRecord there = read(moved);
  // Renaming kept the executable's inode and time; the location alone differs.
  EXPECT_EQ(there.executableIdentity(), here.executableIdentity());
  EXPECT_NE(there, here);
}

}  // namespace
}  // namespace daskel::platform
