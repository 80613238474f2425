// Drives a DKIpcServicer through a real connection pair: the servicer is exported on one end
// of a socketpair, the test calls it through a DKDaemon proxy on the other. Entitlements come
// from a settable resolver, providers are real DKExtensionProviders on fake extensions whose
// vendor objects are scripted, the access-control store is a real one on a temporary file,
// and tokens come from the real issuer on a temporary key.
#include "service/DKIpcServicer.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <thread>

#include "access_control/DKAccessControlStore.h"
#include "daemon/protocol/DKDaemon.h"
#include "platform/errors/DKErrors.h"
#include "platform/ipc/IpcTestSupport.h"
#include "platform/log/CapturingLogSink.h"
#include "platform/sandbox/KeyFileSandboxTokenIssuer.h"
#include "platform/sandbox/SandboxToken.h"
#include "platform/testing/FakeNotifyCenter.h"
#include "provider/DKExtensionProvider.h"
#include "provider/protocol/DKVendorProtocol.h"
#include "provider/testing/FakeAppExtension.h"
#include "provider/testing/ScriptedVendor.h"

namespace daskel {
namespace {

using platform::AuditToken;
using platform::CapturingLogSink;
using platform::ErrorPtr;
using platform::IpcConnection;
using platform::Url;
using platform::Value;
using platform::testing::Inbox;
using platform::testing::kIpcTestDeadline;
namespace S = DKDaemonSelector;
namespace V = DKVendorSelector;

constexpr char kRejectReadOrWrite[] =
    "because it does not have any of these entitlements: (\n"
    "    com.orvane.daskel.acl-read,\n"
    "    com.orvane.daskel.acl-write\n"
    ")";
constexpr char kRejectWrite[] =
    "because it does not have any of these entitlements: (\n"
    "    com.orvane.daskel.acl-write\n"
    ")";

std::string rejectionLine(pid_t pid, const char* keys) {
  return "Rejecting request from PID " + std::to_string(pid) + " " + keys;
}

// Entitlements of the peer, settable by the test; records every key asked for.
class FakeEntitlements final : public platform::IpcIdentityResolver {
 public:
  void set(const std::string& key, Value value) {
    std::lock_guard lock(mutex_);
    values_[key] = std::move(value);
  }
  Value valueForEntitlement(const AuditToken&, std::string_view key) const override {
    std::lock_guard lock(mutex_);
    lookups_.emplace_back(key);
    const auto found = values_.find(key);
    return found == values_.end() ? Value() : found->second;
  }
  std::vector<std::string> takeLookups() {
    std::lock_guard lock(mutex_);
    return std::exchange(lookups_, {});
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, Value, std::less<>> values_;
  mutable std::vector<std::string> lookups_;
};

// The reply queue: a real concurrent queue that counts what is submitted to it.
class CountingQueue final : public platform::DispatchQueue {
 public:
  CountingQueue() : inner_(DispatchQueue::createConcurrent("servicer test reply queue")) {}
  const std::string& label() const override { return inner_->label(); }
  Kind kind() const override { return inner_->kind(); }
  void async(platform::DispatchBlock block) override {
    ++submissions_;
    inner_->async(std::move(block));
  }
  void barrierAsync(platform::DispatchBlock block) override {
    ++submissions_;
    inner_->barrierAsync(std::move(block));
  }
  void sync(std::function<void()> block) override { inner_->sync(std::move(block)); }
  void barrierSync(std::function<void()> block) override { inner_->barrierSync(std::move(block)); }
  void suspend() override { inner_->suspend(); }
  void resume() override { inner_->resume(); }
  bool isCurrent() const override { return inner_->isCurrent(); }
  std::size_t submissions() const { return submissions_; }

 private:
  const std::shared_ptr<DispatchQueue> inner_;
  std::atomic<std::size_t> submissions_{0};
};

class TestServer final : public DKServicerServer {
 public:
  std::shared_ptr<DKAccessControlStore> accessControlStore() const override {
    std::lock_guard lock(mutex_);
    return store_.lock();
  }
  void setStore(std::weak_ptr<DKAccessControlStore> store) {
    std::lock_guard lock(mutex_);
    store_ = std::move(store);
  }

 private:
  mutable std::mutex mutex_;
  std::weak_ptr<DKAccessControlStore> store_;
};

// A provider table. Unlike the real registry it compares paths lexically (no symbolic links
// resolved) and runs no queue of its own.
class TableRegistry final : public DKServicerRegistry {
 public:
  void add(std::shared_ptr<DKExtensionProvider> provider) {
    std::lock_guard lock(mutex_);
    providers_[provider->identifier()] = std::move(provider);
  }
  std::shared_ptr<DKExtensionProvider> providerForURL(const Url& url) override {
    std::lock_guard lock(mutex_);
    for (const auto& [identifier, provider] : providers_) {
      const auto storage = provider->providedItemsURL();
      if (!storage) {
        continue;
      }
      std::string directory = storage->path();
      while (directory.size() > 1 && directory.back() == '/') {
        directory.pop_back();
      }
      const std::string path = url.path();
      if (path.size() > directory.size() + 1 && path.starts_with(directory + "/")) {
        return provider;
      }
    }
    return nullptr;
  }
  std::shared_ptr<DKExtensionProvider> providerWithIdentifier(
      const std::string& identifier) override {
    std::lock_guard lock(mutex_);
    const auto found = providers_.find(identifier);
    return found == providers_.end() ? nullptr : found->second;
  }
  Value providersInfo() override {
    std::lock_guard lock(mutex_);
    Value::Dictionary info;
    for (const auto& [identifier, provider] : providers_) {
      info[identifier] = Value(Value::Dictionary{
          {"documentStorageURL", Value(*provider->providedItemsURL())},
          {"providerIdentifier", Value(identifier)},
      });
    }
    return Value(std::move(info));
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<DKExtensionProvider>> providers_;
};

// The caller's bundle identifier, settable; records the pids of the tokens asked about.
struct FakeIdentity {
  std::mutex mutex;
  std::optional<std::string> bundleIdentifier;
  std::vector<pid_t> askedPids;  // -1 for a question without a token

