#include "sdk/ProviderExtension.h"

#include <unistd.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "platform/plist/PropertyList.h"
#include "sdk/testing/SdkTestSupport.h"

namespace daskel::sdk {
namespace {

using platform::Value;
using testing::HeldProvider;
using testing::TemporaryTree;

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
