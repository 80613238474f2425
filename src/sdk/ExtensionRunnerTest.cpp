#include "sdk/ExtensionRunner.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "platform/errors/DKErrors.h"
#include "provider/protocol/DKVendorProtocol.h"
#include "sdk/testing/ExtensionHarness.h"
#include "sdk/testing/SdkTestSupport.h"

namespace daskel::sdk {
namespace {

using platform::Value;
using testing::ExtensionHarness;
using testing::HeldProvider;
using testing::TemporaryTree;
namespace S = DKVendorSelector;

class ExtensionRunnerTest : public ::testing::Test {
 protected:
  ExtensionRunnerTest() { provider.setContext(testing::contextIn(tree)); }

  std::string storage() const { return provider.context().storageDirectoryPath(); }
  Value item(const std::string& name) const {
    return Value(*Url::fileUrlWithPath(storage() + "/" + name, false));
  }

  TemporaryTree tree;
  HeldProvider provider;
};

TEST_F(ExtensionRunnerTest, InitialSetupCreatesTheStorageDirectoryBeforeTheAuthorsSetupRuns) {
  ASSERT_FALSE(testing::isDirectory(storage()));
  ExtensionHarness harness(provider);
  ASSERT_TRUE(harness.ok());
  auto reply = ExtensionHarness::call(harness.beginRequest(), S::kPerformInitialSetup, {});
  ASSERT_TRUE(reply);
  EXPECT_EQ(*reply, (Value::Array{Value("com.example.provider"),
                                  Value(provider.storageDirectoryUrl()), Value()}));
  EXPECT_EQ(provider.setupCalls.load(), 1);
  EXPECT_TRUE(provider.storageExistedAtSetup.load());
  struct stat status;
  ASSERT_EQ(::stat(storage().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700u);
}

TEST_F(ExtensionRunnerTest, InitialSetupThatCannotCreateTheStorageDirectoryNeverCallsTheAuthor) {
  std::ofstream(tree.path("container")) << "a file where the container should be";
  ExtensionHarness harness(provider);
  auto reply = ExtensionHarness::call(harness.beginRequest(), S::kPerformInitialSetup, {});
  ASSERT_TRUE(reply);
  ErrorPtr error = reply->at(2).error();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, kSdkErrorDomain);
  EXPECT_EQ(error->code, static_cast<std::int64_t>(SdkError::StorageUnavailable));
  EXPECT_EQ(provider.setupCalls.load(), 0);
}

TEST_F(ExtensionRunnerTest, AuthorsErrorsReachTheDaemonWithDomainCodeAndDescription) {
  provider.setupError = makeError("com.example.Setup", -3, "No account configured");
  provider.startError = makeError("com.example.Sync", 42, "The server is gone");
  ExtensionHarness harness(provider);
  auto request = harness.beginRequest();
  auto setup = ExtensionHarness::call(request, S::kPerformInitialSetup, {});
  auto start = ExtensionHarness::call(request, S::kStartProviding, {item("a.txt")});
  ASSERT_TRUE(setup && start);
  ASSERT_TRUE(setup->at(2).error());
  EXPECT_EQ(*setup->at(2).error(), *provider.setupError);
  ASSERT_TRUE(start->at(0).error());
  EXPECT_EQ(*start->at(0).error(), *provider.startError);
  EXPECT_EQ(start->at(0).error()->localizedDescription(), "The server is gone");
}

TEST_F(ExtensionRunnerTest, RepliesCarryTheirValuesInTheProtocolsOrder) {
  ExtensionHarness harness(provider);
  auto request = harness.beginRequest();
  const Value url = item("dir/a.txt");
  EXPECT_EQ(ExtensionHarness::call(request, S::kProvidePlaceholder, {url}),
            (Value::Array{item("dir/.a.txt"), Value()}));
  EXPECT_EQ(ExtensionHarness::call(request, S::kIdentifierForItem, {url}),
            (Value::Array{Value(), Value("dir/a.txt")}));
  EXPECT_EQ(ExtensionHarness::call(request, S::kURLForItemIdentifier, {Value("dir/a.txt")}),
            (Value::Array{Value(), url}));
  EXPECT_EQ(ExtensionHarness::call(request, S::kStopProviding, {url}), Value::Array{Value()});
  EXPECT_EQ(ExtensionHarness::call(request, S::kItemChanged, {url}), Value::Array{Value()});
  auto refused = ExtensionHarness::call(request, S::kIdentifierForItem,
                                        {Value(*Url::fileUrlWithPath("/etc/passwd", false))});
  ASSERT_TRUE(refused);
  ASSERT_TRUE(refused->at(0).error());
  EXPECT_TRUE(refused->at(1).isNull());
}

TEST_F(ExtensionRunnerTest, ANilArgumentIsAnsweredWithAnErrorInsteadOfReachingTheAuthor) {
  ExtensionHarness harness(provider);
  auto reply = ExtensionHarness::call(harness.beginRequest(), S::kURLForItemIdentifier, {Value()});
  ASSERT_TRUE(reply);
  ASSERT_TRUE(reply->at(0).error());
  EXPECT_EQ(reply->at(0).error()->code, static_cast<std::int64_t>(SdkError::MissingArgument));
}

TEST_F(ExtensionRunnerTest, ASlowOperationHoldsUpOnlyItsOwnRequest) {
  ExtensionHarness harness(provider);
  auto slowRequest = harness.beginRequest();
  auto slow = ExtensionHarness::send(slowRequest, S::kStartProviding, {item("slow")});
  ASSERT_TRUE(provider.waitUntilHeld());

  auto quick = ExtensionHarness::call(harness.beginRequest(), S::kIdentifierForItem,
                                      {item("a.txt")});
  EXPECT_EQ(quick, (Value::Array{Value(), Value("a.txt")}));
  EXPECT_FALSE(slow->isDone());

  provider.release();
  EXPECT_EQ(slow->wait(), Value::Array{Value()});
}

TEST_F(ExtensionRunnerTest, CancellingARequestClosesItsConnectionAndDropsItsLateReply) {
  ExtensionHarness harness(provider);
  auto request = harness.beginRequest();
  auto held = ExtensionHarness::send(request, S::kStartProviding, {item("slow")});
  ASSERT_TRUE(provider.waitUntilHeld());
  EXPECT_EQ(harness.runner().openRequestCount(), 1u);

  harness.cancel(request);
  EXPECT_FALSE(held->wait());
  ASSERT_TRUE(held->error());
  EXPECT_EQ(held->error()->code, static_cast<std::int64_t>(IpcErrorCode::ConnectionInterrupted));
  EXPECT_EQ(harness.runner().openRequestCount(), 0u);

  // The author's completion, called after the end, goes nowhere; other requests still work.
  provider.release();
  EXPECT_TRUE(harness.runner().waitForNoRunningOperations(std::chrono::steady_clock::now() +
                                                          testing::kHarnessDeadline));
  EXPECT_TRUE(ExtensionHarness::call(harness.beginRequest(), S::kStopProviding, {item("a")}));
}

TEST_F(ExtensionRunnerTest, ClosingTheControlSocketStopsServingAndClosesOpenRequests) {
  ExtensionHarness harness(provider);
  auto request = harness.beginRequest();
  ASSERT_TRUE(ExtensionHarness::call(request, S::kStopProviding, {item("a")}));

  harness.closeControlSocket();
  EXPECT_TRUE(harness.waitForServeToReturn());
  EXPECT_EQ(harness.runner().openRequestCount(), 0u);
  EXPECT_FALSE(ExtensionHarness::call(request, S::kStopProviding, {item("a")}));
}

}  // namespace
}  // namespace daskel::sdk