  void set(std::optional<std::string> identifier) {
    std::lock_guard lock(mutex);
    bundleIdentifier = std::move(identifier);
  }
};

struct TestProvider {
  std::shared_ptr<DKExtensionProvider> provider;
  std::shared_ptr<ScriptedVendor> vendor;
  std::shared_ptr<FakeAppExtension> extension;
  Url storage;

  Url item(const std::string& name) const {
    return *Url::fromString(storage.absoluteString() + name);
  }
};

ErrorPtr vendorError() {
  return platform::makeError("com.example.vendor", 42, "the disk is on fire");
}

// Checks domain and code of a Daskel error value.
::testing::AssertionResult isDKError(const Value& value, DKErrorCode code) {
  const ErrorPtr error = value.error();
  if (!error) {
    return ::testing::AssertionFailure() << "not an error: " << value.description();
  }
  if (error->domain != kDKErrorDomain || error->code != static_cast<std::int64_t>(code)) {
    return ::testing::AssertionFailure() << "unexpected error " << error->description();
  }
  return ::testing::AssertionSuccess();
}

const Value* userInfo(const Value& errorValue, std::string_view key) {
  const ErrorPtr error = errorValue.error();
  if (!error) {
    return nullptr;
  }
  const auto found = error->userInfo.find(key);
  return found == error->userInfo.end() ? nullptr : &found->second;
}

ErrorPtr underlying(const ErrorPtr& error) {
  if (!error) {
    return nullptr;
  }
  const auto found = error->userInfo.find(kDKUnderlyingErrorKey);
  return found == error->userInfo.end() ? nullptr : found->second.error();
}

// Scripts the vendor's next answer to an item-identifier query.
void answerIdentifier(ScriptedVendor& vendor, Value identifier) {
  vendor.script(V::kIdentifierForItem,
                {ScriptedVendor::succeed(V::kIdentifierForItem, std::move(identifier))});
}

// Checks that `value` is the vendor's error wrapped `wraps` times in PluginOperationFailed.
::testing::AssertionResult wrapsVendorError(const Value& value, int wraps) {
  ErrorPtr error = value.error();
  for (int level = 0; level < wraps; ++level) {
    if (!isDKError(Value(error), DKErrorCode::PluginOperationFailed)) {
      return ::testing::AssertionFailure()
             << "level " << level << " is not PluginOperationFailed: " << value.description();
    }
    error = underlying(error);
  }
  if (!error || error->domain != "com.example.vendor" || error->code != 42) {
    return ::testing::AssertionFailure() << "not the vendor's error: " << value.description();
  }
  return ::testing::AssertionSuccess();
}

class DKIpcServicerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/dkservicer.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory_ = pattern;
    store_ = DKAccessControlStore::create(directory_ + "/acl/AccessControl.plist",
                                          std::make_shared<platform::FakeNotifyCenter>());
    server_->setStore(store_);
    issuer_ = std::make_shared<platform::KeyFileSandboxTokenIssuer>(directory_ +
                                                                    "/state/sandbox-token.key");

    auto context = std::make_shared<DKServicerContext>();
    context->registry = registry_;
    context->sharedStore = [store = store_] { return store; };
    context->tokenIssuer = issuer_;
    context->bundleIdentifierForAuditToken =
        [identity = identity_](const AuditToken* token) -> std::optional<std::string> {
      std::lock_guard lock(identity->mutex);
      identity->askedPids.push_back(token ? token->pid() : -1);
      return identity->bundleIdentifier;
    };
    context->replyQueue = replyQueue_;
    context_ = context;

    servicer_ = DKIpcServicer::create(context_);
    servicer_->setServer(server_);

    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    auto daemonEnd = IpcConnection::adoptSocket(fds[0], "servicer test daemon end");
    auto clientEnd = IpcConnection::adoptSocket(fds[1], "servicer test client end");
    ASSERT_TRUE(daemonEnd && clientEnd);
    daemonEnd_ = *daemonEnd;
    clientEnd_ = *clientEnd;
    daemonEnd_->setExportedInterface(DKDaemonInterface());
    daemonEnd_->setIdentityResolver(entitlements_);
    servicer_->setConnection(daemonEnd_);
    daemonEnd_->setExportedObject(servicer_);
    daemonEnd_->resume();
    clientEnd_->setRemoteInterface(DKDaemonInterface());
    clientEnd_->resume();
    proxy_ = clientEnd_->remoteObjectProxyWithErrorHandler(
        [errors = proxyErrors_](const ErrorPtr& error) { errors->push(error); });
  }

  void TearDown() override {
    clientEnd_->invalidate();
    daemonEnd_->invalidate();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }

