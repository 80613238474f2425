// DKExtensionProvider: the initialiser's deduction of the storage directory, the member-queue
// properties, and extension requests (begin, proxy, done block).
#include "provider/DKExtensionProvider.h"

#include <filesystem>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "provider/DKExtensionProviderTestSupport.h"

namespace daskel::provider_test {
namespace {

using platform::kLogDebug;
using platform::kLogError;

class DKExtensionProviderInitTest : public ::testing::Test {
 protected:
  // A provider for a bundle written from `layout`, its record known to the platform.
  std::shared_ptr<DKExtensionProvider> providerFor(const ProviderBundleLayout& layout) {
    auto record = tree_.writeBundle(layout);
    EXPECT_TRUE(record) << record.error()->description();
    if (record)
      matching_->setRecord(*record);
    extension_ = std::make_shared<FakeAppExtension>(layout.identifier);
    extension_->setDescription("<extension " + layout.identifier + ">");
    return DKExtensionProvider::initWithExtension(extension_,
                                                  DKProviderPlatform::live(matching_, nullptr));
  }

  std::size_t errorLines() const {
    std::size_t count = 0;
    for (const auto& line : log_->lines())
      count += line.level == kLogError;
    return count;
  }

  platform::CapturingLogSink::Scope log_;
  ProviderBundleTree tree_;
  std::shared_ptr<FakeAppExtensionMatching> matching_ =
      std::make_shared<FakeAppExtensionMatching>();
  std::shared_ptr<FakeAppExtension> extension_;
};

TEST_F(DKExtensionProviderInitTest,
       TheStorageDirectoryIsDaskelStorageInTheDocumentGroupsContainer) {
  ProviderBundleLayout layout;
  layout.identifier = "com.example.docs";
  layout.groups = {"group.com.example.cache", "group.com.example"};
  auto provider = providerFor(layout);

  const std::optional<Url> url = provider->providedItemsURL();
  ASSERT_TRUE(url);
  EXPECT_TRUE(url->isFileUrl());
  EXPECT_TRUE(url->hasDirectoryPath());
  EXPECT_EQ(url->path(), tree_.groupContainersDirectory() + "/group.com.example/Daskel Storage/");
  EXPECT_EQ(provider->_providedItemsURL(), url);
  // Deduced, not made: the extension's set-up creates it.
  EXPECT_FALSE(std::filesystem::exists(url->path()));
  EXPECT_EQ(errorLines(), 0u);

  EXPECT_EQ(provider->identifier(), "com.example.docs");
  EXPECT_EQ(provider->extension(), extension_);
  EXPECT_EQ(provider->operationQueue()->name(), "Operation queue for com.example.docs");
  EXPECT_EQ(provider->_providedItemsOperationQueue(), provider->operationQueue());
  EXPECT_EQ(provider->memberQueue()->label(),
            "DKExtensionProvider concurrent member queue for com.example.docs");
  EXPECT_EQ(provider->memberQueue()->kind(), platform::DispatchQueue::Kind::Concurrent);
}

TEST_F(DKExtensionProviderInitTest, EachRecordProblemLeavesNoStorageDirectoryAndOneErrorLine) {
  struct Case {
    const char* what;
    std::function<void(ProviderBundleLayout&)> change;
    std::string line;
  };
  const std::vector<Case> cases = {
      {"no document group", [](ProviderBundleLayout& layout) { layout.documentGroup = Value(); },
       "Cannot read OxExtensionDaskelDocumentGroup key from the Info.plist of "},
      {"a document group that is no string",
       [](ProviderBundleLayout& layout) { layout.documentGroup = Value(7); },
       "Cannot read OxExtensionDaskelDocumentGroup key from the Info.plist of "},
      {"a document group the bundle is not entitled to",
       [](ProviderBundleLayout& layout) { layout.documentGroup = Value("group.org.other"); },
       "Cannot deduce the provided items URL for "},
  };
  int index = 0;
  for (const Case& testCase : cases) {
    SCOPED_TRACE(testCase.what);
    log_->clear();
    ProviderBundleLayout layout;
    layout.identifier = "com.example.case" + std::to_string(index++);
    testCase.change(layout);
    auto provider = providerFor(layout);

    EXPECT_EQ(provider->providedItemsURL(), std::nullopt);
    EXPECT_EQ(log_->count(kLogError, testCase.line + "<extension " + layout.identifier + ">"), 1u);
    EXPECT_EQ(errorLines(), 1u);
    // The rest of the provider is there all the same.
    EXPECT_EQ(provider->identifier(), layout.identifier);
    EXPECT_NE(provider->operationQueue(), nullptr);
  }
}

TEST_F(DKExtensionProviderInitTest, AnExtensionWithoutPlugInRecordIsNamedByItsDescription) {
  extension_ = std::make_shared<FakeAppExtension>("com.example.unknown");
  extension_->setDescription("<extension unknown>");
  auto provider = DKExtensionProvider::initWithExtension(
      extension_, DKProviderPlatform::live(matching_, nullptr));

  EXPECT_EQ(provider->providedItemsURL(), std::nullopt);
  EXPECT_EQ(log_->count(kLogError, "Cannot instantiate a Lodestar proxy for <extension unknown>"),
            1u);
  EXPECT_EQ(errorLines(), 1u);
  EXPECT_EQ(provider->identifier(), "com.example.unknown");
}

TEST_F(DKExtensionProviderInitTest, AnInfoPlistWithoutAnOxExtensionDictionaryGivesNoDirectory) {
  // Bundles with such an Info.plist are refused before they become records; the deduction
  // still holds its own.
  auto extension = std::make_shared<FakeAppExtension>("com.example.bare");
  extension->setDescription("<bare>");
  const std::map<std::string, Url> containers{
      {"group.com.example", *Url::fileUrlWithPath("/containers/group.com.example", true)}};

  const Value missing(Value::Dictionary{{"BundleIdentifier", Value("com.example.bare")}});
  EXPECT_EQ(DKExtensionProvider::providedItemsURLFromInfo(missing, containers, *extension),
            std::nullopt);
  const Value notDictionary(Value::Dictionary{{"OxExtension", Value("group.com.example")}});
  EXPECT_EQ(DKExtensionProvider::providedItemsURLFromInfo(notDictionary, containers, *extension),
            std::nullopt);
  EXPECT_EQ(
      log_->count(kLogError, "Cannot read OxExtension dictionary from the Info.plist of <bare>"),
      2u);
  EXPECT_EQ(errorLines(), 2u);

  const Value good(Value::Dictionary{
      {"OxExtension",
       Value(Value::Dictionary{{"OxExtensionDaskelDocumentGroup", Value("group.com.example")}})}});
  EXPECT_EQ(DKExtensionProvider::providedItemsURLFromInfo(good, containers, *extension),
            Url::fileUrlWithPath("/containers/group.com.example/Daskel Storage", true));
}

TEST(DKExtensionProviderPropertiesTest, AGetterAfterASetterOnOneThreadSeesTheNewValue) {
  ProviderHarness harness;
  auto provider = harness.makeProvider();
  auto other = std::make_shared<FakeAppExtension>("com.example.other");
  const Url url = *Url::fileUrlWithPath("/elsewhere/Daskel Storage", true);

  for (int round = 0; round < 50; ++round) {
    provider->setIdentifier("renamed-" + std::to_string(round));
    EXPECT_EQ(provider->identifier(), "renamed-" + std::to_string(round));
  }
  provider->setProvidedItemsURL(url);
  EXPECT_EQ(provider->providedItemsURL(), url);
  provider->setProvidedItemsURL(std::nullopt);
  EXPECT_EQ(provider->providedItemsURL(), std::nullopt);
  provider->setExtension(other);
  EXPECT_EQ(provider->extension(), other);
}

TEST(DKExtensionProviderPropertiesTest, WithoutItsOwnIdentifierTheExtensionsIsReportedNotStored) {
  ProviderHarness harness("com.example.fallback");
  auto provider = harness.makeProvider();
  provider->setIdentifier(std::nullopt);

  EXPECT_EQ(provider->identifier(), "com.example.fallback");
  EXPECT_EQ(provider->_fileReactorID(), "com.example.fallback");
  std::optional<std::string> stored = "not read";
  provider->memberQueue()->sync([&] { stored = provider->memberQueueIdentifier(); });
  EXPECT_EQ(stored, std::nullopt);
}

TEST(DKExtensionProviderPropertiesTest, ReadersAndWritersOnManyThreadsSeeWholeValues) {
  ProviderHarness harness;
  auto provider = harness.makeProvider();
  const std::string a(64, 'a');
  const std::string b(64, 'b');
  std::atomic<bool> torn = false;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        if (t == 0) {
          provider->setIdentifier(i % 2 ? a : b);
          provider->setProvidedItemsURL(Url::fileUrlWithPath("/" + (i % 2 ? a : b), true));
        } else {
          const std::string id = provider->identifier();
          if (id != a && id != b && id != "com.example.provider")
            torn = true;
          (void)provider->providedItemsURL();
        }
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_FALSE(torn);
  EXPECT_EQ(provider->identifier(), a);  // the last write, i = 199
}

class DKExtensionProviderRequestTest : public ::testing::Test {
 protected:
  struct Call {
    ErrorPtr error;
    std::shared_ptr<platform::IpcRemoteProxy> proxy;
    DKExtensionProvider::DoneBlock done;
  };

