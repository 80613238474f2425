#include "registry/DKExtensionProviderRegistry.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "access_control/DKAccessControl.h"
#include "platform/coordination/FileCoordinator.h"
#include "platform/dispatch/TestLatch.h"
#include "platform/log/CapturingLogSink.h"
#include "platform/testing/ManualScheduler.h"
#include "platform/value/Error.h"
#include "provider/testing/FakeAppExtension.h"
#include "provider/testing/FakeAppExtensionMatching.h"
#include "provider/testing/ProviderBundleTree.h"

namespace daskel {
namespace {

using namespace std::chrono_literals;
using platform::CapturingLogSink;
using platform::Url;
using platform::Value;
using Registry = DKExtensionProviderRegistry;

constexpr auto kDeadline = 20s;
constexpr char kUpdating[] = "Updating provider list.";
constexpr char kExcludedLine[] = "Ignoring URLs that exactly match the document container folder";

// A FakeAppExtension that also tells the test when a request begins, so a test can look at
// what had happened by then (which providers the coordinator knew, which lines were logged).
class ObservedExtension final : public platform::AppExtension {
 public:
  ObservedExtension(std::string identifier, std::string version)
      : fake_(std::make_shared<FakeAppExtension>(std::move(identifier))) {
    fake_->setVersion(std::move(version));
  }

  FakeAppExtension& fake() const { return *fake_; }
  void failAlways(platform::ErrorPtr error) {
    fake_->scriptBegin({FakeAppExtension::BeginOutcome::fail(std::move(error))});
  }
  void onBegin(std::function<void()> hook) {
    std::lock_guard lock(mutex_);
    onBegin_ = std::move(hook);
  }

  std::string identifier() const override { return fake_->identifier(); }
  std::string description() const override { return fake_->description(); }
  bool isEqual(const platform::AppExtension& other) const override {
    auto observed = dynamic_cast<const ObservedExtension*>(&other);
    return observed && fake_->isEqual(*observed->fake_);
  }
  void beginRequest(BeginRequestCompletion completion) override {
    std::function<void()> hook;
    {
      std::lock_guard lock(mutex_);
      hook = onBegin_;
    }
    if (hook) {
      hook();
    }
    fake_->beginRequest(std::move(completion));
  }
  void cancelRequest(const std::string& requestUuid) override { fake_->cancelRequest(requestUuid); }
  std::shared_ptr<platform::ExtensionContext> contextForRequest(
      const std::string& requestUuid) override {
    return fake_->contextForRequest(requestUuid);
  }

 private:
  const std::shared_ptr<FakeAppExtension> fake_;
  std::mutex mutex_;
  std::function<void()> onBegin_;
};

using ExtensionPtr = std::shared_ptr<ObservedExtension>;

class DKExtensionProviderRegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Registry::Environment environment;
    environment.matching = matching_;
    environment.providerPlatform.recordForIdentifier =
        [matching = matching_](const std::string& identifier) {
          return matching->recordForIdentifier(identifier);
        };
    environment.providerPlatform.fileCoordinator = &coordinator_;
    environment.providerPlatform.scheduler = &scheduler_;
    environment.makeProvider = [this](std::shared_ptr<platform::AppExtension> extension,
                                      DKProviderPlatform platform) {
      auto provider = DKExtensionProvider::initWithExtension(std::move(extension), platform);
      std::lock_guard lock(mutex_);
      made_.push_back(provider);
      return provider;
    };
    registry_ = std::make_unique<Registry>(std::move(environment));
  }

  void TearDown() override {
    for (const auto& extension : extensions_) {
      extension->fake().closeAllRequests();
    }
    registry_.reset();
  }