  TestProvider addProvider(const std::string& identifier) {
    auto vendor = std::make_shared<ScriptedVendor>();
    auto extension = std::make_shared<FakeAppExtension>(identifier, vendor);
    auto provider = DKExtensionProvider::initWithExtension(extension, DKProviderPlatform{});
    const std::string storage = directory_ + "/containers/" + identifier + "/Daskel Storage";
    std::filesystem::create_directories(storage);
    const Url storageURL = *Url::fileUrlWithPath(storage, /*isDirectory=*/true);
    provider->setProvidedItemsURL(storageURL);
    registry_->add(provider);
    return {provider, vendor, extension, storageURL};
  }

  void entitle(const char* key, Value value = Value(true)) { entitlements_->set(key, value); }

  // Sends one request and waits for its reply.
  std::optional<Value::Array> call(const std::string& selector, Value::Array arguments) {
    auto inbox = std::make_shared<Inbox<Value::Array>>();
    proxy_->call(selector, std::move(arguments),
                 [inbox](Value::Array values) { inbox->push(std::move(values)); });
    if (!inbox->waitForCount(1)) {
      return std::nullopt;
    }
    return inbox->items().front();
  }

  std::string tokenPath(const Value& token) {
    const Value::Data* data = token.data();
    if (data == nullptr) {
      return "(no token)";
    }
    auto grant = issuer_->verifyToken(std::string(data->begin(), data->end()));
    if (!grant) {
      return "(invalid token)";
    }
    EXPECT_EQ(grant->accessClass, platform::kSandboxReadWriteAccessClass);
    return grant->path;
  }

  std::string directory_;
  std::shared_ptr<FakeEntitlements> entitlements_ = std::make_shared<FakeEntitlements>();
  std::shared_ptr<TestServer> server_ = std::make_shared<TestServer>();
  std::shared_ptr<DKAccessControlStore> store_;
  std::shared_ptr<platform::KeyFileSandboxTokenIssuer> issuer_;
  std::shared_ptr<TableRegistry> registry_ = std::make_shared<TableRegistry>();
  std::shared_ptr<CountingQueue> replyQueue_ = std::make_shared<CountingQueue>();
  std::shared_ptr<FakeIdentity> identity_ = std::make_shared<FakeIdentity>();
  std::shared_ptr<const DKServicerContext> context_;
  std::shared_ptr<DKIpcServicer> servicer_;
  std::shared_ptr<IpcConnection> daemonEnd_;
  std::shared_ptr<IpcConnection> clientEnd_;
  std::shared_ptr<platform::IpcRemoteProxy> proxy_;
  std::shared_ptr<Inbox<ErrorPtr>> proxyErrors_ = std::make_shared<Inbox<ErrorPtr>>();
};

// --- Entitlement gate ---

TEST_F(DKIpcServicerTest, EveryGatedOperationRefusesACallerWithoutEntitlements) {
  TestProvider provider = addProvider("com.example.provider");
  const Value url(provider.item("doc.txt"));
  const struct {
    const char* selector;
    Value::Array arguments;
    std::size_t replyCount;
    const char* keys;
  } cases[] = {
      {S::kExtendSandbox, {url, "com.example.provider", "com.example.app"}, 4, kRejectWrite},
      {S::kProvidePlaceholder,
       {url, "com.example.provider", "com.example.app"},
       1,
       kRejectReadOrWrite},
      {S::kStartProviding, {url, "com.example.provider", "com.example.app"}, 1, kRejectReadOrWrite},
      {S::kStopProviding, {url, "com.example.provider", "com.example.app"}, 1, kRejectReadOrWrite},
      {S::kProviders, {}, 2, kRejectReadOrWrite},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.selector);
    CapturingLogSink::Scope log;
    const auto reply = call(c.selector, c.arguments);
    ASSERT_TRUE(reply);
    ASSERT_EQ(reply->size(), c.replyCount);
    EXPECT_TRUE(isDKError((*reply)[0], DKErrorCode::ClientLacksEntitlement));
    EXPECT_EQ(userInfo((*reply)[0], kDKEntitlementKey), nullptr);
    for (std::size_t i = 1; i < reply->size(); ++i) {
      EXPECT_TRUE((*reply)[i].isNull()) << i;
    }
    EXPECT_EQ(log->count(platform::kLogDebug, std::string("Serving: ") + c.selector), 1u);
    EXPECT_EQ(log->count(platform::kLogError, rejectionLine(getpid(), c.keys)), 1u);
  }
  EXPECT_EQ(provider.extension->beginCount(), 0u);
}

TEST_F(DKIpcServicerTest, OnlyATrueNumberCountsAndTheSecondKeyIsTriedAfterTheFirstFails) {
  // A string, whatever its text, never counts.
  entitle(kDKReadEntitlement, Value("YES"));
  auto reply = call(S::kProviders, {});
  ASSERT_TRUE(reply);
  EXPECT_TRUE(isDKError((*reply)[0], DKErrorCode::ClientLacksEntitlement));
  EXPECT_EQ(entitlements_->takeLookups(),
            (std::vector<std::string>{kDKReadEntitlement, kDKWriteEntitlement}));

  entitle(kDKReadEntitlement, Value(false));
  entitle(kDKWriteEntitlement, Value(1));
  reply = call(S::kProviders, {});
  ASSERT_TRUE(reply);
  EXPECT_TRUE((*reply)[0].isNull());
  EXPECT_EQ(entitlements_->takeLookups(),
            (std::vector<std::string>{kDKReadEntitlement, kDKWriteEntitlement}));

  // The first key that grants ends the enumeration.
  entitle(kDKReadEntitlement, Value(2));
  reply = call(S::kProviders, {});
  ASSERT_TRUE(reply);
  EXPECT_TRUE((*reply)[0].isNull());
  EXPECT_EQ(entitlements_->takeLookups(), (std::vector<std::string>{kDKReadEntitlement}));
}

TEST_F(DKIpcServicerTest, ARefusalWithoutReplyBlockDispatchesNothingAndLogsTwoLines) {
  CapturingLogSink::Scope log;
  servicer_->startProvidingItemAtURL(std::nullopt, std::nullopt, std::nullopt, nullptr);
  servicer_->providersCompletionHandler(nullptr);
  EXPECT_EQ(replyQueue_->submissions(), 0u);
  const std::vector<CapturingLogSink::Line> expected{
      {platform::kLogDebug, std::string("Serving: ") + S::kStartProviding},
      {platform::kLogError, rejectionLine(getpid(), kRejectReadOrWrite)},
      {platform::kLogDebug, std::string("Serving: ") + S::kProviders},
      {platform::kLogError, rejectionLine(getpid(), kRejectReadOrWrite)},
  };
  EXPECT_EQ(log->lines(), expected);
}

TEST_F(DKIpcServicerTest, AServicerWhoseConnectionIsGoneRefusesWithPidZero) {
  entitle(kDKReadEntitlement);
  auto orphan = DKIpcServicer::create(context_);
  {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    auto connection = IpcConnection::adoptSocket(fds[0], "short-lived");
    close(fds[1]);
    ASSERT_TRUE(connection);
    orphan->setConnection(*connection);
  }  // never resumed, so released here
  EXPECT_EQ(orphan->connection(), nullptr);

  CapturingLogSink::Scope log;
  EXPECT_FALSE(
      orphan->clientHasOneOfAllowedEntitlements({kDKReadEntitlement, kDKWriteEntitlement}));
  EXPECT_EQ(log->count(platform::kLogError, rejectionLine(0, kRejectReadOrWrite)), 1u);
  EXPECT_FALSE(orphan->clientHasOneOfAllowedEntitlements({}));
}

// --- Sandbox access grant ---

TEST_F(DKIpcServicerTest, ExtendAndPlaceholderNameTheFirstMissingArgumentAndTheUnknownProvider) {
  entitle(kDKWriteEntitlement);
  TestProvider provider = addProvider("com.example.provider");
  const Value url(provider.item("doc.txt"));
  const struct {
    Value::Array arguments;
    const char* parameter;
  } cases[] = {
      {{Value(), Value(), "com.example.app"}, "URL"},
      {{url, Value(), Value()}, "providerID"},
      {{url, "com.example.provider", Value()}, "consumerID"},
  };
  for (const char* selector : {S::kExtendSandbox, S::kProvidePlaceholder}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(selector) + ": " + c.parameter);
      const auto reply = call(selector, c.arguments);
      ASSERT_TRUE(reply);
      EXPECT_TRUE(isDKError((*reply)[0], DKErrorCode::InvalidParameter));
      const Value* parameter = userInfo((*reply)[0], kDKParameterKey);
      ASSERT_NE(parameter, nullptr);
      EXPECT_EQ(*parameter, Value(c.parameter));
      for (std::size_t i = 1; i < reply->size(); ++i) {
        EXPECT_TRUE((*reply)[i].isNull()) << i;
      }
    }
    const auto unknown = call(selector, {url, "com.example.other", "com.example.app"});
    ASSERT_TRUE(unknown);
    EXPECT_TRUE(isDKError((*unknown)[0], DKErrorCode::NotFound));
    const Value* identifier = userInfo((*unknown)[0], kDKProviderIdentifierKey);
    ASSERT_NE(identifier, nullptr);
    EXPECT_EQ(*identifier, Value("com.example.other"));
  }
  EXPECT_EQ(provider.extension->beginCount(), 0u);
}

