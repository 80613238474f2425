// DKExtensionProvider's answers to the file coordinator: provide-before-read (gated by the
// item-identifier look-up) and the notice of a finished write, routed to the provider that
// owns the URL.
#include <gtest/gtest.h>

#include "provider/DKExtensionProvider.h"
#include "provider/DKExtensionProviderTestSupport.h"

namespace daskel::provider_test {
namespace {

using platform::kLogDebug;
using platform::kLogError;
using platform::kLogInfo;
namespace S = DKVendorSelector;

// A DKProviderLookup with one fixed answer.
class FixedLookup final : public DKProviderLookup {
 public:
  std::shared_ptr<DKExtensionProvider> providerForURL(const Url& url, bool* outExcluded) override {
    asked.push(url);
    if (outExcluded && excluded)
      *outExcluded = true;
    return answer;
  }

  std::shared_ptr<DKExtensionProvider> answer;
  bool excluded = false;
  Inbox<Url> asked;
};

class DKExtensionProviderCoordinationTest : public ::testing::Test {
 protected:
  DKExtensionProviderCoordinationTest() {
    harness_.platform().providerLookup = &lookup_;
    provider_ = harness_.makeProvider();
  }

  std::shared_ptr<Inbox<ErrorPtr>> provide(const Value& reader) {
    auto completions = std::make_shared<Inbox<ErrorPtr>>();
    provider_->_provideItemAtURL(
        url_, reader, [completions](const ErrorPtr& error) { completions->push(error); });
    return completions;
  }

  FixedLookup lookup_;
  ProviderHarness harness_;
  std::shared_ptr<DKExtensionProvider> provider_;
  const Url url_ = harness_.itemURL("Letters/To Ann.txt");
  const std::string id_ = "com.example.provider";
};

TEST_F(DKExtensionProviderCoordinationTest, AReadOfANamedItemStartsProvidingIt) {
  auto completions = provide(Value("reader-7"));
  ASSERT_TRUE(completions->waitForCount(1));

  EXPECT_EQ(completions->items().front(), nullptr);
  const auto calls = harness_.vendor().calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].selector, S::kIdentifierForItem);
  EXPECT_EQ(calls[1].selector, S::kStartProviding);
  EXPECT_EQ(calls[1].arguments, Value::Array{Value(url_)});
  EXPECT_EQ(
      harness_.log().count(kLogInfo, "OxFileCoordinator requested us to provide item at URL " +
                                         url_.absoluteString() + " for consumer reader-7"),
      1u);
}

TEST_F(DKExtensionProviderCoordinationTest, AStartFailureReachesTheCoordinatorWrapped) {
  const ErrorPtr error = testError("disk full");
  harness_.vendor().script(S::kStartProviding, {ScriptedVendor::fail(S::kStartProviding, error)});
  auto completions = provide(Value("reader-7"));
  ASSERT_TRUE(completions->waitForCount(1));
  EXPECT_TRUE(isWrapping(completions->items().front(), error));
}

TEST_F(DKExtensionProviderCoordinationTest, TheDeprecatedFormLogsSoAndActsForANilReader) {
  auto completions = std::make_shared<Inbox<ErrorPtr>>();
  provider_->_provideItemAtURL(url_,
                               [completions](const ErrorPtr& error) { completions->push(error); });
  ASSERT_TRUE(completions->waitForCount(1));

  EXPECT_EQ(completions->items().front(), nullptr);
  const auto lines = bridgeLines(harness_.log());
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0],
            (platform::CapturingLogSink::Line{
                kLogError, "Calling deprecated method: _provideItemAtURL:completionHandler:"}));
  EXPECT_EQ(lines[1], (platform::CapturingLogSink::Line{
                          kLogInfo, "OxFileCoordinator requested us to provide item at URL " +
                                        url_.absoluteString() + " for consumer (null)"}));
  EXPECT_EQ(harness_.vendor().callCount(S::kStartProviding), 1u);
}