  // An extension with a bundle on disk (so its provider has a storage directory) unless
  // `withRecord` is false.
  ExtensionPtr extension(const std::string& identifier,
                         const std::string& version = "1.0",
                         bool withRecord = true) {
    if (withRecord) {
      ProviderBundleLayout layout;
      layout.identifier = identifier;
      layout.version = version;
      layout.documentGroup = Value("group." + identifier);
      layout.groups = {"group." + identifier};
      auto record = tree_.writeBundle(layout);
      EXPECT_TRUE(record.has_value()) << identifier;
      if (record) {
        matching_->setRecord(*record);
      }
    }
    auto made = std::make_shared<ObservedExtension>(identifier, version);
    extensions_.push_back(made);
    return made;
  }

  void report(const std::vector<ExtensionPtr>& extensions) {
    matching_->report({extensions.begin(), extensions.end()});
  }

  // Makes `extensions` the first report and starts the registry.
  void start(const std::vector<ExtensionPtr>& extensions) {
    report(extensions);
    registry_->createInstancesCompletion([this] { ++startupRuns_; });
  }

  // Waits for `condition`, stepping virtual time whenever a registration retry waits on it.
  bool waitUntil(const std::function<bool()>& condition, bool stepRetries = true) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) {
        return false;
      }
      if (stepRetries && scheduler_.pendingCount() > 0) {
        scheduler_.advance(DKExtensionProvider::kRegistrationRetryDelay);
      } else {
        std::this_thread::sleep_for(1ms);
      }
    }
    return true;
  }

  bool isRegistered(const std::shared_ptr<DKExtensionProvider>& provider) {
    provider->operationQueue()->waitUntilAllOperationsAreFinished();
    return coordinator_.isRegistered(*provider);
  }

  std::set<std::string> registeredIdentifiers() const {
    std::set<std::string> identifiers;
    for (const auto& provider : coordinator_.providers()) {
      identifiers.insert(provider->_fileReactorID());
    }
    return identifiers;
  }

  // Reports `current` plus a new extension and waits until that one is registered: every
  // refresh reported before has finished by then.
  void settle(std::vector<ExtensionPtr> current) {
    ExtensionPtr probe = extension("com.test.probe" + std::to_string(++probes_));
    current.push_back(probe);
    report(current);
    ASSERT_TRUE(waitUntil([&] {
      auto provider = registry_->providerWithIdentifier(probe->identifier());
      return provider && coordinator_.isRegistered(*provider);
    }));
  }

  std::size_t madeCount() {
    std::lock_guard lock(mutex_);
    return made_.size();
  }

  static std::string couldNotRegister(const ExtensionPtr& extension,
                                      const platform::ErrorPtr& error) {
    return "Could not register daskel " + extension->identifier() +
           ". Error: " + error->description();
  }

  std::ptrdiff_t indexOf(const std::string& message, std::size_t occurrence = 1) {
    auto messages = logs_->messages();
    std::size_t seen = 0;
    for (std::size_t i = 0; i < messages.size(); ++i) {
      if (messages[i] == message && ++seen == occurrence) {
        return static_cast<std::ptrdiff_t>(i);
      }
    }
    return -1;
  }

  CapturingLogSink::Scope logs_;
  ProviderBundleTree tree_;
  platform::ManualScheduler scheduler_;
  platform::FileCoordinator coordinator_;
  std::shared_ptr<FakeAppExtensionMatching> matching_ =
      std::make_shared<FakeAppExtensionMatching>();
  std::vector<ExtensionPtr> extensions_;
  std::mutex mutex_;
  std::vector<std::shared_ptr<DKExtensionProvider>> made_;
  std::atomic<int> startupRuns_{0};
  int probes_ = 0;
  std::unique_ptr<Registry> registry_;
};

// --- Start-up ---

TEST_F(DKExtensionProviderRegistryTest, EmptyFirstReportRunsStartupCompletionWithEmptyTable) {
  start({});
  ASSERT_TRUE(waitUntil([&] { return startupRuns_ == 1; }));
  EXPECT_EQ(matching_->matchedPoints(), std::vector<std::string>{"com.orvane.daskel-nonui"});
  EXPECT_EQ(logs_->count(platform::kLogInfo, kUpdating), 1u);
  EXPECT_EQ(madeCount(), 0u);
  EXPECT_EQ(registry_->providersInfo(), Value(Value::Dictionary{}));
}