TEST_F(DKIpcServicerTest, ExtendSandboxRecordsTheGrantAndReturnsTokensForItemAndPlaceholder) {
  entitle(kDKWriteEntitlement);
  TestProvider provider = addProvider("com.example.provider");
  answerIdentifier(*provider.vendor, "docs/plan");
  const Url url = provider.item("my%20plan.txt");

  const auto reply =
      call(S::kExtendSandbox, {Value(url), "com.example.provider", "com.example.app"});
  ASSERT_TRUE(reply);
  ASSERT_EQ(reply->size(), 4u);
  EXPECT_TRUE((*reply)[0].isNull()) << (*reply)[0].description();
  EXPECT_EQ(tokenPath((*reply)[1]), url.path());
  ASSERT_NE((*reply)[2].url(), nullptr);
  EXPECT_EQ((*reply)[2].url()->absoluteString(),
            provider.storage.absoluteString() + ".my%20plan.txt");
  EXPECT_EQ(tokenPath((*reply)[3]), provider.storage.path() + ".my plan.txt");
  EXPECT_TRUE(
      store_->isProviderWithIdentifier("com.example.provider", "docs/plan", "com.example.app"));
  const auto calls = provider.vendor->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].selector, V::kIdentifierForItem);
  EXPECT_EQ(calls[0].arguments.at(0), Value(url));
}

