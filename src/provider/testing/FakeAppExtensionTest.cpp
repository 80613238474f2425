// The provider fakes behave as their headers promise: other components' tests rely on them.
#include "provider/testing/FakeAppExtension.h"

#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "platform/errors/DKErrors.h"
#include "platform/ipc/IpcTestSupport.h"
#include "provider/protocol/DKVendorProtocol.h"
#include "provider/testing/FakeAppExtensionMatching.h"
#include "provider/testing/ProviderBundleTree.h"
#include "provider/testing/ScriptedVendor.h"

namespace daskel {
namespace {

using platform::ErrorPtr;
using platform::Value;
using platform::testing::Inbox;
using Begin = FakeAppExtension::BeginOutcome;
namespace S = DKVendorSelector;

constexpr std::chrono::seconds kDeadline{20};

struct Begun {
  std::string uuid;
  ErrorPtr error;
};

Begun begin(FakeAppExtension& extension) {
  Inbox<Begun> begun;
  extension.beginRequest([&begun](const std::string& uuid, const ErrorPtr& error) {
    begun.push({uuid, error});
  });
  EXPECT_TRUE(begun.waitForCount(1));
  return begun.items().empty() ? Begun{} : begun.items().front();
}

// Sends `selector` on the request's connection and returns the reply values.
std::optional<Value::Array> send(FakeAppExtension& extension,
                                 const std::string& uuid,
                                 const char* selector,
                                 Value::Array arguments,
                                 ErrorPtr* connectionError = nullptr) {
  auto replies = std::make_shared<Inbox<Value::Array>>();
  auto errors = std::make_shared<Inbox<ErrorPtr>>();
  auto context = extension.contextForRequest(uuid);
  if (!context)
    return std::nullopt;
  context->auxiliaryConnection()
      ->remoteObjectProxyWithErrorHandler([errors](const ErrorPtr& error) { errors->push(error); })
      ->call(selector, std::move(arguments),
             [replies](Value::Array values) { replies->push(std::move(values)); });
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  while (std::chrono::steady_clock::now() < deadline) {
    if (replies->size() > 0)
      return replies->items().front();
    if (errors->size() > 0) {
      if (connectionError)
        *connectionError = errors->items().front();
      return std::nullopt;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ADD_FAILURE() << "no reply and no error";
  return std::nullopt;
}

TEST(FakeAppExtensionTest, BeginOutcomesAreUsedInOrderAndTheLastOneStays) {
  FakeAppExtension extension("com.example.fake");
  const ErrorPtr error = platform::makeError("test", 1, "no");
  extension.scriptBegin({Begin::fail(error), Begin::withoutContext(), Begin::succeed()});

  const Begun failed = begin(extension);
  EXPECT_EQ(failed.error, error);
  EXPECT_EQ(failed.uuid, "");
  const Begun contextless = begin(extension);
  EXPECT_EQ(contextless.error, nullptr);
  EXPECT_EQ(extension.contextForRequest(contextless.uuid), nullptr);
  const Begun first = begin(extension);
  const Begun second = begin(extension);
  EXPECT_NE(extension.contextForRequest(first.uuid), nullptr);
  EXPECT_NE(extension.contextForRequest(second.uuid), nullptr);
  EXPECT_NE(first.uuid, second.uuid);

  EXPECT_EQ(extension.beginCount(), 4u);
  EXPECT_EQ(extension.begunRequests(),
            (std::vector<std::string>{contextless.uuid, first.uuid, second.uuid}));
  EXPECT_EQ(extension.openRequestCount(), 2u);
}

TEST(FakeAppExtensionTest, ARequestsConnectionReachesTheScriptedVendor) {
  FakeAppExtension extension("com.example.fake");
  const Begun request = begin(extension);
  const Value url(*platform::Url::fileUrlWithPath("/storage/a", false));
  const ErrorPtr error = platform::makeError("test", 2, "refused");
  extension.vendor()->script(S::kIdentifierForItem,
                             {ScriptedVendor::succeed(S::kIdentifierForItem, Value("item-1")),
                              ScriptedVendor::fail(S::kIdentifierForItem, error)});

  EXPECT_EQ(send(extension, request.uuid, S::kIdentifierForItem, {url}),
            (Value::Array{Value(), Value("item-1")}));
  EXPECT_EQ(send(extension, request.uuid, S::kIdentifierForItem, {url}),
            (Value::Array{Value(error), Value()}));
  // The last action stays.
  EXPECT_EQ(send(extension, request.uuid, S::kIdentifierForItem, {url}),
            (Value::Array{Value(error), Value()}));
  // Unscripted operations succeed with nil values, in each operation's own shape.
  EXPECT_EQ(send(extension, request.uuid, S::kPerformInitialSetup, {}),
            (Value::Array{Value(), Value(), Value()}));
  EXPECT_EQ(send(extension, request.uuid, S::kStartProviding, {url}), Value::Array{Value()});

  EXPECT_EQ(extension.vendor()->callCount(S::kIdentifierForItem), 3u);
  EXPECT_EQ(extension.vendor()->calls().front().arguments, Value::Array{url});
}

TEST(FakeAppExtensionTest, CancellingOrLosingTheConnectionEndsARequest) {
  FakeAppExtension extension("com.example.fake");
  const Begun cancelled = begin(extension);
  const Begun dropped = begin(extension);
  auto connection = extension.contextForRequest(cancelled.uuid)->auxiliaryConnection();

  extension.cancelRequest(cancelled.uuid);
  extension.cancelRequest("not-a-request");
  EXPECT_FALSE(connection->isValid());
  EXPECT_EQ(extension.contextForRequest(cancelled.uuid), nullptr);
  EXPECT_EQ(extension.cancelledRequests(),
            (std::vector<std::string>{cancelled.uuid, "not-a-request"}));

  extension.vendor()->script(S::kStopProviding, {ScriptedVendor::closeConnection()});
  ErrorPtr lost;
  EXPECT_EQ(send(extension, dropped.uuid, S::kStopProviding, {Value()}, &lost), std::nullopt);
  EXPECT_TRUE(lost && lost->code == static_cast<std::int64_t>(IpcErrorCode::ConnectionInterrupted));
  EXPECT_TRUE(extension.waitForOpenRequestCount(0, kDeadline));
}

TEST(FakeAppExtensionTest, DestroyingTheFakeClosesItsOpenRequests) {
  std::shared_ptr<platform::IpcConnection> connection;
  {
    FakeAppExtension extension("com.example.fake");
    extension.vendor()->script(S::kStartProviding, {ScriptedVendor::neverAnswer()});
    const Begun request = begin(extension);
    connection = extension.contextForRequest(request.uuid)->auxiliaryConnection();
    EXPECT_TRUE(connection->isValid());
  }
  EXPECT_FALSE(connection->isValid());
}

TEST(FakeAppExtensionMatchingTest, ReportsArriveInOrderStartingWithTheCurrentList) {
  FakeAppExtensionMatching matching;
  auto a = std::make_shared<FakeAppExtension>("com.example.a");
  auto b = std::make_shared<FakeAppExtension>("com.example.b");
  matching.report({a});  // before matching: only remembered
  Inbox<std::vector<std::string>> reports;
  EXPECT_EQ(matching.beginMatching(
                "com.orvane.daskel-nonui",
                [&](std::vector<std::shared_ptr<platform::AppExtension>> list, const ErrorPtr&) {
                  std::vector<std::string> ids;
                  for (const auto& extension : list)
                    ids.push_back(extension->identifier());
                  reports.push(ids);
                }),
            nullptr);
  matching.report({a, b});
  matching.report({});
  matching.drain();

  const std::vector<std::vector<std::string>> expected = {
      {"com.example.a"}, {"com.example.a", "com.example.b"}, {}};
  EXPECT_EQ(reports.items(), expected);
  EXPECT_EQ(matching.reportCount(), 3u);
  EXPECT_EQ(matching.matchedPoints(), std::vector<std::string>{"com.orvane.daskel-nonui"});

  const ErrorPtr error = platform::makeError("test", 3, "cannot watch");
  matching.setBeginMatchingError(error);
  EXPECT_EQ(matching.beginMatching("x", [](auto, const ErrorPtr&) {}), error);
}

TEST(ProviderBundleTreeTest, BundlesBecomeRealRecordsWithContainersInTheTree) {
  ProviderBundleTree tree;
  FakeAppExtensionMatching matching;
  ProviderBundleLayout layout;
  layout.identifier = "com.example.docs";
  auto record = tree.writeBundle(layout);
  ASSERT_TRUE(record) << record.error()->description();
  matching.setRecord(*record);

  ASSERT_EQ(matching.recordForIdentifier("com.example.docs"), *record);
  EXPECT_EQ(matching.recordForIdentifier("com.example.other"), nullptr);
  EXPECT_EQ((*record)->infoDictionary(), layout.infoDictionary());
  const auto containers = (*record)->groupContainerUrls();
  ASSERT_EQ(containers.size(), 1u);
  EXPECT_EQ(containers.at("group.com.example").path(),
            tree.groupContainersDirectory() + "/group.com.example/");
  matching.removeRecord("com.example.docs");
  EXPECT_EQ(matching.recordForIdentifier("com.example.docs"), nullptr);
}

}  // namespace
}  // namespace daskel
