// DKExtensionProvider registration with the file coordinator: the initial set-up, the tries
// and their 2-second spacing (stepped on a manual scheduler), the completion on each path, and
// when the request's done block runs.
#include <gtest/gtest.h>

#include "provider/DKExtensionProvider.h"
#include "provider/DKExtensionProviderTestSupport.h"

namespace daskel::provider_test {
namespace {

using namespace std::chrono_literals;
using platform::kLogDebug;
using platform::kLogError;
using platform::kLogInfo;
using platform::kLogNotice;
using Begin = FakeAppExtension::BeginOutcome;

constexpr char kTryLine[] =
    "-[DKExtensionProvider registerWithFileCoordinatorRetryCount:completion:]";

class DKExtensionProviderRegistrationTest : public ::testing::Test {
 protected:
  struct Completed {
    ErrorPtr error;
    bool onOperationQueue;
    bool registeredWhenCalled;
  };

  std::shared_ptr<Inbox<Completed>> registerWithTries(std::int32_t tries) {
    auto completions = std::make_shared<Inbox<Completed>>();
    provider_->registerWithFileCoordinatorRetryCount(
        tries, [completions, provider = provider_, this](const ErrorPtr& error) {
          completions->push(Completed{error, provider->operationQueue()->isCurrent(),
                                      harness_.coordinator().isRegistered(*provider)});
        });
    return completions;
  }

  // Waits for the retry to be scheduled, then steps the clock by the retry delay.
  void stepToNextTry() {
    ASSERT_TRUE(eventually([&] { return harness_.scheduler().pendingCount() == 1; }));
    harness_.scheduler().advance(DKExtensionProvider::kRegistrationRetryDelay);
  }

  std::string registeredLine() {
    return "Registered daskel extension com.example.provider for path " +
           provider_->providedItemsURL()->absoluteString();
  }