TEST_F(DKIpcServicerTest, ExtendSandboxGrantsNothingWhenTheProviderFailsOrNamesNoItem) {
  entitle(kDKWriteEntitlement);
  TestProvider provider = addProvider("com.example.provider");
  // The vendor answers (nil, nil) unless scripted.
  for (const bool fails : {false, true}) {
    SCOPED_TRACE(fails ? "provider fails" : "provider names no item");
    if (fails) {
      provider.vendor->script(V::kIdentifierForItem,
                              {ScriptedVendor::fail(V::kIdentifierForItem, vendorError())});
    }
    const auto reply = call(S::kExtendSandbox, {Value(provider.item("doc.txt")),
                                                "com.example.provider", "com.example.app"});
    ASSERT_TRUE(reply);
    EXPECT_TRUE((*reply)[1].isNull() && (*reply)[2].isNull() && (*reply)[3].isNull());
    EXPECT_FALSE(
        store_->isProviderWithIdentifier("com.example.provider", std::nullopt, "com.example.app"));
    if (!fails) {
      EXPECT_TRUE(isDKError((*reply)[0], DKErrorCode::SandboxExtensionFailed));
      continue;
    }
    // Once by the provider, once more by the servicer.
    EXPECT_TRUE(wrapsVendorError((*reply)[0], 2));
  }
}

// Refuses one path, issues the rest with the real issuer.
class RefusingIssuer final : public platform::SandboxTokenIssuer {
 public:
  RefusingIssuer(std::shared_ptr<SandboxTokenIssuer> inner, std::string refused)
      : inner_(std::move(inner)), refused_(std::move(refused)) {}
  platform::Result<std::string> issueToken(std::string_view accessClass,
                                           std::string_view path) override {
    if (path == refused_) {
      return platform::failure(platform::sandboxTokenError(
          platform::SandboxTokenError::InvalidRequest, "refused by the test"));
    }
    return inner_->issueToken(accessClass, path);
  }
  platform::Result<platform::SandboxGrant> verifyToken(std::string_view token) override {
    return inner_->verifyToken(token);
  }

 private:
  const std::shared_ptr<SandboxTokenIssuer> inner_;
  const std::string refused_;
};

TEST_F(DKIpcServicerTest, AMissingTokenIsANilValueInASuccessReplyAndTheGrantStands) {
  TestProvider provider = addProvider("com.example.provider");
  answerIdentifier(*provider.vendor, "item-1");
  const Url url = provider.item("doc.txt");
  auto context = std::make_shared<DKServicerContext>(*context_);
  context->tokenIssuer = std::make_shared<RefusingIssuer>(issuer_, url.path());
  entitle(kDKWriteEntitlement);
  auto servicer = DKIpcServicer::create(context);
  servicer->setServer(server_);
  servicer->setConnection(daemonEnd_);

  Inbox<Value::Array> replies;
  servicer->extendSandboxForFileURL(
      url, "com.example.provider", "com.example.app",
      [&](const ErrorPtr& error, const auto& token, const auto& placeholderURL,
          const auto& placeholderToken) {
        replies.push({Value(error), token ? Value(*token) : Value(),
                      placeholderURL ? Value(*placeholderURL) : Value(),
                      placeholderToken ? Value(*placeholderToken) : Value()});
      });
  ASSERT_TRUE(replies.waitForCount(1));
  const Value::Array reply = replies.items().front();
  EXPECT_TRUE(reply[0].isNull());
  EXPECT_TRUE(reply[1].isNull());
  EXPECT_EQ(reply[2], Value(*Url::fromString(provider.storage.absoluteString() + ".doc.txt")));
  EXPECT_EQ(tokenPath(reply[3]), provider.storage.path() + ".doc.txt");
  EXPECT_TRUE(
      store_->isProviderWithIdentifier("com.example.provider", "item-1", "com.example.app"));
}

TEST_F(DKIpcServicerTest, ExtendSandboxWithoutServerSkipsTheGrantButStillIssuesTokens) {
  entitle(kDKWriteEntitlement);
  TestProvider provider = addProvider("com.example.provider");
  answerIdentifier(*provider.vendor, "item-1");
  servicer_->setServer(std::weak_ptr<DKServicerServer>());

  const auto reply = call(S::kExtendSandbox, {Value(provider.item("doc.txt")),
                                              "com.example.provider", "com.example.app"});
  ASSERT_TRUE(reply);
  EXPECT_TRUE((*reply)[0].isNull());
  EXPECT_EQ(tokenPath((*reply)[1]), provider.storage.path() + "doc.txt");
  EXPECT_FALSE(
      store_->isProviderWithIdentifier("com.example.provider", "item-1", "com.example.app"));
}

TEST_F(DKIpcServicerTest, RefusalsComeOnTheReplyQueueAndForwardedAnswersOnTheProvidersThread) {
  entitle(kDKReadEntitlement);
  TestProvider provider = addProvider("com.example.provider");
  answerIdentifier(*provider.vendor, "item-1");
  store_->allowProviderWithIdentifier("com.example.provider", "item-1", "com.example.app");
  struct Answer {
    ErrorPtr error;
    bool onReplyQueue;
    std::thread::id thread;
  };
  Inbox<Answer> answers;
  auto record = [&](const ErrorPtr& error) {
    answers.push({error, replyQueue_->isCurrent(), std::this_thread::get_id()});
  };

  servicer_->extendSandboxForFileURL(provider.item("doc.txt"), "com.example.provider",
                                     "com.example.app",
                                     [&](const ErrorPtr& error, auto&&...) { record(error); });
  servicer_->startProvidingItemAtURL(std::nullopt, "com.example.provider", "com.example.app",
                                     record);
  servicer_->providePlaceholderForItemAtURL(provider.item("doc.txt"), "com.example.nobody",
                                            "com.example.app", record);
  ASSERT_TRUE(answers.waitForCount(3));
  for (const Answer& answer : answers.items()) {
    EXPECT_TRUE(answer.onReplyQueue) << answer.error->description();
    EXPECT_NE(answer.thread, std::this_thread::get_id());
  }

  servicer_->startProvidingItemAtURL(provider.item("doc.txt"), "com.example.provider",
                                     "com.example.app", record);
  ASSERT_TRUE(answers.waitForCount(4));
  const Answer forwarded = answers.items().back();
  EXPECT_EQ(forwarded.error, nullptr);
  EXPECT_FALSE(forwarded.onReplyQueue);
  EXPECT_NE(forwarded.thread, std::this_thread::get_id());
  EXPECT_EQ(replyQueue_->submissions(), 3u);
}