TEST_F(DKExtensionProviderRegistryTest, MatchingErrorIsIgnoredAndTheListProcessed) {
  ExtensionPtr a = extension("com.test.a");
  matching_->report({a}, platform::makeError("test", 9, "matching hiccup"));
  registry_->createInstancesCompletion([this] { ++startupRuns_; });
  ASSERT_TRUE(waitUntil([&] { return startupRuns_ == 1; }));
  EXPECT_NE(registry_->providerWithIdentifier("com.test.a"), nullptr);
}

TEST_F(DKExtensionProviderRegistryTest, SecondCreateInstancesCompletesWhileFirstRefreshRegisters) {
  ExtensionPtr a = extension("com.test.a");
  a->failAlways(platform::makeError("test", 1, "refused"));
  start({a});
  // A's first try failed and its retry waits on the (stopped) clock.
  ASSERT_TRUE(waitUntil([&] { return scheduler_.pendingCount() == 1; }, false));

  platform::TestLatch second(1);
  registry_->createInstancesCompletion([&] { second.countDown(); });
  ASSERT_TRUE(second.waitFor());
  EXPECT_EQ(startupRuns_, 0);
  EXPECT_EQ(matching_->matchedPoints().size(), 1u);

  ASSERT_TRUE(waitUntil([&] { return startupRuns_ == 1; }));
  EXPECT_EQ(a->fake().beginCount(), 3u);
}

// --- Registration chain ---

TEST_F(DKExtensionProviderRegistryTest, RegistersOneAfterAnotherAndSkipsAFailure) {
  const auto refused = platform::makeError("test", 1, "refused");
  ExtensionPtr a = extension("com.test.a");
  ExtensionPtr b = extension("com.test.b");
  ExtensionPtr c = extension("com.test.c");
  b->failAlways(refused);

  std::mutex mutex;
  std::set<std::string> registeredAtFirstBBegin;
  std::set<std::string> registeredAtCBegin;
  bool bFailureLoggedAtCBegin = false;
  b->onBegin([&] {
    std::lock_guard lock(mutex);
    if (registeredAtFirstBBegin.empty()) {
      registeredAtFirstBBegin = registeredIdentifiers();
    }
  });
  c->onBegin([&] {
    std::lock_guard lock(mutex);
    registeredAtCBegin = registeredIdentifiers();
    bFailureLoggedAtCBegin = logs_->contains(couldNotRegister(b, refused));
  });

  start({a, b, c});
  ASSERT_TRUE(waitUntil([&] { return startupRuns_ == 1; }));

  std::lock_guard lock(mutex);
  EXPECT_EQ(registeredAtFirstBBegin, std::set<std::string>{"com.test.a"});
  EXPECT_EQ(registeredAtCBegin, std::set<std::string>{"com.test.a"});
  EXPECT_TRUE(bFailureLoggedAtCBegin);
  EXPECT_EQ(logs_->count(platform::kLogError, couldNotRegister(b, refused)), 1u);
  EXPECT_EQ(a->fake().beginCount(), 1u);
  EXPECT_EQ(b->fake().beginCount(), 3u);
  EXPECT_EQ(c->fake().beginCount(), 1u);
  EXPECT_EQ(registeredIdentifiers(), (std::set<std::string>{"com.test.a", "com.test.c"}));
  // A provider whose registration failed stays in the table.
  EXPECT_NE(registry_->providerWithIdentifier("com.test.b"), nullptr);
}

