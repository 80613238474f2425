#include "LocalFolderProvider.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/filesystem/FileSystem.h"
#include "platform/plist/PropertyList.h"
#include "provider/protocol/DKVendorProtocol.h"
#include "sdk/testing/ExtensionHarness.h"
#include "sdk/testing/SpawnedExtension.h"
#include "sdk/testing/SdkTestSupport.h"

namespace daskel::examples {
namespace {

namespace fs = std::filesystem;
namespace S = DKVendorSelector;
using platform::Value;
using sdk::testing::ExtensionHarness;
using sdk::testing::TemporaryTree;

std::string contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void write(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Sets the modification (and access) time of `path` to `seconds` after 1970.
void setModificationTime(const std::string& path, time_t seconds) {
  const timespec times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

class LocalFolderProviderTest : public ::testing::Test {
 protected:
  LocalFolderProviderTest() : provider(tree.directory("source")) {
    write(source("notes/a b.txt"), "hello");
    provider.setContext(sdk::testing::contextIn(tree));
  }

  void SetUp() override {
    harness.emplace(provider);
    request = harness->beginRequest();
    auto setup = ExtensionHarness::call(request, S::kPerformInitialSetup, {});
    ASSERT_TRUE(setup && setup->at(2).isNull());
  }

  std::string source(const std::string& relative) const { return tree.path("source/" + relative); }
  std::string storage(const std::string& relative) const {
    return provider.context().storageDirectoryPath() + "/" + relative;
  }
  Value item(const std::string& relative) const {
    return Value(*sdk::Url::fileUrlWithPath(storage(relative), false));
  }
  bool isStandIn(const std::string& relative) const {
    return sdk::ProviderExtension::isStandIn(*sdk::Url::fileUrlWithPath(storage(relative), false));
  }
  // The error of a reply whose only value is an error.
  platform::ErrorPtr errorOf(const char* selector, const std::string& relative) {
    auto reply = ExtensionHarness::call(request, selector, {item(relative)});
    EXPECT_TRUE(reply);
    return reply ? reply->at(0).error() : nullptr;
  }

  TemporaryTree tree;
  LocalFolderProvider provider;
  std::optional<ExtensionHarness> harness;
  ExtensionHarness::Request request;
};

TEST_F(LocalFolderProviderTest, StartProvidingCopiesTheItemInAndStopProvidingEvictsOnlyTheCopy) {
  ASSERT_EQ(::chmod(source("notes/a b.txt").c_str(), 0640), 0);
  EXPECT_FALSE(errorOf(S::kStartProviding, "notes/a b.txt"));
  EXPECT_EQ(contents(storage("notes/a b.txt")), "hello");
  struct stat status;
  ASSERT_EQ(::stat(storage("notes/a b.txt").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640u);

  EXPECT_FALSE(errorOf(S::kStopProviding, "notes/a b.txt"));
  EXPECT_TRUE(isStandIn("notes/a b.txt")) << "the copy did not give way to a stand-in";
  EXPECT_EQ(contents(storage("notes/a b.txt")), "");
  EXPECT_EQ(contents(source("notes/a b.txt")), "hello");
  EXPECT_FALSE(errorOf(S::kStopProviding, "notes/a b.txt")) << "evicting twice is no error";
}

TEST_F(LocalFolderProviderTest, AnEvictedItemIsFetchedAgainWithWhatTheSourceHoldsNow) {
  ASSERT_FALSE(errorOf(S::kStartProviding, "notes/a b.txt"));
  ASSERT_FALSE(errorOf(S::kStopProviding, "notes/a b.txt"));
  write(source("notes/a b.txt"), "hello again");
  // The stand-in is newer than the source file, and is still no copy.
  setModificationTime(storage("notes/a b.txt"), 2'000'000'000);
  setModificationTime(source("notes/a b.txt"), 1'000'000'000);
  EXPECT_FALSE(errorOf(S::kStartProviding, "notes/a b.txt"));
  EXPECT_EQ(contents(storage("notes/a b.txt")), "hello again");
  EXPECT_FALSE(isStandIn("notes/a b.txt"));
}

TEST_F(LocalFolderProviderTest, StartProvidingKeepsACopyAsNewAsItsSourceAndRefreshesAnOlderOne) {
  ASSERT_FALSE(errorOf(S::kStartProviding, "notes/a b.txt"));
  write(storage("notes/a b.txt"), "edited here");
  setModificationTime(source("notes/a b.txt"), 1'000'000'000);
  setModificationTime(storage("notes/a b.txt"), 1'000'000'000);
  EXPECT_FALSE(errorOf(S::kStartProviding, "notes/a b.txt"));
  EXPECT_EQ(contents(storage("notes/a b.txt")), "edited here") << "a current copy was replaced";

  write(source("notes/a b.txt"), "edited at the source");
  setModificationTime(source("notes/a b.txt"), 1'000'000'001);
  EXPECT_FALSE(errorOf(S::kStartProviding, "notes/a b.txt"));
  EXPECT_EQ(contents(storage("notes/a b.txt")), "edited at the source");

  // An empty document is a copy like any other, told from a stand-in by the SDK's mark.
  write(source("notes/empty.txt"), "");
  ASSERT_FALSE(errorOf(S::kStartProviding, "notes/empty.txt"));
  EXPECT_TRUE(fs::is_regular_file(storage("notes/empty.txt")));
  EXPECT_FALSE(isStandIn("notes/empty.txt"));
}

TEST_F(LocalFolderProviderTest, APlaceholderBringsAStandInForAFileButNotForAFolder) {
  fs::create_directories(source("notes/archive"));
  auto file = ExtensionHarness::call(request, S::kProvidePlaceholder, {item("notes/a b.txt")});
  ASSERT_TRUE(file && file->at(1).isNull());
  EXPECT_TRUE(isStandIn("notes/a b.txt"));
  auto folder = ExtensionHarness::call(request, S::kProvidePlaceholder, {item("notes/archive")});
  ASSERT_TRUE(folder && folder->at(1).isNull()) << folder->at(1).description();
  EXPECT_TRUE(fs::exists(storage("notes/.archive")));
  EXPECT_FALSE(fs::exists(storage("notes/archive")));

  // The stand-in is fetched like a missing item.
  EXPECT_FALSE(errorOf(S::kStartProviding, "notes/a b.txt"));
  EXPECT_EQ(contents(storage("notes/a b.txt")), "hello");
}

TEST_F(LocalFolderProviderTest, ItemChangedWritesTheStorageCopyBackWithoutLeavingTemporaries) {
  ASSERT_FALSE(errorOf(S::kStartProviding, "notes/a b.txt"));
  write(storage("notes/a b.txt"), "hello, edited");
  EXPECT_FALSE(errorOf(S::kItemChanged, "notes/a b.txt"));
  EXPECT_EQ(contents(source("notes/a b.txt")), "hello, edited");
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(source("notes"))) {
    names.push_back(entry.path().filename().string());
  }
  EXPECT_EQ(names, std::vector<std::string>{"a b.txt"});
}

TEST_F(LocalFolderProviderTest, PlaceholderDescribesNameSizeAndModificationTime) {
  auto reply = ExtensionHarness::call(request, S::kProvidePlaceholder, {item("notes/a b.txt")});
  ASSERT_TRUE(reply);
  ASSERT_TRUE(reply->at(1).isNull()) << reply->at(1).description();
  EXPECT_EQ(reply->at(0), item("notes/.a b.txt"));
  auto description = platform::readPropertyListFile(storage("notes/.a b.txt"));
  ASSERT_TRUE(description);
  struct stat status;
  ASSERT_EQ(::stat(source("notes/a b.txt").c_str(), &status), 0);
  EXPECT_EQ(*description->find("Name"), Value("a b.txt"));
  EXPECT_EQ(*description->find("Size"), Value(5));
  ASSERT_TRUE(description->find("ModificationDate")->real());
  EXPECT_EQ(static_cast<time_t>(*description->find("ModificationDate")->real()),
            status.st_mtim.tv_sec);
}

TEST_F(LocalFolderProviderTest, ItemsLeadingOutOfTheSourceFolderAreRefusedAndNeverCopied) {
  write(tree.path("secret/key.txt"), "secret");
  ASSERT_EQ(::symlink(tree.path("secret").c_str(), source("out").c_str()), 0);
  for (const std::string identifier : {"out/key.txt", "../secret/key.txt", "/etc/passwd"}) {
    auto reply = ExtensionHarness::call(request, S::kURLForItemIdentifier, {Value(identifier)});
    ASSERT_TRUE(reply && reply->at(0).error()) << identifier;
    EXPECT_EQ(reply->at(0).error()->code, static_cast<std::int64_t>(sdk::SdkError::InvalidItem));
    EXPECT_TRUE(reply->at(1).isNull());
  }
  auto refused = errorOf(S::kStartProviding, "out/key.txt");
  ASSERT_TRUE(refused);
  EXPECT_NE(refused->localizedDescription().find("leads out of the source folder"),
            std::string::npos)
      << refused->description();
  EXPECT_FALSE(fs::exists(storage("out/key.txt")));
}

TEST_F(LocalFolderProviderTest, StartProvidingAMissingItemSaysSoWithItsPath) {
  auto error = errorOf(S::kStartProviding, "notes/gone.txt");
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, platform::kPosixErrorDomain);
  EXPECT_EQ(error->code, ENOENT);
  EXPECT_NE(error->description().find(source("notes/gone.txt")), std::string::npos);
}

// The bundle laid out in the build tree, started as the daemon starts it.
TEST(LocalFolderProviderBundle, TheBuiltBundleServesItsSampleFolderAndExitsWhenTold) {
  TemporaryTree tree;
  const std::string bundle = DASKEL_LOCAL_FOLDER_BUNDLE;
  std::string error;
  auto process = sdk::testing::SpawnedExtension::start(
      bundle + "/local-folder-provider", bundle, "com.example.daskel.local-folder-provider",
      {"DASKEL_GROUP_CONTAINERS_DIR=" + tree.path("containers")}, tree.path("stderr.txt"), true,
      &error);
  ASSERT_TRUE(process) << error;
  auto ready = process->control()->receive();
  ASSERT_TRUE(ready && *ready) << contents(tree.path("stderr.txt"));

  auto request = ExtensionHarness::beginRequestOn(process->control());
  auto setup = ExtensionHarness::call(request, S::kPerformInitialSetup, {});
  ASSERT_TRUE(setup && setup->at(2).isNull()) << contents(tree.path("stderr.txt"));
  auto url = ExtensionHarness::call(request, S::kURLForItemIdentifier, {Value("Welcome.txt")});
  ASSERT_TRUE(url && url->at(1).url());
  auto started = ExtensionHarness::call(request, S::kStartProviding, {url->at(1)});
  ASSERT_TRUE(started && started->at(0).isNull());
  EXPECT_EQ(contents(url->at(1).url()->path()), contents(bundle + "/Source/Welcome.txt"));

  process->closeControlSocket();
  auto status = process->waitForExit();
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
}

}  // namespace
}  // namespace daskel::examples