// --- Item operations ---

TEST_F(DKIpcServicerTest, StartAndStopMaskEveryRefusalAsNotFoundWithTheNamedProvider) {
  entitle(kDKReadEntitlement);
  TestProvider a = addProvider("com.example.a");
  TestProvider b = addProvider("com.example.b");
  const Value inA(a.item("doc.txt"));
  const Value inB(b.item("doc.txt"));
  const struct {
    const char* what;
    Value::Array arguments;
    std::optional<std::string> named;
  } cases[] = {
      {"no URL", {Value(), "com.example.a", "com.example.app"}, "com.example.a"},
      {"no provider", {inA, Value(), "com.example.app"}, std::nullopt},
      {"no consumer", {inA, "com.example.a", Value()}, "com.example.a"},
      {"URL of another provider", {inB, "com.example.a", "com.example.app"}, "com.example.a"},
      {"the storage directory itself",
       {Value(a.storage), "com.example.a", "com.example.app"},
       "com.example.a"},
      {"URL outside every storage",
       {Value(*Url::fileUrlWithPath("/etc/passwd", false)), "com.example.a", "com.example.app"},
       "com.example.a"},
  };
  for (const char* selector : {S::kStartProviding, S::kStopProviding}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(selector) + ": " + c.what);
      const auto reply = call(selector, c.arguments);
      ASSERT_TRUE(reply);
      EXPECT_TRUE(isDKError((*reply)[0], DKErrorCode::NotFound));
      const Value* named = userInfo((*reply)[0], kDKProviderIdentifierKey);
      if (c.named) {
        ASSERT_NE(named, nullptr);
        EXPECT_EQ(*named, Value(*c.named));
      } else {
        EXPECT_EQ(named, nullptr);
      }
    }
  }
  EXPECT_EQ(a.extension->beginCount(), 0u);
  EXPECT_EQ(b.extension->beginCount(), 0u);
}

TEST_F(DKIpcServicerTest, StartAndPlaceholderAreForwardedOnlyWithAGrantForTheConsumer) {
  entitle(kDKReadEntitlement);
  TestProvider provider = addProvider("com.example.provider");
  answerIdentifier(*provider.vendor, "item-1");
  const Value url(provider.item("doc.txt"));
  store_->allowProviderWithIdentifier("com.example.provider", "item-1", "com.example.other");

  for (const char* selector : {S::kStartProviding, S::kProvidePlaceholder}) {
    const auto reply = call(selector, {url, "com.example.provider", "com.example.app"});
    ASSERT_TRUE(reply);
    EXPECT_TRUE(isDKError((*reply)[0], DKErrorCode::NotPermitted)) << selector;
  }
  EXPECT_EQ(provider.vendor->callCount(V::kIdentifierForItem), 2u);
  EXPECT_EQ(provider.vendor->callCount(V::kStartProviding), 0u);
  EXPECT_EQ(provider.vendor->callCount(V::kProvidePlaceholder), 0u);

  // With the grant the provider's own answer reaches the client, wrapped once by the provider.
  store_->allowProviderWithIdentifier("com.example.provider", "item-1", "com.example.app");
  provider.vendor->script(V::kStartProviding,
                          {ScriptedVendor::fail(V::kStartProviding, vendorError())});
  const auto started = call(S::kStartProviding, {url, "com.example.provider", "com.example.app"});
  ASSERT_TRUE(started);
  EXPECT_TRUE(wrapsVendorError((*started)[0], 1));

  const auto placeholder =
      call(S::kProvidePlaceholder, {url, "com.example.provider", "com.example.app"});
  ASSERT_TRUE(placeholder);
  EXPECT_TRUE((*placeholder)[0].isNull()) << (*placeholder)[0].description();
  const auto calls = provider.vendor->calls();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.back().selector, V::kProvidePlaceholder);
  EXPECT_EQ(calls.back().arguments.at(0), url);
}

TEST_F(DKIpcServicerTest, AFailedItemIdentifierQueryReachesTheClientWrappedTwice) {
  entitle(kDKReadEntitlement);
  TestProvider provider = addProvider("com.example.provider");
  provider.vendor->script(V::kIdentifierForItem,
                          {ScriptedVendor::fail(V::kIdentifierForItem, vendorError())});
  // A URL outside the provider's storage goes to the provider all the same: the placeholder
  // request finds its provider by identifier.
  const Value outside(*Url::fileUrlWithPath("/elsewhere/doc.txt", false));
  for (const auto& [selector, url] : {std::pair{S::kStartProviding, Value(provider.item("a"))},
                                      std::pair{S::kProvidePlaceholder, outside}}) {
    SCOPED_TRACE(selector);
    const auto reply = call(selector, {url, "com.example.provider", "com.example.app"});
    ASSERT_TRUE(reply);
    EXPECT_TRUE(wrapsVendorError((*reply)[0], 2));
  }
  EXPECT_EQ(provider.vendor->callCount(V::kIdentifierForItem), 2u);
}