TEST_F(DKExtensionProviderRegistryTest, RegistrationChainAddsToTheGivenRegisteredProviders) {
  DKProviderPlatform platform;
  platform.recordForIdentifier = [matching = matching_](const std::string& identifier) {
    return matching->recordForIdentifier(identifier);
  };
  platform.fileCoordinator = &coordinator_;
  platform.scheduler = &scheduler_;
  const auto refused = platform::makeError("test", 2, "no");
  ExtensionPtr a = extension("com.test.a");
  ExtensionPtr b = extension("com.test.b");
  ExtensionPtr earlier = extension("com.test.earlier");
  b->failAlways(refused);
  auto pa = DKExtensionProvider::initWithExtension(a, platform);
  auto pb = DKExtensionProvider::initWithExtension(b, platform);
  auto pEarlier = DKExtensionProvider::initWithExtension(earlier, platform);

  std::mutex mutex;
  std::optional<Registry::ProviderMap> result;
  registry_->refreshOperationsQueueRegisterProviders(
      {pa, pb}, Registry::ProviderMap{{"com.test.earlier", pEarlier}},
      [&](const Registry::ProviderMap& registered) {
        std::lock_guard lock(mutex);
        result = registered;
      });
  ASSERT_TRUE(waitUntil([&] {
    std::lock_guard lock(mutex);
    return result.has_value();
  }));
  std::lock_guard lock(mutex);
  EXPECT_EQ(*result, (Registry::ProviderMap{{"com.test.a", pa}, {"com.test.earlier", pEarlier}}));
  EXPECT_EQ(logs_->count(couldNotRegister(b, refused)), 1u);
}

TEST_F(DKExtensionProviderRegistryTest, EmptyRegistrationChainCompletesOnTheGlobalQueue) {
  platform::TestLatch done(1);
  bool onGlobal = false;
  bool empty = false;
  registry_->refreshOperationsQueueRegisterProviders({}, [&](const Registry::ProviderMap& map) {
    onGlobal = platform::DispatchQueue::global()->isCurrent();
    empty = map.empty();
    done.countDown();
  });
  ASSERT_TRUE(done.waitFor());
  EXPECT_TRUE(onGlobal);
  EXPECT_TRUE(empty);
}

// --- Later reports ---

TEST_F(DKExtensionProviderRegistryTest, IdenticalReportCreatesWithdrawsAndRegistersNothing) {
  ExtensionPtr a = extension("com.test.a");
  ExtensionPtr b = extension("com.test.b");
  start({a, b});
  ASSERT_TRUE(waitUntil([&] { return startupRuns_ == 1; }));
  auto pa = registry_->providerWithIdentifier("com.test.a");
  auto pb = registry_->providerWithIdentifier("com.test.b");

  // New objects for the same records: kept because they compare equal.
  ExtensionPtr sameA = extension("com.test.a");
  ExtensionPtr sameB = extension("com.test.b");
  report({sameA, sameB});
  settle({sameA, sameB});

  EXPECT_EQ(logs_->count(kUpdating), 3u);
  EXPECT_EQ(madeCount(), 3u);  // a, b and the probe
  EXPECT_EQ(registry_->providerWithIdentifier("com.test.a"), pa);
  EXPECT_EQ(registry_->providerWithIdentifier("com.test.b"), pb);
  EXPECT_EQ(a->fake().beginCount() + sameA->fake().beginCount(), 1u);
  EXPECT_EQ(b->fake().beginCount() + sameB->fake().beginCount(), 1u);
  EXPECT_TRUE(isRegistered(pa));
  EXPECT_TRUE(isRegistered(pb));
}

