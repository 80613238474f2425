// DKExtensionProvider's forwarded item operations: what the extension is sent, what the caller
// receives and what is logged on success, on an error reply, on a request that fails, and on
// a connection lost mid-request; and when each request is ended.
#include <gtest/gtest.h>

#include "provider/DKExtensionProvider.h"
#include "provider/DKExtensionProviderTestSupport.h"

namespace daskel::provider_test {
namespace {

using platform::kLogDebug;
using platform::kLogError;
using Begin = FakeAppExtension::BeginOutcome;
namespace S = DKVendorSelector;

constexpr char kItemID[] = "folder/item-17";

// One of the five operations with a completion, described so that one test can run them all.
struct Operation {
  const char* name;
  const char* selector;
  // Calls the operation with `url` (or the item identifier); the completion pushes into
  // `outcomes` (or, when null, the completion is empty).
  std::function<void(DKExtensionProvider&, const Url&, std::shared_ptr<Inbox<Outcome>>)> call;
  // The argument the extension receives.
  std::function<Value(const Url&)> argument;
  // The value the extension answers on success, and what the caller then gets.
  std::function<Value(const Url&)> result;
  bool callerGetsResult;
  // The three lines, given (subject, provider identifier, error text or result text).
  std::function<std::string(const std::string&, const std::string&)> requestFailed;
  std::function<std::string(const std::string&, const std::string&)> replyFailed;
  std::function<std::string(const std::string&, const std::string&)> succeeded;
  // The subject of the lines: the URL or the item identifier.
  bool subjectIsItemID;
};

DKExtensionProvider::ErrorCompletion errorCompletion(std::shared_ptr<Inbox<Outcome>> outcomes) {
  if (!outcomes)
    return nullptr;
  return [outcomes](const ErrorPtr& error) { outcomes->push({error, Value()}); };
}

DKExtensionProvider::ItemIDCompletion valueCompletion(std::shared_ptr<Inbox<Outcome>> outcomes) {
  if (!outcomes)
    return nullptr;
  return [outcomes](const ErrorPtr& error, const Value& value) { outcomes->push({error, value}); };
}

std::vector<Operation> operations() {
  const auto url = [](const Url& url) { return Value(url); };
  const auto nothing = [](const Url&) { return Value(); };
  const auto placeholder = [](const Url& url) {
    return Value(*url.appendingPathComponent(".placeholder", false));
  };
  return {
      {"providePlaceholderForItemAtURL", S::kProvidePlaceholder,
       [](DKExtensionProvider& p, const Url& u, auto o) {
         p.providePlaceholderForItemAtURL(u, errorCompletion(o));
       },
       url, placeholder, false,
       [](const std::string& s, const std::string& id) {
         return "Cannot provide placeholder for item at URL " + s + " for extension " + id +
                ". Error: ";
       },
       [](const std::string& s, const std::string& id) {
         return "Proxy failed to provide placeholder at URL " + s + " for extension " + id +
                ". Error: ";
       },
       [](const std::string& s, const std::string& id) {
         return "Successfully provided placeholder at URL " + s + " for extension " + id + ".";
       },
       false},
      {"startProvidingItemAtURL", S::kStartProviding,
       [](DKExtensionProvider& p, const Url& u, auto o) {
         p.startProvidingItemAtURL(u, errorCompletion(o));
       },
       url, nothing, false,
       [](const std::string& s, const std::string& id) {
         return "Cannot provide item at URL " + s + " for extension " + id + ". Error: ";
       },
       [](const std::string& s, const std::string& id) {
         return "Proxy failed to start providing item at URL " + s + " for extension " + id +
                ". Error: ";
       },
       [](const std::string& s, const std::string& id) {
         return "Successfully provided item at URL " + s + " for extension " + id + ".";
       },
       false},
      {"stopProvidingItemAtURL", S::kStopProviding,
       [](DKExtensionProvider& p, const Url& u, auto o) {
         p.stopProvidingItemAtURL(u, errorCompletion(o));
       },
       url, nothing, false,
       [](const std::string& s, const std::string& id) {
         return "Cannot stop providing item at URL " + s + " for extension " + id + ". Error: ";
       },
       [](const std::string& s, const std::string& id) {
         return "Proxy failed to stop providing item at URL " + s + " for extension " + id +
                ". Error: ";
       },
       [](const std::string& s, const std::string& id) {
         return "Successfully stopped providing item at URL " + s + " for extension " + id + ".";
       },
       false},
      {"itemIDForURL", S::kIdentifierForItem,
       [](DKExtensionProvider& p, const Url& u, auto o) { p.itemIDForURL(u, valueCompletion(o)); },
       url, [](const Url&) { return Value(kItemID); }, true,
       [](const std::string& s, const std::string& id) {
         return "Cannot get item ID for URL " + s + " for extension " + id + ". Error: ";
       },
       [](const std::string& s, const std::string& id) {
         return "Proxy failed to get item ID for URL " + s + " for extension " + id + ". Error: ";
       },
       [](const std::string& s, const std::string& id) {
         return std::string("Successfully got item ID ") + kItemID + " for URL " + s +
                " from extension " + id;
       },
       false},
      {"URLForItemID", S::kURLForItemIdentifier,
       [](DKExtensionProvider& p, const Url&, auto o) {
         p.URLForItemID(kItemID, valueCompletion(o));
       },
       [](const Url&) { return Value(kItemID); }, url, true,
       [](const std::string& s, const std::string& id) {
         return "Cannot get URL for item ID " + s + " for extension " + id + ". Error: ";
       },
       [](const std::string& s, const std::string& id) {
         return "Proxy failed to get URL for item ID " + s + " for extension " + id + ". Error: ";
       },
       // The URL is filled in by the test: it is the reply's.
       [](const std::string& s, const std::string& id) {
         return " for item ID " + s + " from extension " + id;
       },
       true},
  };
}

class DKExtensionProviderItemOperationsTest : public ::testing::Test {
 protected:
  std::string subject(const Operation& operation) const {
    return operation.subjectIsItemID ? std::string(kItemID) : url_.absoluteString();
  }