TEST_F(DKIpcServicerTest, StopIsForwardedWithoutAGrantAndWrapsTheProvidersFailure) {
  entitle(kDKReadEntitlement);
  TestProvider provider = addProvider("com.example.provider");
  const Value url(provider.item("never-granted.txt"));

  const auto stopped = call(S::kStopProviding, {url, "com.example.provider", "com.example.app"});
  ASSERT_TRUE(stopped);
  EXPECT_TRUE((*stopped)[0].isNull()) << (*stopped)[0].description();
  EXPECT_EQ(provider.vendor->callCount(V::kIdentifierForItem), 0u);

  provider.vendor->script(V::kStopProviding,
                          {ScriptedVendor::fail(V::kStopProviding, vendorError())});
  const auto failed = call(S::kStopProviding, {url, "com.example.provider", "com.example.app"});
  ASSERT_TRUE(failed);
  EXPECT_TRUE(wrapsVendorError((*failed)[0], 2));
  EXPECT_EQ(provider.vendor->callCount(V::kStopProviding), 2u);
}

TEST_F(DKIpcServicerTest, ProvidersWithNoProviderKnownIsAnEmptyDictionaryNotNil) {
  entitle(kDKReadEntitlement);
  const auto reply = call(S::kProviders, {});
  ASSERT_TRUE(reply);
  EXPECT_TRUE((*reply)[0].isNull());
  EXPECT_EQ((*reply)[1], Value(Value::Dictionary{}));
}

TEST_F(DKIpcServicerTest, ARequestWaitingForItsProviderDoesNotHoldBackTheNextOne) {
  entitle(kDKReadEntitlement);
  TestProvider provider = addProvider("com.example.provider");
  provider.vendor->script(
      V::kIdentifierForItem,
      {ScriptedVendor::neverAnswer(), ScriptedVendor::succeed(V::kIdentifierForItem, "item-1")});
  store_->allowProviderWithIdentifier("com.example.provider", "item-1", "com.example.app");
  auto first = std::make_shared<Inbox<Value::Array>>();
  proxy_->call(S::kStartProviding,
               {Value(provider.item("a")), "com.example.provider", "com.example.app"},
               [first](Value::Array values) { first->push(std::move(values)); });
  ASSERT_TRUE(provider.vendor->waitForCallCount(V::kIdentifierForItem, 1, kIpcTestDeadline));

  const auto second = call(S::kStartProviding,
                           {Value(provider.item("b")), "com.example.provider", "com.example.app"});
  ASSERT_TRUE(second);
  EXPECT_TRUE((*second)[0].isNull()) << (*second)[0].description();
  EXPECT_EQ(first->size(), 0u);
}

// --- Bookmarkable strings ---

TEST_F(DKIpcServicerTest, ABookmarkableStringConvertsBackToTheSameItemForAGrantedConsumer) {
  TestProvider provider = addProvider("com.example.provider");
  const std::string item = "docs/2024//plan.txt/";
  const Url url = provider.item("plan.txt");
  answerIdentifier(*provider.vendor, Value(item));
  provider.vendor->script(V::kURLForItemIdentifier,
                          {ScriptedVendor::succeed(V::kURLForItemIdentifier, Value(url))});

  const auto string = call(S::kBookmarkableString, {Value(url)});
  ASSERT_TRUE(string);
  EXPECT_EQ((*string)[0], Value("daskel:com.example.provider/" + item));
  EXPECT_TRUE((*string)[1].isNull());

  identity_->set("com.example.app");
  store_->allowProviderWithIdentifier("com.example.provider", item, "com.example.app");
  const auto back = call(S::kDocumentURL, {(*string)[0]});
  ASSERT_TRUE(back);
  ASSERT_EQ(back->size(), 5u);
  EXPECT_TRUE((*back)[4].isNull()) << (*back)[4].description();
  EXPECT_EQ((*back)[0], Value(url));
  EXPECT_EQ(tokenPath((*back)[1]), url.path());
  EXPECT_EQ((*back)[2], Value(*Url::fromString(provider.storage.absoluteString() + ".plan.txt")));
  EXPECT_EQ(tokenPath((*back)[3]), provider.storage.path() + ".plan.txt");
  const auto calls = provider.vendor->calls();
  ASSERT_EQ(calls.back().selector, V::kURLForItemIdentifier);
  EXPECT_EQ(calls.back().arguments.at(0), Value(item));
  // The consumer is the process at the other end of the connection.
  std::lock_guard lock(identity_->mutex);
  EXPECT_EQ(identity_->askedPids, std::vector<pid_t>{getpid()});
}

TEST_F(DKIpcServicerTest, BookmarkableStringAnswersNothingForUnheldURLsAndPassesErrorsOn) {
  TestProvider provider = addProvider("com.example.provider");
  const auto outside =
      call(S::kBookmarkableString, {Value(*Url::fileUrlWithPath("/elsewhere/doc.txt", false))});
  ASSERT_TRUE(outside);
  EXPECT_TRUE((*outside)[0].isNull() && (*outside)[1].isNull());
  const auto none = call(S::kBookmarkableString, {Value()});
  ASSERT_TRUE(none);
  EXPECT_TRUE((*none)[0].isNull() && (*none)[1].isNull());

  // The vendor answers neither error nor identifier by default.
  const auto empty = call(S::kBookmarkableString, {Value(provider.item("doc.txt"))});
  ASSERT_TRUE(empty);
  EXPECT_TRUE((*empty)[0].isNull() && (*empty)[1].isNull());

  provider.vendor->script(V::kIdentifierForItem,
                          {ScriptedVendor::fail(V::kIdentifierForItem, vendorError())});
  const auto failed = call(S::kBookmarkableString, {Value(provider.item("doc.txt"))});
  ASSERT_TRUE(failed);
  EXPECT_TRUE((*failed)[0].isNull());
  // The provider's error as the provider made it: wrapped once, not again.
  EXPECT_TRUE(wrapsVendorError((*failed)[1], 1));
}