TEST_F(DKExtensionProviderRegistryTest, ChangedRecordReplacesProviderAndWithdrawsTheOldOne) {
  ExtensionPtr a1 = extension("com.test.a", "1.0");
  start({a1});
  ASSERT_TRUE(waitUntil([&] { return startupRuns_ == 1; }));
  auto old = registry_->providerWithIdentifier("com.test.a");
  ASSERT_TRUE(isRegistered(old));

  ExtensionPtr a2 = extension("com.test.a", "2.0");
  report({a2});
  std::shared_ptr<DKExtensionProvider> replacement;
  ASSERT_TRUE(waitUntil([&] {
    replacement = registry_->providerWithIdentifier("com.test.a");
    return replacement != old && coordinator_.isRegistered(*replacement);
  }));
  EXPECT_EQ(replacement->extension(), a2);
  EXPECT_FALSE(isRegistered(old));
  EXPECT_EQ(a2->fake().beginCount(), 1u);
  EXPECT_EQ(madeCount(), 2u);
}

TEST_F(DKExtensionProviderRegistryTest, VanishedExtensionIsWithdrawnAndLeavesTheTable) {
  ExtensionPtr a = extension("com.test.a");
  ExtensionPtr b = extension("com.test.b");
  start({a, b});
  ASSERT_TRUE(waitUntil([&] { return startupRuns_ == 1; }));
  auto pa = registry_->providerWithIdentifier("com.test.a");
  auto pb = registry_->providerWithIdentifier("com.test.b");

  report({b});
  settle({b});
  EXPECT_EQ(registry_->providerWithIdentifier("com.test.a"), nullptr);
  EXPECT_FALSE(isRegistered(pa));
  EXPECT_EQ(registry_->providerWithIdentifier("com.test.b"), pb);
  EXPECT_TRUE(isRegistered(pb));
}

TEST_F(DKExtensionProviderRegistryTest, ExtensionWithoutIdentifierIsLoggedAndSkipped) {
  ExtensionPtr nameless = extension("", "1.0", false);
  nameless->fake().setDescription("nameless extension");
  ExtensionPtr a = extension("com.test.a");
  start({nameless, a});
  ASSERT_TRUE(waitUntil([&] { return startupRuns_ == 1; }));
  EXPECT_EQ(logs_->count(platform::kLogNotice,
                         "Daskel extension nameless extension has no identifier. Ignoring."),
            1u);
  EXPECT_EQ(madeCount(), 1u);
  EXPECT_EQ(nameless->fake().beginCount(), 0u);
  EXPECT_EQ(registry_->providersInfo().dictionary()->size(), 1u);
}

TEST_F(DKExtensionProviderRegistryTest, IdentifierListedTwiceRegistersBothAndKeepsTheLater) {
  ExtensionPtr first = extension("com.test.a", "1.0");
  ExtensionPtr later = extension("com.test.a", "2.0");
  start({first, later});
  ASSERT_TRUE(waitUntil([&] { return startupRuns_ == 1; }));
  EXPECT_EQ(first->fake().beginCount(), 1u);
  EXPECT_EQ(later->fake().beginCount(), 1u);
  EXPECT_EQ(registry_->providerWithIdentifier("com.test.a")->extension(), later);
}

TEST_F(DKExtensionProviderRegistryTest, SecondReportWaitsUntilFirstRegistrationsComplete) {
  const auto refused = platform::makeError("test", 1, "refused");
  ExtensionPtr a = extension("com.test.a");
  ExtensionPtr b = extension("com.test.b");
  a->failAlways(refused);
  start({a});
  ASSERT_TRUE(waitUntil([&] { return scheduler_.pendingCount() == 1; }, false));
  report({a, b});
  matching_->drain();
  EXPECT_EQ(logs_->count(kUpdating), 1u);

  ASSERT_TRUE(waitUntil([&] {
    auto pb = registry_->providerWithIdentifier("com.test.b");
    return startupRuns_ == 1 && pb && coordinator_.isRegistered(*pb);
  }));
  const auto failure = indexOf(couldNotRegister(a, refused));
  const auto secondUpdate = indexOf(kUpdating, 2);
  ASSERT_GE(failure, 0);
  EXPECT_GT(secondUpdate, failure);
  // A is kept as it was (its record did not change) and not tried again.
  EXPECT_EQ(a->fake().beginCount(), 3u);
}

