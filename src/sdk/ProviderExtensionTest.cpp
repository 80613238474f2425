#include "sdk/ProviderExtension.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/plist/PropertyList.h"
#include "sdk/testing/SdkTestSupport.h"

namespace daskel::sdk {
namespace {

namespace fs = std::filesystem;
using platform::Value;
using testing::HeldProvider;
using testing::TemporaryTree;

void writeFile(const std::string& path, const std::string& bytes) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool hasStandInAttribute(const std::string& path) {
  return ::lgetxattr(path.c_str(), ProviderExtension::kStandInAttribute, nullptr, 0) >= 0;
}

// The names in `directory`, hidden ones included.
std::set<std::string> namesIn(const std::string& directory) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory))
    names.insert(entry.path().filename().string());
  return names;
}

ino_t inodeOf(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

class ProviderExtensionDefaults : public ::testing::Test {
 protected:
  void SetUp() override {
    provider.setContext(testing::contextIn(tree));
    std::filesystem::create_directories(storage());
  }

  std::string storage() const { return provider.context().storageDirectoryPath(); }
  Url fileUrl(const std::string& path) const { return *Url::fileUrlWithPath(path, false); }

  void expectInvalidItem(const ErrorPtr& error, const std::string& what) const {
    ASSERT_TRUE(error) << what << " was accepted";
    EXPECT_EQ(error->domain, kSdkErrorDomain) << what;
    EXPECT_EQ(error->code, static_cast<std::int64_t>(SdkError::InvalidItem)) << what;
  }

  TemporaryTree tree;
  HeldProvider provider;
};

TEST_F(ProviderExtensionDefaults, StorageDirectoryIsDaskelStorageInsideTheGroupContainer) {
  EXPECT_EQ(provider.storageDirectoryUrl().absoluteString(),
            provider.groupContainerUrl().absoluteString() + "Daskel%20Storage/");
  EXPECT_EQ(storage(), tree.path("container/Daskel Storage"));
}

TEST_F(ProviderExtensionDefaults, IdentifiersAndUrlsRoundTripThroughTheStorageDirectory) {
  for (const std::string identifier : {"a.txt", "dir/b c.txt", "dir/sub/ü%.txt"}) {
    std::optional<Url> url;
    provider.urlForItemIdentifier(
        identifier, UrlCompletion([&](ErrorPtr error, std::optional<Url> result) {
          EXPECT_FALSE(error) << error->description();
          url = result;
        }, "test"));
    ASSERT_TRUE(url) << identifier;
    EXPECT_EQ(url->path(), storage() + "/" + identifier);

    std::optional<std::string> back;
    provider.identifierForItem(
        *url, IdentifierCompletion([&](ErrorPtr error, std::optional<std::string> result) {
          EXPECT_FALSE(error) << error->description();
          back = result;
        }, "test"));
    EXPECT_EQ(back, identifier);
  }
}

TEST_F(ProviderExtensionDefaults, IdentifiersLeadingOutOfTheStorageDirectoryAreRefused) {
  std::filesystem::create_directories(tree.path("elsewhere"));
  ASSERT_EQ(::symlink(tree.path("elsewhere").c_str(), (storage() + "/out").c_str()), 0);
  for (const std::string identifier : {"", "/etc/passwd", "../x", "a/../../x", "out/x"}) {
    auto url = provider.urlForIdentifier(identifier);
    expectInvalidItem(url ? nullptr : url.error(), identifier);
  }
}

TEST_F(ProviderExtensionDefaults, UrlsOutsideTheStorageDirectoryHaveNoIdentifier) {
  std::filesystem::create_directories(tree.path("elsewhere"));
  ASSERT_EQ(::symlink(tree.path("elsewhere").c_str(), (storage() + "/out").c_str()), 0);
  const std::vector<Url> outside = {
      fileUrl(tree.path("container/other.txt")),
      *Url::fileUrlWithPath(storage(), true),
      fileUrl(storage() + "/../x"),
      fileUrl(storage() + "/out/x"),
      *Url::fromString("https://example.com/a.txt"),
  };
  for (const Url& url : outside) {
    ErrorPtr refusal;
    provider.identifierForItem(url, IdentifierCompletion(
                                        [&](ErrorPtr error, std::optional<std::string> result) {
                                          EXPECT_FALSE(result) << *result;
                                          refusal = error;
                                        },
                                        "test"));
    expectInvalidItem(refusal, url.absoluteString());
  }
}

TEST_F(ProviderExtensionDefaults, PlaceholderIsAFileBesideTheItemWithADotBeforeItsName) {
  const Url item = fileUrl(storage() + "/dir/b c.txt");
  std::optional<Url> placeholder;
  provider.providePlaceholder(
      item, PlaceholderCompletion([&](std::optional<Url> url, ErrorPtr error) {
        EXPECT_FALSE(error) << error->description();
        placeholder = url;
      }, "test"));
  ASSERT_TRUE(placeholder);
  EXPECT_EQ(placeholder->path(), storage() + "/dir/.b c.txt");
  auto content = platform::readPropertyListFile(placeholder->path());
  ASSERT_TRUE(content) << content.error()->description();
  EXPECT_EQ(*content, Value(Value::Dictionary{{"Name", Value("b c.txt")},
                                              {"ItemIdentifier", Value("dir/b c.txt")}}));
}

TEST_F(ProviderExtensionDefaults, PlaceholderOutsideTheStorageDirectoryIsRefusedAndNotWritten) {
  ErrorPtr refusal;
  provider.providePlaceholder(fileUrl(tree.path("container/x.txt")),
                              PlaceholderCompletion([&](std::optional<Url> url, ErrorPtr error) {
                                EXPECT_FALSE(url);
                                refusal = error;
                              }, "test"));
  expectInvalidItem(refusal, "placeholder outside");
  EXPECT_FALSE(std::filesystem::exists(tree.path("container/.x.txt")));
}

class ProviderExtensionStandIns : public ProviderExtensionDefaults {
 protected:
  // Asks the default providePlaceholder for the item at `path`; its error, if any.
  ErrorPtr placeholderFor(const Url& item) {
    ErrorPtr failure;
    provider.providePlaceholder(
        item, PlaceholderCompletion([&](std::optional<Url>, ErrorPtr error) { failure = error; },
                                    "test"));
    return failure;
  }
};

TEST_F(ProviderExtensionStandIns, APlaceholderComesWithAMarkedEmptyStandInAtTheItemsPath) {
  const std::string item = storage() + "/dir/b c.txt";
  ASSERT_FALSE(placeholderFor(fileUrl(item)));
  ASSERT_TRUE(fs::is_regular_file(item));
  EXPECT_EQ(fs::file_size(item), 0u);
  EXPECT_TRUE(hasStandInAttribute(item));
  EXPECT_TRUE(ProviderExtension::isStandIn(fileUrl(item)));
  // Nothing else is left in the directory: no temporary file.
  EXPECT_EQ(namesIn(storage() + "/dir"), (std::set<std::string>{".b c.txt", "b c.txt"}));

  // Asked again, the stand-in already there stays the same file.
  const ino_t inode = inodeOf(item);
  ASSERT_FALSE(placeholderFor(fileUrl(item)));
  EXPECT_EQ(inodeOf(item), inode);
}

TEST_F(ProviderExtensionStandIns, APlaceholderNeverReplacesWhatIsAtTheItemsPath) {
  const std::string present = storage() + "/present.txt";
  writeFile(present, "provided contents");
  const std::string empty = storage() + "/empty.txt";
  writeFile(empty, "");
  const std::string folder = storage() + "/folder";
  fs::create_directories(folder);
  const std::string dangling = storage() + "/dangling.txt";
  ASSERT_EQ(::symlink((storage() + "/nowhere").c_str(), dangling.c_str()), 0);

  for (const std::string& item : {present, empty, folder, dangling}) {
    const ino_t inode = inodeOf(item);
    ASSERT_FALSE(placeholderFor(fileUrl(item))) << item;
    EXPECT_EQ(inodeOf(item), inode) << item << " was replaced";
    EXPECT_FALSE(ProviderExtension::isStandIn(fileUrl(item))) << item;
  }
  EXPECT_EQ(readFile(present), "provided contents");
  EXPECT_TRUE(fs::is_symlink(dangling));
  EXPECT_FALSE(fs::exists(storage() + "/nowhere"));
  // A real empty document is told apart from a stand-in by the missing mark.
  EXPECT_FALSE(hasStandInAttribute(empty));
}

TEST_F(ProviderExtensionStandIns, ADirectoryItemOrAPlaceholderWrittenWithoutOneGetsNoStandIn) {
  ASSERT_FALSE(placeholderFor(*Url::fileUrlWithPath(storage() + "/Album", true)));
  EXPECT_TRUE(fs::exists(storage() + "/.Album"));
  EXPECT_FALSE(fs::exists(storage() + "/Album"));

  ASSERT_TRUE(ProviderExtension::writePlaceholderFile(fileUrl(storage() + "/.plain.txt"), "p",
                                                      ProviderExtension::StandIn::None));
  EXPECT_FALSE(fs::exists(storage() + "/plain.txt"));
  // A placeholder name without the leading "." names no item.
  ASSERT_TRUE(ProviderExtension::writePlaceholderFile(fileUrl(storage() + "/odd.plist"), "p"));
  EXPECT_EQ(namesIn(storage()), (std::set<std::string>{".Album", ".plain.txt", "odd.plist"}));
}

TEST_F(ProviderExtensionStandIns, EvictionSwapsTheContentsForAStandInInOneRenameKeepingTheMode) {
  const std::string item = storage() + "/Reports/q3.txt";
  writeFile(item, "provided contents");
  ASSERT_EQ(::chmod(item.c_str(), 0640), 0);
  // A reader that has the item open keeps what it opened.
  const int reader = ::open(item.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(reader, 0);

  ASSERT_TRUE(provider.evictToStandIn(fileUrl(item)));
  EXPECT_TRUE(ProviderExtension::isStandIn(fileUrl(item)));
  EXPECT_EQ(fs::file_size(item), 0u);
  struct stat status;
  ASSERT_EQ(::stat(item.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  char buffer[64] = {};
  EXPECT_EQ(::read(reader, buffer, sizeof buffer), 17);
  EXPECT_STREQ(buffer, "provided contents");
  ::close(reader);
  EXPECT_EQ(namesIn(storage() + "/Reports"), std::set<std::string>{"q3.txt"});

  // Evicting a stand-in leaves it as it is; evicting a name with nothing there makes one.
  const ino_t inode = inodeOf(item);
  ASSERT_TRUE(provider.evictToStandIn(fileUrl(item)));
  EXPECT_EQ(inodeOf(item), inode);
  const std::string never = storage() + "/Reports/never fetched.txt";
  ASSERT_TRUE(provider.evictToStandIn(fileUrl(never)));
  EXPECT_TRUE(ProviderExtension::isStandIn(fileUrl(never)));
  ASSERT_EQ(::stat(never.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(ProviderExtensionStandIns, EvictionRefusesDirectoriesAndWhatIsOutsideTheStorageDirectory) {
  fs::create_directories(storage() + "/folder");
  auto directory = provider.evictToStandIn(fileUrl(storage() + "/folder"));
  expectInvalidItem(directory ? nullptr : directory.error(), "a directory");
  EXPECT_TRUE(fs::is_directory(storage() + "/folder"));

  const std::string outside = tree.path("container/outside.txt");
  writeFile(outside, "not the provider's");
  for (const Url& url : {fileUrl(outside), *Url::fileUrlWithPath(storage(), true),
                         fileUrl(storage() + "/../outside.txt")}) {
    auto refused = provider.evictToStandIn(url);
    expectInvalidItem(refused ? nullptr : refused.error(), url.absoluteString());
  }
  EXPECT_EQ(readFile(outside), "not the provider's");
}

TEST_F(ProviderExtensionStandIns, OnlyEmptyRegularFilesCanBeStandIns) {
  const std::string item = storage() + "/item.txt";
  EXPECT_FALSE(ProviderExtension::isStandIn(fileUrl(item))) << "nothing there";
  ASSERT_FALSE(placeholderFor(fileUrl(item)));
  ASSERT_TRUE(ProviderExtension::isStandIn(fileUrl(item)));
  // A link to a stand-in is not one.
  const std::string link = storage() + "/link.txt";
  ASSERT_EQ(::symlink(item.c_str(), link.c_str()), 0);
  EXPECT_FALSE(ProviderExtension::isStandIn(fileUrl(link)));
  // Written in place, the file keeps its mark but is no stand-in any more.
  writeFile(item, "fetched in place");
  EXPECT_TRUE(hasStandInAttribute(item));
  EXPECT_FALSE(ProviderExtension::isStandIn(fileUrl(item)));
  EXPECT_FALSE(ProviderExtension::isStandIn(*Url::fromString("https://example.com/item.txt")));
}

// ramfs refuses user extended attributes; mounting one needs CAP_SYS_ADMIN.
TEST_F(ProviderExtensionStandIns, WhereUserAttributesAreRefusedEveryEmptyFileIsAStandIn) {
  if (::mount("ramfs", storage().c_str(), "ramfs", 0, nullptr) != 0)
    GTEST_SKIP() << "cannot mount a ramfs for the test: " << std::strerror(errno);
  struct Unmount {
    std::string path;
    ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
  } unmount{storage()};
  ASSERT_NE(::lsetxattr(storage().c_str(), ProviderExtension::kStandInAttribute, "", 0, 0), 0);
  ASSERT_TRUE(errno == ENOTSUP || errno == EOPNOTSUPP) << std::strerror(errno);

  const std::string item = storage() + "/item.txt";
  ASSERT_FALSE(placeholderFor(fileUrl(item)));
  EXPECT_EQ(fs::file_size(item), 0u);
  EXPECT_TRUE(ProviderExtension::isStandIn(fileUrl(item)));
  const std::string empty = storage() + "/empty.txt";
  writeFile(empty, "");
  EXPECT_TRUE(ProviderExtension::isStandIn(fileUrl(empty)));

  const std::string provided = storage() + "/provided.txt";
  writeFile(provided, "contents");
  EXPECT_FALSE(ProviderExtension::isStandIn(fileUrl(provided)));
  ASSERT_TRUE(provider.evictToStandIn(fileUrl(provided)));
  EXPECT_TRUE(ProviderExtension::isStandIn(fileUrl(provided)));
  EXPECT_EQ(fs::file_size(provided), 0u);
}

TEST(Completion, IsDeliveredOnceEvenWhenCalledTwiceFromTwoCopies) {
  int deliveries = 0;
  ItemCompletion completion([&](ErrorPtr) { ++deliveries; }, "test");
  ItemCompletion copy = completion;
  completion(nullptr);
  copy(makeError("d", 1, "late"));
  EXPECT_EQ(deliveries, 1);
  EXPECT_TRUE(copy.wasCalled());
}

}  // namespace
}  // namespace daskel::sdk