TEST_F(DKExtensionProviderCoordinationTest, AnItemTheExtensionCannotNameIsNeverStarted) {
  const ErrorPtr error = testError("unknown item");
  harness_.vendor().script(S::kIdentifierForItem,
                           {ScriptedVendor::fail(S::kIdentifierForItem, error)});
  auto completions = provide(Value("reader-9"));
  ASSERT_TRUE(completions->waitForCount(1));
  ASSERT_TRUE(harness_.waitForRequestsToEnd());

  const ErrorPtr received = completions->items().front();
  EXPECT_TRUE(isWrapping(received, error));
  // The look-up's error as it is, not wrapped a second time.
  EXPECT_EQ(underlyingError(underlyingError(received)), nullptr);
  EXPECT_EQ(harness_.vendor().callCount(S::kStartProviding), 0u);
  EXPECT_EQ(harness_.extension().beginCount(), 1u);
  EXPECT_EQ(
      harness_.log().count(kLogError, "Could not provide item at URL " + url_.absoluteString() +
                                          " from extension " + id_ +
                                          " to reader reader-9. Error: " + received->description()),
      1u);
}

TEST_F(DKExtensionProviderCoordinationTest, AWriteNoticeGoesToTheProviderThatOwnsTheURL) {
  ProviderHarness owner("com.example.owner");
  lookup_.answer = owner.makeProvider();

  provider_->_writerWithID(Value(1234), url_);
  ASSERT_TRUE(owner.vendor().waitForCallCount(S::kItemChanged, 1, kDeadline));
  ASSERT_TRUE(owner.extension().waitForCancelCount(1, kDeadline));

  EXPECT_EQ(owner.vendor().calls().front().arguments, Value::Array{Value(url_)});
  EXPECT_EQ(harness_.vendor().calls().size(), 0u);
  EXPECT_EQ(harness_.extension().beginCount(), 0u);
  EXPECT_EQ(lookup_.asked.items(), std::vector<Url>{url_});
  EXPECT_EQ(
      harness_.log().count(kLogInfo, "OxFileCoordinator is telling us the item at URL " +
                                         url_.absoluteString() + " was changed by writer ID 1234."),
      1u);
  EXPECT_EQ(harness_.log().count(kLogDebug, "The item at URL " + url_.absoluteString() +
                                                " is provided by the etxension com.example.owner"),
            1u);
}

TEST_F(DKExtensionProviderCoordinationTest, AWriteNoticeForAURLNobodyOwnsIsLogged) {
  provider_->_writerWithID(Value("writer"), url_);
  EXPECT_EQ(
      harness_.log().count(kLogError, "Could not find any extension that provides an item at URL " +
                                          url_.absoluteString()),
      1u);
  EXPECT_EQ(harness_.extension().beginCount(), 0u);

  // Without a look-up at all, every URL belongs to nobody.
  harness_.log().clear();
  harness_.platform().providerLookup = nullptr;
  auto lonely =
      DKExtensionProvider::initWithExtension(harness_.sharedExtension(), harness_.platform());
  lonely->_writerWithID(Value("writer"), url_);
  EXPECT_EQ(
      harness_.log().count(kLogError, "Could not find any extension that provides an item at URL " +
                                          url_.absoluteString()),
      1u);
}

TEST_F(DKExtensionProviderCoordinationTest, AWriteNoticeForAnExcludedURLLogsOnlyItsInfoLine) {
  lookup_.excluded = true;
  provider_->_writerWithID(Value("writer"), url_);
  const std::vector<platform::CapturingLogSink::Line> expected = {
      {kLogInfo, "OxFileCoordinator is telling us the item at URL " + url_.absoluteString() +
                     " was changed by writer ID writer."}};
  EXPECT_EQ(harness_.log().lines(), expected);
  EXPECT_EQ(harness_.extension().beginCount(), 0u);
}

}  // namespace
}  // namespace daskel::provider_test