// --- Look-ups ---

class DKExtensionProviderRegistryLookupTest : public DKExtensionProviderRegistryTest {
 protected:
  void startWith(const std::vector<ExtensionPtr>& extensions) {
    start(extensions);
    ASSERT_TRUE(waitUntil([&] { return startupRuns_ == 1; }));
    logs_->clear();
  }
  Url storageOf(const std::string& identifier) {
    return *registry_->providerWithIdentifier(identifier)->providedItemsURL();
  }
  // The look-ups' own lines (other components may still log about finished registrations).
  std::vector<CapturingLogSink::Line> lookUpLines() {
    std::vector<CapturingLogSink::Line> lines = logs_->lines();
    std::erase_if(lines, [](const CapturingLogSink::Line& line) {
      return line.message != kExcludedLine &&
             !line.message.starts_with("Cannot get the relationship between URL ");
    });
    return lines;
  }
};

TEST_F(DKExtensionProviderRegistryLookupTest, StorageDirectoryItselfIsExcluded) {
  startWith({extension("com.test.a"), extension("com.test.b")});
  bool excluded = false;
  EXPECT_EQ(registry_->providerForURL(storageOf("com.test.a"), &excluded), nullptr);
  EXPECT_TRUE(excluded);
  EXPECT_EQ(lookUpLines(),
            std::vector<CapturingLogSink::Line>({{platform::kLogInfo, kExcludedLine}}));
  EXPECT_EQ(registry_->providerForURL(storageOf("com.test.b")), nullptr);
}

TEST_F(DKExtensionProviderRegistryLookupTest, FileBelowStorageDirectoryBelongsToItsProvider) {
  startWith({extension("com.test.a"), extension("com.test.b")});
  const Url file = *storageOf("com.test.b")
                        .appendingPathComponent("one", true)
                        ->appendingPathComponent("two", true)
                        ->appendingPathComponent("file.txt", false);
  bool excluded = true;
  EXPECT_EQ(registry_->providerForURL(file, &excluded),
            registry_->providerWithIdentifier("com.test.b"));
  EXPECT_FALSE(excluded);
}

TEST_F(DKExtensionProviderRegistryLookupTest, OutsideEveryStorageDirectoryIsNobodysAndQuiet) {
  bool excluded = true;
  const Url outside = *Url::fileUrlWithPath(tree_.root() + "/elsewhere/file.txt", false);
  EXPECT_EQ(registry_->providerForURL(outside, &excluded), nullptr);
  EXPECT_FALSE(excluded);

  startWith({extension("com.test.a")});
  excluded = true;
  EXPECT_EQ(registry_->providerForURL(outside, &excluded), nullptr);
  EXPECT_FALSE(excluded);
  EXPECT_TRUE(lookUpLines().empty());
}

TEST_F(DKExtensionProviderRegistryLookupTest, FailedQueryIsLoggedAndTheSearchGoesOn) {
  // Sorted before com.test.b, so asked first; it has no bundle and so no storage directory.
  startWith({extension("com.test.a-nodir", "1.0", false), extension("com.test.b")});
  const Url file = *storageOf("com.test.b").appendingPathComponent("file.txt", false);
  EXPECT_EQ(registry_->providerForURL(file), registry_->providerWithIdentifier("com.test.b"));
  const std::string prefix = "Cannot get the relationship between URL DKExtensionProvider and " +
                             file.absoluteString() + ". Error: ";
  auto lines = lookUpLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, platform::kLogError);
  EXPECT_TRUE(lines[0].message.starts_with(prefix)) << lines[0].message;

  // A URL the file system cannot judge fails for every provider.
  logs_->clear();
  EXPECT_EQ(registry_->providerForURL(*Url::fromString("https://example.com/x")), nullptr);
  EXPECT_EQ(lookUpLines().size(), 2u);
}