  ProviderHarness harness_;
  std::shared_ptr<DKExtensionProvider> provider_ = harness_.makeProvider();
  const Url url_ = harness_.itemURL("Reports/2024 Q1.numbers");
  const std::string id_ = "com.example.provider";
};

TEST_F(DKExtensionProviderItemOperationsTest, ASuccessfulReplyReachesTheCallerAndEndsTheRequest) {
  for (const Operation& operation : operations()) {
    SCOPED_TRACE(operation.name);
    harness_.log().clear();
    const Value result = operation.result(url_);
    harness_.vendor().script(operation.selector,
                             {ScriptedVendor::succeed(operation.selector, result)});
    const std::size_t cancelled = harness_.extension().cancelledRequests().size();
    auto outcomes = std::make_shared<Inbox<Outcome>>();

    operation.call(*provider_, url_, outcomes);
    ASSERT_TRUE(outcomes->waitForCount(1));
    ASSERT_TRUE(harness_.extension().waitForCancelCount(cancelled + 1, kDeadline));

    EXPECT_EQ(outcomes->items().front().error, nullptr);
    EXPECT_EQ(outcomes->items().front().value, operation.callerGetsResult ? result : Value());
    const auto calls = harness_.vendor().calls();
    EXPECT_EQ(calls.back().selector, operation.selector);
    EXPECT_EQ(calls.back().arguments, Value::Array{operation.argument(url_)});
    // The request that ended is the one that carried the message.
    EXPECT_EQ(harness_.extension().cancelledRequests().back(),
              harness_.extension().begunRequests().back());
    std::string success = operation.succeeded(subject(operation), id_);
    if (operation.selector == std::string(S::kURLForItemIdentifier))
      success = "Successfully retrieved URL " + result.description() + success;
    EXPECT_EQ(harness_.log().count(kLogDebug, success), 1u);
    EXPECT_EQ(harness_.log().count(kLogDebug, std::string("-[DKExtensionProvider ") +
                                                  operation.name + ":completionHandler:]"),
              1u);
    EXPECT_EQ(outcomes->size(), 1u);
  }
}

TEST_F(DKExtensionProviderItemOperationsTest,
       AnErrorReplyReachesTheCallerWrappedAndEndsTheRequest) {
  for (const Operation& operation : operations()) {
    SCOPED_TRACE(operation.name);
    harness_.log().clear();
    const ErrorPtr error = testError(std::string(operation.name) + " went wrong");
    harness_.vendor().script(operation.selector, {ScriptedVendor::fail(operation.selector, error)});
    const std::size_t cancelled = harness_.extension().cancelledRequests().size();
    auto outcomes = std::make_shared<Inbox<Outcome>>();

    operation.call(*provider_, url_, outcomes);
    ASSERT_TRUE(outcomes->waitForCount(1));
    ASSERT_TRUE(harness_.extension().waitForCancelCount(cancelled + 1, kDeadline));

    EXPECT_TRUE(isWrapping(outcomes->items().front().error, error));
    EXPECT_EQ(outcomes->items().front().value, Value());
    EXPECT_EQ(harness_.log().count(
                  kLogError, operation.replyFailed(subject(operation), id_) + error->description()),
              1u);
    EXPECT_EQ(outcomes->size(), 1u);
  }
}

TEST_F(DKExtensionProviderItemOperationsTest, ARequestThatCannotBeginFailsWithoutEndingIt) {
  for (const Operation& operation : operations()) {
    SCOPED_TRACE(operation.name);
    harness_.log().clear();
    const ErrorPtr error = testError("the extension cannot start");
    harness_.extension().scriptBegin({Begin::fail(error)});
    auto outcomes = std::make_shared<Inbox<Outcome>>();

    operation.call(*provider_, url_, outcomes);
    ASSERT_TRUE(outcomes->waitForCount(1));

    EXPECT_TRUE(isWrapping(outcomes->items().front().error, error));
    EXPECT_EQ(outcomes->items().front().value, Value());
    EXPECT_EQ(harness_.log().count(kLogError, operation.requestFailed(subject(operation), id_) +
                                                  error->description()),
              1u);
    EXPECT_TRUE(harness_.extension().cancelledRequests().empty());
    EXPECT_EQ(harness_.vendor().calls().size(), 0u);
  }
}

TEST_F(DKExtensionProviderItemOperationsTest,
       AMissingContextReachesTheCallerAsWrappedProxyNotFound) {
  harness_.extension().scriptBegin({Begin::withoutContext()});
  auto outcomes = std::make_shared<Inbox<Outcome>>();
  provider_->URLForItemID(kItemID, valueCompletion(outcomes));
  ASSERT_TRUE(outcomes->waitForCount(1));

  const ErrorPtr proxyNotFound = underlyingError(outcomes->items().front().error);
  ASSERT_NE(proxyNotFound, nullptr);
  EXPECT_EQ(proxyNotFound->code, static_cast<std::int64_t>(DKErrorCode::ProxyNotFound));
  EXPECT_EQ(harness_.log().count(kLogError, std::string("Cannot get URL for item ID ") + kItemID +
                                                " for extension " + id_ +
                                                ". Error: " + proxyNotFound->description()),
            1u);
}

TEST_F(DKExtensionProviderItemOperationsTest, AConnectionLostMidRequestCompletesOnceWithItsError) {
  for (const Operation& operation : operations()) {
    SCOPED_TRACE(operation.name);
    harness_.log().clear();
    harness_.vendor().script(operation.selector, {ScriptedVendor::closeConnection()});
    auto outcomes = std::make_shared<Inbox<Outcome>>();

    operation.call(*provider_, url_, outcomes);
    ASSERT_TRUE(outcomes->waitForCount(1));
    // Once the connection's handlers have all run, nothing else can call the completion.
    ASSERT_TRUE(harness_.waitForRequestsToEnd());

    EXPECT_EQ(outcomes->size(), 1u);
    const ErrorPtr lost = underlyingError(outcomes->items().front().error);
    EXPECT_TRUE(isIpcError(lost, IpcErrorCode::ConnectionInterrupted));
    ASSERT_NE(lost, nullptr);
    EXPECT_EQ(harness_.log().count(kLogError, operation.requestFailed(subject(operation), id_) +
                                                  lost->description()),
              1u);
  }
}

TEST_F(DKExtensionProviderItemOperationsTest, AnEmptyCompletionIsAllowed) {
  for (const Operation& operation : operations()) {
    SCOPED_TRACE(operation.name);
    harness_.log().clear();
    const std::size_t cancelled = harness_.extension().cancelledRequests().size();
    operation.call(*provider_, url_, nullptr);
    ASSERT_TRUE(harness_.extension().waitForCancelCount(cancelled + 1, kDeadline));
  }
  const ErrorPtr error = testError("no");
  harness_.extension().scriptBegin({Begin::fail(error)});
  for (const Operation& operation : operations())
    operation.call(*provider_, url_, nullptr);
  for (const Operation& operation : operations()) {
    EXPECT_TRUE(harness_.log().waitFor(
        operation.requestFailed(subject(operation), id_) + error->description(), kDeadline));
  }
}

TEST_F(DKExtensionProviderItemOperationsTest, APlaceholderReplyURLIsNotPassedOn) {
  harness_.vendor().script(
      S::kProvidePlaceholder,
      {ScriptedVendor::reply({Value(harness_.itemURL(".elsewhere")), Value()})});
  auto outcomes = std::make_shared<Inbox<Outcome>>();
  provider_->providePlaceholderForItemAtURL(url_, errorCompletion(outcomes));
  ASSERT_TRUE(outcomes->waitForCount(1));
  EXPECT_EQ(outcomes->items().front().error, nullptr);
  EXPECT_EQ(outcomes->items().front().value, Value());
}

TEST_F(DKExtensionProviderItemOperationsTest,
       AnItemIDReplyWithNeitherErrorNorIDGivesNilAndSaysNull) {
  harness_.vendor().script(S::kIdentifierForItem, {ScriptedVendor::reply({Value(), Value()})});
  auto outcomes = std::make_shared<Inbox<Outcome>>();
  provider_->itemIDForURL(url_, valueCompletion(outcomes));
  ASSERT_TRUE(outcomes->waitForCount(1));

  EXPECT_EQ(outcomes->items().front().error, nullptr);
  EXPECT_TRUE(outcomes->items().front().value.isNull());
  EXPECT_EQ(harness_.log().count(kLogDebug, "Successfully got item ID (null) for URL " +
                                                url_.absoluteString() + " from extension " + id_),
            1u);
}

TEST_F(DKExtensionProviderItemOperationsTest, OperationsForOneItemMayRunAtTheSameTime) {
  // Every placeholder request waits unanswered until all have arrived: a provider that
  // serialised them would never get there.
  constexpr std::size_t kCalls = 6;
  harness_.vendor().script(S::kProvidePlaceholder, {ScriptedVendor::neverAnswer()});
  auto outcomes = std::make_shared<Inbox<Outcome>>();
  for (std::size_t i = 0; i < kCalls; ++i)
    provider_->providePlaceholderForItemAtURL(url_, errorCompletion(outcomes));
  ASSERT_TRUE(harness_.vendor().waitForCallCount(S::kProvidePlaceholder, kCalls, kDeadline));
  EXPECT_EQ(harness_.extension().openRequestCount(), kCalls);

  // Closing them fails each caller once, with its own connection's error.
  harness_.extension().closeAllRequests();
  ASSERT_TRUE(outcomes->waitForCount(kCalls));
  ASSERT_TRUE(harness_.waitForRequestsToEnd());
  EXPECT_EQ(outcomes->size(), kCalls);
  for (const Outcome& outcome : outcomes->items())
    EXPECT_TRUE(isIpcError(underlyingError(outcome.error), IpcErrorCode::ConnectionInvalid));
}

class DKExtensionProviderItemChangedTest : public DKExtensionProviderItemOperationsTest {
 protected:
  // Sends the notice and waits until its request is over; returns how often it was ended.
  std::size_t noticeAndCountEnds() {
    harness_.log().clear();
    const std::size_t before = harness_.extension().cancelledRequests().size();
    provider_->itemChangedAtURL(url_);
    EXPECT_TRUE(harness_.extension().waitForCancelCount(before + 1, kDeadline));
    EXPECT_TRUE(harness_.waitForRequestsToEnd());
    return harness_.extension().cancelledRequests().size() - before;
  }
};

TEST_F(DKExtensionProviderItemChangedTest, TheRequestIsEndedExactlyOnceOnEveryPath) {
  // Answered without error: no success line.
  EXPECT_EQ(noticeAndCountEnds(), 1u);
  EXPECT_EQ(harness_.vendor().calls().back().arguments, Value::Array{Value(url_)});
  for (const auto& line : bridgeLines(harness_.log()))
    EXPECT_EQ(line.level, kLogDebug) << line.message;

  const ErrorPtr replyError = testError("cannot note the change");
  harness_.vendor().script(S::kItemChanged, {ScriptedVendor::fail(S::kItemChanged, replyError)});
  EXPECT_EQ(noticeAndCountEnds(), 1u);
  EXPECT_EQ(
      harness_.log().count(kLogError, "Could not tell extension " + id_ + " that item at URL " +
                                          url_.absoluteString() +
                                          " has changed. Error: " + replyError->description()),
      1u);

  const std::string failedLine = "Cannot tell extension " + id_ + " that item at URL " +
                                 url_.absoluteString() + " has changed.";
  harness_.vendor().script(S::kItemChanged, {ScriptedVendor::closeConnection()});
  EXPECT_EQ(noticeAndCountEnds(), 1u);
  EXPECT_EQ(harness_.log().count(kLogError, failedLine), 1u);

  // A request that never began is ended too (its empty UUID is the extension's to ignore).
  harness_.extension().scriptBegin({Begin::fail(testError("cannot start"))});
  EXPECT_EQ(noticeAndCountEnds(), 1u);
  EXPECT_EQ(harness_.log().count(kLogError, failedLine), 1u);
  EXPECT_EQ(harness_.log().count(kLogDebug, "-[DKExtensionProvider itemChangedAtURL:]"), 1u);
}

}  // namespace
}  // namespace daskel::provider_test