  // Performs a request whose block records each call; `onCall` runs inside the block.
  std::shared_ptr<Inbox<Call>> perform(std::function<void(const Call&)> onCall = nullptr) {
    auto calls = std::make_shared<Inbox<Call>>();
    // Weakly: the inbox keeps the proxy, whose error handler keeps this block.
    provider_->performExtensionRequest([weakCalls = std::weak_ptr<Inbox<Call>>(calls), onCall](
                                           const ErrorPtr& error,
                                           const std::shared_ptr<platform::IpcRemoteProxy>& proxy,
                                           const DKExtensionProvider::DoneBlock& done) {
      Call call{error, proxy, done};
      if (onCall)
        onCall(call);
      if (auto calls = weakCalls.lock())
        calls->push(call);
    });
    return calls;
  }

  ProviderHarness harness_;
  std::shared_ptr<DKExtensionProvider> provider_ = harness_.makeProvider();
};

TEST_F(DKExtensionProviderRequestTest, ABeginFailureCallsTheBlockOnceWithThatErrorAndNoProxy) {
  const ErrorPtr beginError = testError("cannot start the extension");
  harness_.extension().scriptBegin({FakeAppExtension::BeginOutcome::fail(beginError)});

  auto calls = perform();
  ASSERT_TRUE(calls->waitForCount(1));
  ASSERT_TRUE(harness_.log().waitFor(
      "Extension request failed. Error: " + beginError->description(), kDeadline));
  EXPECT_EQ(calls->items().front().error, beginError);
  EXPECT_EQ(calls->items().front().proxy, nullptr);
  EXPECT_EQ(calls->size(), 1u);
  EXPECT_EQ(harness_.log().count(kLogDebug, "Beginning extension request."), 1u);
  EXPECT_EQ(harness_.log().count(kLogError,
                                 "Extension request failed. Error: " + beginError->description()),
            1u);
  // performExtensionRequest leaves ending the request to the block.
  EXPECT_TRUE(harness_.extension().cancelledRequests().empty());
}

TEST_F(DKExtensionProviderRequestTest, ARequestWithoutContextGivesProxyNotFoundForTheProvider) {
  harness_.extension().scriptBegin({FakeAppExtension::BeginOutcome::withoutContext()});

  auto calls = perform();
  ASSERT_TRUE(calls->waitForCount(1));
  const Call call = calls->items().front();
  ASSERT_NE(call.error, nullptr);
  EXPECT_EQ(call.error->code, static_cast<std::int64_t>(DKErrorCode::ProxyNotFound));
  EXPECT_EQ(call.error->userInfo.at(kDKProviderIdentifierKey), Value("com.example.provider"));
  EXPECT_FALSE(call.error->userInfo.contains(kDKUnderlyingErrorKey));
  EXPECT_EQ(call.proxy, nullptr);

  const std::string uuid = harness_.extension().begunRequests().at(0);
  const std::vector<platform::CapturingLogSink::Line> errors = {
      {kLogError, "Could not get extension context for request identifier " + uuid},
      {kLogError, "Could not get proxy object for a request."},
  };
  std::vector<platform::CapturingLogSink::Line> logged;
  for (const auto& line : harness_.log().lines()) {
    if (line.level == kLogError)
      logged.push_back(line);
  }
  EXPECT_EQ(logged, errors);
}

TEST_F(DKExtensionProviderRequestTest, TheDoneBlockEndsExactlyItsRequestOnTheCurrentExtension) {
  auto first = perform();
  auto second = perform();
  ASSERT_TRUE(first->waitForCount(1));
  ASSERT_TRUE(second->waitForCount(1));
  ASSERT_NE(first->items().front().proxy, nullptr);
  ASSERT_EQ(harness_.extension().openRequestCount(), 2u);

  // The proxy reaches the vendor on the request's own connection.
  auto echoed = std::make_shared<Inbox<Value::Array>>();
  first->items().front().proxy->call(DKVendorSelector::kStartProviding,
                                     {Value(harness_.itemURL("a"))},
                                     [echoed](Value::Array reply) { echoed->push(reply); });
  ASSERT_TRUE(echoed->waitForCount(1));

  const std::vector<std::string> begun = harness_.extension().begunRequests();
  second->items().front().done();
  ASSERT_EQ(harness_.extension().cancelledRequests().size(), 1u);
  const std::string ended = harness_.extension().cancelledRequests().front();
  EXPECT_EQ(harness_.extension().openRequestCount(), 1u);
  // Whichever UUID the second request got, the first one's stays open.
  EXPECT_NE(harness_.extension().contextForRequest(begun[0] == ended ? begun[1] : begun[0]),
            nullptr);
  EXPECT_EQ(harness_.extension().contextForRequest(ended), nullptr);

  // A done block asks the extension the provider has when it runs.
  auto replacement = std::make_shared<FakeAppExtension>("com.example.provider");
  provider_->setExtension(replacement);
  first->items().front().done();
  EXPECT_EQ(replacement->cancelledRequests().size(), 1u);
  EXPECT_NE(replacement->cancelledRequests().front(), ended);
  EXPECT_EQ(harness_.extension().cancelledRequests().size(), 1u);
  provider_->setExtension(harness_.sharedExtension());
}

TEST_F(DKExtensionProviderRequestTest, AConnectionLostAfterASendCallsTheBlockAgainWithItsError) {
  harness_.vendor().script(DKVendorSelector::kStartProviding, {ScriptedVendor::closeConnection()});
  auto replies = std::make_shared<Inbox<Value::Array>>();
  auto calls = perform([this, replies](const Call& call) {
    if (call.proxy) {
      call.proxy->call(DKVendorSelector::kStartProviding, {Value(harness_.itemURL("a"))},
                       [replies](Value::Array reply) { replies->push(reply); });
    }
  });

  ASSERT_TRUE(calls->waitForCount(2));
  ASSERT_TRUE(harness_.waitForRequestsToEnd());
  const std::vector<Call> seen = calls->items();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_NE(seen[0].proxy, nullptr);
  EXPECT_EQ(seen[0].error, nullptr);
  EXPECT_TRUE(isIpcError(seen[1].error, IpcErrorCode::ConnectionInterrupted));
  EXPECT_EQ(seen[1].proxy, nullptr);
  EXPECT_EQ(replies->size(), 0u);
  EXPECT_EQ(harness_.log().count(
                kLogError, "Error getting remote proxy object for provider extension. Error: " +
                               seen[1].error->description()),
            1u);
}

}  // namespace
}  // namespace daskel::provider_test