TEST_F(DKExtensionProviderRegistryLookupTest, IdentifierLookUpAnswersOnlyKnownIdentifiers) {
  EXPECT_EQ(registry_->providerWithIdentifier("com.test.a"), nullptr);
  ExtensionPtr a = extension("com.test.a");
  startWith({a});
  auto found = registry_->providerWithIdentifier("com.test.a");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->extension(), a);
  EXPECT_EQ(registry_->providerWithIdentifier(std::nullopt), nullptr);
  EXPECT_EQ(registry_->providerWithIdentifier("com.test.unknown"), nullptr);
}

TEST_F(DKExtensionProviderRegistryLookupTest, ProvidersInfoDescribesEveryProvider) {
  EXPECT_EQ(registry_->providersInfo(), Value(Value::Dictionary{}));
  startWith({extension("com.test.a"), extension("com.test.b"),
             extension("com.test.c-nodir", "1.0", false)});
  auto record = [&](const std::string& identifier) {
    return Value(Value::Dictionary{{"documentStorageURL", Value(storageOf(identifier))},
                                   {"providerIdentifier", Value(identifier)}});
  };
  EXPECT_EQ(registry_->providersInfo(),
            Value(Value::Dictionary{{"com.test.a", record("com.test.a")},
                                    {"com.test.b", record("com.test.b")},
                                    {"com.test.c-nodir", Value(Value::Dictionary{})}}));
}

TEST_F(DKExtensionProviderRegistryLookupTest, AccessControlIsHeldWeakly) {
  class Anyone final : public DKAccessControl {
   public:
    bool isProviderWithIdentifier(std::optional<std::string_view>,
                                  std::optional<std::string_view>,
                                  std::optional<std::string_view>) override {
      return true;
    }
  };
  auto accessControl = std::make_shared<Anyone>();
  registry_->setDaskelAccessControl(accessControl);
  EXPECT_EQ(registry_->daskelAccessControl(), accessControl);
  accessControl.reset();
  EXPECT_EQ(registry_->daskelAccessControl(), nullptr);
}

// --- Concurrency ---

TEST_F(DKExtensionProviderRegistryTest, ReadersSeeWholeTablesWhileRefreshesRun) {
  ExtensionPtr a = extension("com.test.a");
  ExtensionPtr b = extension("com.test.b");
  ExtensionPtr c = extension("com.test.c");
  ExtensionPtr d = extension("com.test.d");
  start({a, b});
  ASSERT_TRUE(waitUntil([&] { return startupRuns_ == 1; }));
  const Url fileInA = *registry_->providerWithIdentifier("com.test.a")
                           ->providedItemsURL()
                           ->appendingPathComponent("file.txt", false);

  // The last refresh adds settle()'s probe.
  const std::set<std::set<std::string>> wholeTables = {
      {"com.test.a", "com.test.b"},
      {"com.test.c", "com.test.d"},
      {"com.test.a", "com.test.b", "com.test.probe1"}};
  std::atomic<bool> stop{false};
  std::atomic<int> reads{0};
  std::atomic<int> torn{0};
  auto reader = [&] {
    while (!stop) {
      std::set<std::string> keys;
      const Value info = registry_->providersInfo();
      for (const auto& [key, record] : *info.dictionary()) {
        keys.insert(key);
      }
      if (!wholeTables.contains(keys)) {
        ++torn;
      }
      auto owner = registry_->providerForURL(fileInA);
      if (owner && owner->identifier() != "com.test.a") {
        ++torn;
      }
      ++reads;
    }
  };
  std::thread first(reader);
  std::thread second(reader);
  for (int round = 0; round < 4; ++round) {
    report({c, d});
    report({a, b});
  }
  settle({a, b});
  stop = true;
  first.join();
  second.join();
  EXPECT_EQ(torn, 0);
  EXPECT_GT(reads, 0);
  EXPECT_EQ(logs_->count(kUpdating), 10u);
}

}  // namespace
}  // namespace daskel