  ProviderHarness harness_;
  std::shared_ptr<DKExtensionProvider> provider_ = harness_.makeProvider();
};

TEST_F(DKExtensionProviderRegistrationTest, ASuccessfulSetUpAddsTheProviderOnItsOperationQueue) {
  auto completions = registerWithTries(DKExtensionProvider::kRegistrationTries);

  ASSERT_TRUE(completions->waitForCount(1));
  const Completed completed = completions->items().front();
  EXPECT_EQ(completed.error, nullptr);
  EXPECT_TRUE(completed.onOperationQueue);
  EXPECT_TRUE(completed.registeredWhenCalled);
  EXPECT_EQ(harness_.log().count(kLogInfo, registeredLine()), 1u);
  EXPECT_EQ(harness_.log().count(kLogDebug, kTryLine), 1u);
  EXPECT_EQ(harness_.vendor().callCount(DKVendorSelector::kPerformInitialSetup), 1u);
  // The set-up request has ended.
  ASSERT_TRUE(harness_.extension().waitForCancelCount(1, kDeadline));
  EXPECT_EQ(harness_.extension().cancelledRequests(), harness_.extension().begunRequests());

  provider_->unregisterFromFileCoordinator();
  provider_->operationQueue()->waitUntilAllOperationsAreFinished();
  EXPECT_FALSE(harness_.coordinator().isRegistered(*provider_));
  EXPECT_TRUE(harness_.coordinator().providers().empty());
}

TEST_F(DKExtensionProviderRegistrationTest, TwoFailedSetUpsAreRetriedTwoSecondsApartUntilOneWorks) {
  const ErrorPtr first = testError("not yet", 1);
  const ErrorPtr second = testError("still not", 2);
  harness_.vendor().script(
      DKVendorSelector::kPerformInitialSetup,
      {ScriptedVendor::fail(DKVendorSelector::kPerformInitialSetup, first),
       ScriptedVendor::fail(DKVendorSelector::kPerformInitialSetup, second),
       ScriptedVendor::succeed(DKVendorSelector::kPerformInitialSetup, Value("ready"))});
  auto completions = registerWithTries(3);

  stepToNextTry();
  stepToNextTry();
  ASSERT_TRUE(completions->waitForCount(1));

  EXPECT_EQ(completions->items().front().error, nullptr);
  EXPECT_TRUE(completions->items().front().registeredWhenCalled);
  EXPECT_EQ(harness_.scheduler().now(), 4s);
  const std::vector<platform::CapturingLogSink::Line> expected = {
      {kLogDebug, kTryLine},
      {kLogDebug, "Beginning extension request."},
      {kLogError, "Daskel extension com.example.provider failed to initialize. Error: " +
                      first->description() + "."},
      {kLogNotice, "Trying to register daskel extension com.example.provider again. Tries left: 2"},
      {kLogDebug, kTryLine},
      {kLogDebug, "Beginning extension request."},
      {kLogError, "Daskel extension com.example.provider failed to initialize. Error: " +
                      second->description() + "."},
      {kLogNotice, "Trying to register daskel extension com.example.provider again. Tries left: 1"},
      {kLogDebug, kTryLine},
      {kLogDebug, "Beginning extension request."},
      {kLogInfo, registeredLine()},
  };
  EXPECT_EQ(bridgeLines(harness_.log()), expected);
  // Every try's request ended, the failed ones too.
  ASSERT_TRUE(harness_.extension().waitForCancelCount(3, kDeadline));
  EXPECT_EQ(harness_.extension().beginCount(), 3u);
  EXPECT_TRUE(harness_.coordinator().isRegistered(*provider_));
}

TEST_F(DKExtensionProviderRegistrationTest,
       ARequestThatNeverBeginsGivesUpWithTheThirdErrorUnwrapped) {
  const ErrorPtr errors[] = {testError("one", 1), testError("two", 2), testError("three", 3)};
  harness_.extension().scriptBegin(
      {Begin::fail(errors[0]), Begin::fail(errors[1]), Begin::fail(errors[2])});
  auto completions = registerWithTries(3);

  stepToNextTry();
  stepToNextTry();
  ASSERT_TRUE(completions->waitForCount(1));

  EXPECT_EQ(completions->items().front().error, errors[2]);
  EXPECT_FALSE(completions->items().front().registeredWhenCalled);
  for (const ErrorPtr& error : errors) {
    EXPECT_EQ(harness_.log().count(kLogError,
                                   "Error registering daskel extension "
                                   "com.example.provider: " +
                                       error->description() + "."),
              1u);
  }
  EXPECT_EQ(harness_.log().count(
                kLogNotice,
                "Trying to register daskel extension com.example.provider again. Tries left: 2"),
            1u);
  EXPECT_EQ(harness_.log().count(
                kLogNotice,
                "Trying to register daskel extension com.example.provider again. Tries left: 1"),
            1u);
  EXPECT_EQ(harness_.scheduler().pendingCount(), 0u);
  EXPECT_EQ(harness_.extension().beginCount(), 3u);
  // A request that failed to begin is not ended by the daemon.
  EXPECT_TRUE(harness_.extension().cancelledRequests().empty());
  EXPECT_TRUE(harness_.coordinator().providers().empty());
}

TEST_F(DKExtensionProviderRegistrationTest, OneTryFailsAtOnceWithoutNoticeOrRetry) {
  const ErrorPtr error = testError("set-up failed");
  harness_.vendor().script(DKVendorSelector::kPerformInitialSetup,
                           {ScriptedVendor::fail(DKVendorSelector::kPerformInitialSetup, error)});
  auto completions = std::make_shared<Inbox<ErrorPtr>>();
  provider_->registerWithFileCoordinatorCompletion(
      [completions](const ErrorPtr& error) { completions->push(error); });

  ASSERT_TRUE(completions->waitForCount(1));
  // The extension's own error, as it came over the connection, not wrapped.
  ASSERT_NE(completions->items().front(), nullptr);
  EXPECT_EQ(*completions->items().front(), *error);
  EXPECT_EQ(harness_.scheduler().pendingCount(), 0u);
  for (const auto& line : harness_.log().lines())
    EXPECT_NE(line.level, kLogNotice) << line.message;
  // A set-up failure ends its request.
  ASSERT_TRUE(harness_.extension().waitForCancelCount(1, kDeadline));
  EXPECT_EQ(harness_.extension().cancelledRequests(), harness_.extension().begunRequests());
}

TEST_F(DKExtensionProviderRegistrationTest, ANegativeCountMakesOneTry) {
  harness_.extension().scriptBegin({Begin::fail(testError("no"))});
  auto completions = registerWithTries(-4);
  ASSERT_TRUE(completions->waitForCount(1));
  EXPECT_NE(completions->items().front().error, nullptr);
  EXPECT_EQ(harness_.extension().beginCount(), 1u);
  EXPECT_EQ(harness_.scheduler().pendingCount(), 0u);
}

TEST_F(DKExtensionProviderRegistrationTest, NoTriesCompletesOnTheGlobalQueueWithoutAsking) {
  auto completions = std::make_shared<Inbox<std::pair<ErrorPtr, bool>>>();
  provider_->registerWithFileCoordinatorRetryCount(0, [completions](const ErrorPtr& error) {
    completions->push({error, platform::DispatchQueue::global()->isCurrent()});
  });
  ASSERT_TRUE(completions->waitForCount(1));
  // DKPluginOperationFailedError(nil) is nil.
  EXPECT_EQ(completions->items().front().first, nullptr);
  EXPECT_TRUE(completions->items().front().second);
  EXPECT_EQ(harness_.extension().beginCount(), 0u);
  EXPECT_TRUE(harness_.log().lines().empty());
  // An empty completion is allowed too.
  provider_->registerWithFileCoordinatorRetryCount(0, nullptr);
}

TEST_F(DKExtensionProviderRegistrationTest, AConnectionLostDuringSetUpCountsAsAFailedTry) {
  harness_.vendor().script(DKVendorSelector::kPerformInitialSetup,
                           {ScriptedVendor::closeConnection(),
                            ScriptedVendor::succeed(DKVendorSelector::kPerformInitialSetup)});
  auto completions = registerWithTries(2);

  stepToNextTry();
  ASSERT_TRUE(completions->waitForCount(1));
  EXPECT_EQ(completions->items().front().error, nullptr);
  EXPECT_EQ(harness_.log().count(
                kLogNotice,
                "Trying to register daskel extension com.example.provider again. Tries left: 1"),
            1u);
  std::size_t registeringErrors = 0;
  for (const auto& line : harness_.log().lines()) {
    registeringErrors += line.level == kLogError && line.message.starts_with(
                                                        "Error registering daskel extension "
                                                        "com.example.provider: Error Domain=" +
                                                        std::string(kIpcErrorDomain));
  }
  EXPECT_EQ(registeringErrors, 1u);
}

TEST_F(DKExtensionProviderRegistrationTest, AnEmptyCompletionIsAllowedOnEveryPath) {
  provider_->registerWithFileCoordinatorRetryCount(1, nullptr);
  ASSERT_TRUE(harness_.log().waitFor(registeredLine(), kDeadline));

  harness_.extension().scriptBegin({Begin::fail(testError("no"))});
  provider_->registerWithFileCoordinatorRetryCount(2, nullptr);
  stepToNextTry();
  ASSERT_TRUE(eventually([&] { return harness_.extension().beginCount() == 3; }));
  ASSERT_TRUE(harness_.log().waitFor(
      [](const auto& lines) {
        std::size_t failures = 0;
        for (const auto& line : lines)
          failures += line.message.starts_with("Error registering daskel extension");
        return failures == 2;
      },
      std::chrono::steady_clock::now() + kDeadline));
}

}  // namespace
}  // namespace daskel::provider_test