TEST_F(DKIpcServicerTest, DocumentURLChecksIdentityThenFormThenGrant) {
  TestProvider provider = addProvider("com.example.provider");
  store_->allowProviderWithIdentifier("com.example.provider", "item", "com.example.app");

  // Without a bundle identifier even a malformed string is not permitted.
  for (const Value& string : {Value("daskel:com.example.provider/item"), Value("nonsense")}) {
    const auto reply = call(S::kDocumentURL, {string});
    ASSERT_TRUE(reply);
    EXPECT_TRUE(isDKError((*reply)[4], DKErrorCode::NotPermitted)) << string.description();
  }

  identity_->set("com.example.app");
  for (const char* text :
       {"daskel:P/", "daskel:/x", "daskel:P", "Daskel:P/x", "xdaskel:P/x", "daskel:P//x", ""}) {
    const auto reply = call(S::kDocumentURL, {Value(text)});
    ASSERT_TRUE(reply);
    EXPECT_TRUE(isDKError((*reply)[4], DKErrorCode::InvalidBookmarkableString)) << text;
    for (std::size_t i = 0; i < 4; ++i) {
      EXPECT_TRUE((*reply)[i].isNull());
    }
  }
  const auto absent = call(S::kDocumentURL, {Value()});
  ASSERT_TRUE(absent);
  EXPECT_TRUE(isDKError((*absent)[4], DKErrorCode::InvalidBookmarkableString));

  // Well formed, the provider exists, but this consumer holds no grant for the item.
  const auto ungranted = call(S::kDocumentURL, {Value("daskel:com.example.provider/other")});
  ASSERT_TRUE(ungranted);
  EXPECT_TRUE(isDKError((*ungranted)[4], DKErrorCode::NotPermitted));
  EXPECT_EQ(provider.extension->beginCount(), 0u);
}

TEST_F(DKIpcServicerTest, DocumentURLNamesASandboxFailureWhenTheProviderFails) {
  TestProvider provider = addProvider("com.example.provider");
  provider.vendor->script(V::kURLForItemIdentifier,
                          {ScriptedVendor::fail(V::kURLForItemIdentifier, vendorError())});
  identity_->set("com.example.app");
  store_->allowProviderWithIdentifier("com.example.provider", "item", "com.example.app");

  const auto reply = call(S::kDocumentURL, {Value("daskel:com.example.provider/item")});
  ASSERT_TRUE(reply);
  EXPECT_TRUE(isDKError((*reply)[4], DKErrorCode::SandboxExtensionFailed));
  EXPECT_EQ(userInfo((*reply)[4], kDKURLKey), nullptr);
  EXPECT_EQ(underlying((*reply)[4].error()), nullptr);
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_TRUE((*reply)[i].isNull());
  }
}

TEST_F(DKIpcServicerTest, DocumentURLForAVanishedProviderIsNeverAnswered) {
  identity_->set("com.example.app");
  store_->allowProviderWithIdentifier("com.example.gone", "item", "com.example.app");
  auto sentinel = std::make_shared<int>(0);
  std::weak_ptr<int> watch = sentinel;
  bool called = false;
  servicer_->documentURLFromBookmarkableString(
      "daskel:com.example.gone/item",
      [&called, sentinel = std::move(sentinel)](auto&&...) { called = true; });
  // Nothing holds the completion any more: it can never run.
  EXPECT_TRUE(watch.expired());
  EXPECT_FALSE(called);
  EXPECT_EQ(replyQueue_->submissions(), 0u);
}

TEST_F(DKIpcServicerTest, DocumentURLOfAServicerWithoutConnectionIsNotPermitted) {
  identity_->set(std::nullopt);
  auto orphan = DKIpcServicer::create(context_);
  Inbox<ErrorPtr> errors;
  orphan->documentURLFromBookmarkableString(
      "daskel:com.example.provider/item",
      [&](const auto&, const auto&, const auto&, const auto&, const ErrorPtr& error) {
        EXPECT_TRUE(replyQueue_->isCurrent());
        errors.push(error);
      });
  ASSERT_TRUE(errors.waitForCount(1));
  EXPECT_TRUE(isDKError(Value(errors.items().front()), DKErrorCode::NotPermitted));
  std::lock_guard lock(identity_->mutex);
  EXPECT_EQ(identity_->askedPids, std::vector<pid_t>{-1});
}

TEST_F(DKIpcServicerTest, ClosingTheConnectionFreesTheServicer) {
  std::weak_ptr<DKIpcServicer> watch = servicer_;
  servicer_.reset();
  ASSERT_TRUE(call(S::kWakeUp, {}));
  clientEnd_->invalidate();
  const auto deadline = std::chrono::steady_clock::now() + kIpcTestDeadline;
  while (!watch.expired() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_TRUE(watch.expired());
}

}  // namespace
}  // namespace daskel
