// DKDaemonClient against a real IpcListener in a temporary runtime directory, where a fake
// daemon exports DKDaemon and answers each operation with canned values (or keeps or drops
// the reply block). Covers: arguments go out in order; every reply decodes into the right
// typed places (error first in five operations, last in two); a reply of the wrong class or
// shape is refused and fails every outstanding call; blocking wrappers time out cleanly; a
// daemon closing mid-call gives the IPC error, once per call.
#include "client/DKDaemonClient.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "client/testing/DrainGuard.h"
#include "client/testing/FakeDKDaemon.h"
#include "daemon/protocol/DKDaemon.h"
#include "platform/dispatch/TestLatch.h"
#include "platform/errors/DKErrors.h"
#include "platform/ipc/IpcHandlerTable.h"
#include "platform/ipc/IpcListener.h"
#include "platform/ipc/IpcTestSupport.h"
#include "platform/log/CapturingLogSink.h"

namespace daskel {
namespace {

namespace fs = std::filesystem;
namespace S = DKDaemonSelector;
using namespace std::chrono_literals;
using platform::ClassSet;
using platform::ErrorPtr;
using platform::IpcConnection;
using platform::IpcInterface;
using platform::IpcListener;
using platform::ReplyBlock;
using platform::Url;
using platform::Value;
using platform::testing::Inbox;
using testing::DrainGuard;
using testing::FakeDKDaemon;
using testing::kDKDaemonSelectors;
using Type = Value::Type;
using Values = Value::Array;
using Data = Value::Data;

Url url(const char* text) {
  return *Url::fromString(text);
}
Data data(const std::string& text) {
  return Data(text.begin(), text.end());
}

// The canned replies, every value distinct, so a value read from the wrong place shows.
struct Canned {
  const Url itemURL = url("file:///home/u/Documents/Report%20One.txt");
  const Url placeholderURL = url("file:///home/u/Documents/.Report%20One.txt.placeholder");
  const Url documentURL = url("file:///home/u/Documents/From%20Bookmark.txt");
  const Data token = data("token-for-item");
  const Data placeholderToken = data("token-for-placeholder");
  const std::string bookmark = "com.example.provider/item-17";
  const Value::Dictionary providerInfo{
      {"com.example.provider",
       Value(Value::Dictionary{{"displayName", Value("Example")},
                               {"documentStorageURL", Value(url("file:///home/u/Storage/"))}})}};
};

void answerEverything(FakeDKDaemon& daemon, const Canned& c) {
  daemon.answer(S::kWakeUp, {});
  daemon.answer(S::kExtendSandbox,
                {Value(), Value(c.token), Value(c.placeholderURL), Value(c.placeholderToken)});
  daemon.answer(S::kProvidePlaceholder, {Value(DKNotPermittedError())});
  daemon.answer(S::kStartProviding, {Value(DKNotFoundError("com.example.start"))});
  daemon.answer(S::kStopProviding, {Value(DKInvalidParameterError("url"))});
  daemon.answer(S::kProviders, {Value(), Value(c.providerInfo)});
  daemon.answer(S::kBookmarkableString, {Value(c.bookmark), Value()});
  daemon.answer(S::kDocumentURL, {Value(c.documentURL), Value(c.token), Value(c.placeholderURL),
                                  Value(c.placeholderToken), Value(DKNotPermittedError())});
}

std::int64_t codeOf(const ErrorPtr& error, const char* domain) {
  EXPECT_TRUE(error);
  if (!error) {
    return -1;
  }
  EXPECT_EQ(error->domain, domain) << error->description();
  return error->code;
}
std::int64_t ipcCode(const ErrorPtr& error) {
  return codeOf(error, kIpcErrorDomain);
}
std::int64_t dkCode(const ErrorPtr& error) {
  return codeOf(error, kDKErrorDomain);
}
constexpr std::int64_t code(IpcErrorCode c) {
  return static_cast<std::int64_t>(c);
}
constexpr std::int64_t code(DKErrorCode c) {
  return static_cast<std::int64_t>(c);
}

class DKDaemonClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/daskel-dkclient-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
    ::setenv("DASKEL_RUNTIME_DIR", root_.c_str(), 1);
  }
  void TearDown() override {
    listener_.reset();
    ::unsetenv("DASKEL_RUNTIME_DIR");
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }

  // Starts a fake daemon on the daemon's own service name, exporting `exported`.
  std::shared_ptr<FakeDKDaemon> startDaemon(IpcInterface exported = DKDaemonInterface()) {
    auto daemon = std::make_shared<FakeDKDaemon>(std::move(exported));
    auto listener = IpcListener::create(kDKDaemonServiceName);
    EXPECT_TRUE(listener) << listener.error()->description();
    if (listener) {
      listener_ = *listener;
      listener_->setDelegate(daemon);
      listener_->resume();
    }
    daemon_ = daemon;
    return daemon;
  }

  std::unique_ptr<DKDaemonClient> connect() {
    auto client = DKDaemonClient::connect();
    EXPECT_TRUE(client) << client.error()->description();
    return client ? std::move(*client) : nullptr;
  }

  fs::path root_;
  std::shared_ptr<IpcListener> listener_;
  std::shared_ptr<FakeDKDaemon> daemon_;
};

// ---- decoding ----

TEST_F(DKDaemonClientTest, EachOperationSendsItsArgumentsInOrderAndDecodesItsReplyIntoItsBlock) {
  auto daemon = startDaemon();
  const Canned c;
  answerEverything(*daemon, c);
  auto client = connect();
  ASSERT_TRUE(client);

  Inbox<std::string> done;
  DrainGuard drain(client->client());
  client->wakeUpCompletion([&](ErrorPtr error) {
    EXPECT_FALSE(error);
    done.push(S::kWakeUp);
  });
  client->extendSandboxForFileURL(
      c.itemURL, "com.example.provider", "com.example.consumer",
      [&](ErrorPtr error, std::optional<Data> token, std::optional<Url> placeholderURL,
          std::optional<Data> placeholderToken) {
        EXPECT_FALSE(error);
        EXPECT_EQ(token, c.token);
        EXPECT_EQ(placeholderURL, c.placeholderURL);
        EXPECT_EQ(placeholderToken, c.placeholderToken);
        done.push(S::kExtendSandbox);
      });
  client->providePlaceholderForItemAtURL(c.itemURL, "p3", "c3", [&](ErrorPtr error) {
    EXPECT_EQ(dkCode(error), code(DKErrorCode::NotPermitted));
    done.push(S::kProvidePlaceholder);
  });
  client->startProvidingItemAtURL(c.itemURL, "p4", "c4", [&](ErrorPtr error) {
    EXPECT_EQ(dkCode(error), code(DKErrorCode::NotFound));
    if (error) {
      auto found = error->userInfo.find(kDKProviderIdentifierKey);
      EXPECT_TRUE(found != error->userInfo.end() && found->second == Value("com.example.start"))
          << error->description();
    }
    done.push(S::kStartProviding);
  });
  client->stopProvidingItemAtURL(c.itemURL, "p5", "c5", [&](ErrorPtr error) {
    EXPECT_EQ(dkCode(error), code(DKErrorCode::InvalidParameter));
    done.push(S::kStopProviding);
  });
  client->providersCompletionHandler(
      [&](ErrorPtr error, std::optional<Value::Dictionary> providerInfo) {
        EXPECT_FALSE(error);
        EXPECT_EQ(providerInfo, c.providerInfo);
        done.push(S::kProviders);
      });
  client->bookmarkableStringFromDocumentURL(
      c.itemURL, [&](std::optional<std::string> bookmark, ErrorPtr error) {
        EXPECT_EQ(bookmark, c.bookmark);
        EXPECT_FALSE(error);
        done.push(S::kBookmarkableString);
      });
  client->documentURLFromBookmarkableString(
      c.bookmark,
      [&](std::optional<Url> documentURL, std::optional<Data> token,
          std::optional<Url> placeholderURL, std::optional<Data> placeholderToken, ErrorPtr error) {
        EXPECT_EQ(documentURL, c.documentURL);
        EXPECT_EQ(token, c.token);
        EXPECT_EQ(placeholderURL, c.placeholderURL);
        EXPECT_EQ(placeholderToken, c.placeholderToken);
        EXPECT_EQ(dkCode(error), code(DKErrorCode::NotPermitted));
        done.push(S::kDocumentURL);
      });
  ASSERT_TRUE(done.waitForCount(8));
  client->queue()->sync([] {});
  EXPECT_EQ(done.size(), 8u);

  // What the daemon received, in the order sent (one connection delivers in order).
  ASSERT_TRUE(daemon->requests.waitForCount(8));
  const auto requests = daemon->requests.items();
  const std::vector<std::pair<std::string, Values>> expected = {
      {S::kWakeUp, {}},
      {S::kExtendSandbox,
       {Value(c.itemURL), Value("com.example.provider"), Value("com.example.consumer")}},
      {S::kProvidePlaceholder, {Value(c.itemURL), Value("p3"), Value("c3")}},
      {S::kStartProviding, {Value(c.itemURL), Value("p4"), Value("c4")}},
      {S::kStopProviding, {Value(c.itemURL), Value("p5"), Value("c5")}},
      {S::kProviders, {}},
      {S::kBookmarkableString, {Value(c.itemURL)}},
      {S::kDocumentURL, {Value(c.bookmark)}},
  };
  ASSERT_EQ(requests.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(requests[i].selector, expected[i].first);
    EXPECT_EQ(requests[i].arguments, expected[i].second) << expected[i].first;
  }
}

TEST_F(DKDaemonClientTest, NilReplyValuesArriveAsAbsentAndErrorsInLastPlaceAreFound) {
  auto daemon = startDaemon();
  const Canned c;
  // The failure shapes: an error and nothing else, with the error first and last.
  daemon->answer(S::kExtendSandbox,
                 {Value(DKSandboxExtensionFailedError(c.itemURL)), Value(), Value(), Value()});
  daemon->answer(S::kProviders, {Value(DKClientLacksEntitlement("com.example.ent")), Value()});
  daemon->answer(S::kBookmarkableString, {Value(), Value(DKNotFoundError(std::nullopt))});
  daemon->answer(S::kDocumentURL,
                 {Value(), Value(), Value(), Value(), Value(DKInvalidBookmarkableStringError())});
  daemon->answer(S::kStartProviding, {Value()});
  auto client = connect();
  ASSERT_TRUE(client);

  const auto sandbox = client->extendSandboxForFileURLSync(c.itemURL, "p", "c");
  EXPECT_EQ(dkCode(sandbox.error), code(DKErrorCode::SandboxExtensionFailed));
  EXPECT_FALSE(sandbox.token);
  EXPECT_FALSE(sandbox.placeholderURL);
  EXPECT_FALSE(sandbox.placeholderToken);
  const auto providers = client->providersCompletionHandlerSync();
  EXPECT_EQ(dkCode(providers.error), code(DKErrorCode::ClientLacksEntitlement));
  EXPECT_FALSE(providers.providerInfo);
  const auto bookmark = client->bookmarkableStringFromDocumentURLSync(c.itemURL);
  EXPECT_FALSE(bookmark.bookmarkableString);
  EXPECT_EQ(dkCode(bookmark.error), code(DKErrorCode::NotFound));
  const auto document = client->documentURLFromBookmarkableStringSync("not a bookmark");
  EXPECT_FALSE(document.documentURL);
  EXPECT_FALSE(document.token);
  EXPECT_FALSE(document.placeholderURL);
  EXPECT_FALSE(document.placeholderToken);
  EXPECT_EQ(dkCode(document.error), code(DKErrorCode::InvalidBookmarkableString));
  EXPECT_FALSE(client->startProvidingItemAtURLSync(c.itemURL, "p", "c"));
}

TEST_F(DKDaemonClientTest, ACallWithAnEmptyReplyBlockStillReachesTheDaemon) {
  auto daemon = startDaemon();
  const Canned c;
  answerEverything(*daemon, c);
  auto client = connect();
  ASSERT_TRUE(client);
  client->startProvidingItemAtURL(c.itemURL, "p", "c", nullptr);
  EXPECT_FALSE(client->wakeUpSync(20s));  // answered after the first, on the same connection
  ASSERT_TRUE(daemon->requests.waitForCount(2));
  EXPECT_EQ(daemon->requests.items().front().selector, S::kStartProviding);
  EXPECT_TRUE(client->isValid());
}

// ---- refusal ----

// DKDaemon with one reply place widened to any class, so the fake daemon can send what the
// real one must not.
IpcInterface daemonInterfaceWidened(const char* selector, std::size_t replyIndex) {
  IpcInterface interface = DKDaemonInterface();
  EXPECT_TRUE(interface.setClasses(ClassSet::any(), selector, replyIndex, /*isReply=*/true));
  return interface;
}

// The refused reply arrives while two more calls (wakeUp, stopProviding: held by the daemon)
// are outstanding; each of them, and the refused call itself, must hear MessageRefused once,
// and the client closes the connection.
void expectRefusalFailsEveryCall(DKDaemonClient& client,
                                 FakeDKDaemon& daemon,
                                 const std::function<void(Inbox<ErrorPtr>&)>& refusedCall) {
  platform::CapturingLogSink::Scope log;
  Inbox<ErrorPtr> errors;
  DrainGuard drain(client.client());
  daemon.set(S::kWakeUp, FakeDKDaemon::Behaviour::Hold);
  daemon.set(S::kStopProviding, FakeDKDaemon::Behaviour::Hold);
  client.wakeUpCompletion([&errors](ErrorPtr error) { errors.push(error); });
  client.stopProvidingItemAtURL(url("file:///x"), "p", "c",
                                [&errors](ErrorPtr error) { errors.push(error); });
  ASSERT_TRUE(daemon.held.waitForCount(2));
  refusedCall(errors);
  ASSERT_TRUE(errors.waitForCount(3));
  client.queue()->sync([] {});
  const auto all = errors.items();
  ASSERT_EQ(all.size(), 3u);
  for (const auto& error : all) {
    EXPECT_EQ(ipcCode(error), code(IpcErrorCode::MessageRefused));
  }
  EXPECT_FALSE(client.isValid());
  std::size_t refusalLines = 0;
  for (const auto& line : log->lines()) {
    refusalLines += line.level == platform::kLogError &&
                    line.message.find("refused the peer's message") != std::string::npos;
  }
  EXPECT_EQ(refusalLines, 1u);
  const auto serverSide = daemon.connections.items().front();
  EXPECT_TRUE(platform::waitUntil([&] { return !serverSide->isValid(); }));
}

TEST_F(DKDaemonClientTest, AReplyOfTheWrongClassShapeOrCountIsRefusedAndFailsEveryOutstandingCall) {
  // A daemon that believes bookmarkableString... answers with three values.
  const ClassSet u = Type::Url;
  const ClassSet s = Type::String;
  const ClassSet d = Type::Data;
  const ClassSet e = Type::Error;
  IpcInterface disagreeing = IpcInterface::Builder("DKDaemon")
                                 .operation(S::kWakeUp, {}, {})
                                 .operation(S::kExtendSandbox, {u, s, s}, {e, d, u, d})
                                 .operation(S::kProvidePlaceholder, {u, s, s}, {e})
                                 .operation(S::kStartProviding, {u, s, s}, {e})
                                 .operation(S::kStopProviding, {u, s, s}, {e})
                                 .operation(S::kProviders, {}, {e, Type::Dictionary})
                                 .operation(S::kBookmarkableString, {u}, {s, e, s})
                                 .operation(S::kDocumentURL, {s}, {u, d, u, d, e})
                                 .build();
  using Call = std::function<void(DKDaemonClient&, Inbox<ErrorPtr>&)>;
  const struct {
    const char* what;
    IpcInterface daemonInterface;
    const char* selector;
    Values answer;
    Call call;
  } cases[] = {
      {"a string where an error belongs",
       daemonInterfaceWidened(S::kStartProviding, 0),
       S::kStartProviding,
       {Value("not an error")},
       [](DKDaemonClient& client, Inbox<ErrorPtr>& errors) {
         client.startProvidingItemAtURL(url("file:///y"), "p", "c",
                                        [&errors](ErrorPtr error) { errors.push(error); });
       }},
      {"a number deep inside the providers",
       daemonInterfaceWidened(S::kProviders, 1),
       S::kProviders,
       {Value(), Value(Value::Dictionary{{"p", Value(Value::Dictionary{{"count", Value(3)}})}})},
       [](DKDaemonClient& client, Inbox<ErrorPtr>& errors) {
         client.providersCompletionHandler(
             [&errors](ErrorPtr error, std::optional<Value::Dictionary> info) {
               EXPECT_FALSE(info);
               errors.push(error);
             });
       }},
      {"three values where two belong",
       disagreeing,
       S::kBookmarkableString,
       {Value("b"), Value(), Value("extra")},
       [](DKDaemonClient& client, Inbox<ErrorPtr>& errors) {
         client.bookmarkableStringFromDocumentURL(
             url("file:///z"), [&errors](std::optional<std::string> bookmark, ErrorPtr error) {
               EXPECT_FALSE(bookmark);
               errors.push(error);
             });
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    listener_.reset();
    auto daemon = startDaemon(c.daemonInterface);
    daemon->answer(c.selector, c.answer);
    auto client = connect();
    ASSERT_TRUE(client);
    expectRefusalFailsEveryCall(*client, *daemon,
                                [&](Inbox<ErrorPtr>& errors) { c.call(*client, errors); });
  }
}

// ---- timeouts ----

TEST_F(DKDaemonClientTest, BlockingWrappersTimeOutCleanlyWhenTheDaemonDropsTheReplyBlock) {
  auto daemon = startDaemon();
  const Canned c;
  answerEverything(*daemon, c);
  daemon->set(S::kProviders, FakeDKDaemon::Behaviour::Drop);
  daemon->set(S::kDocumentURL, FakeDKDaemon::Behaviour::Drop);
  auto client = connect();
  ASSERT_TRUE(client);

  const auto providers = client->providersCompletionHandlerSync(100ms);
  EXPECT_EQ(codeOf(providers.error, kDaskelClientErrorDomain),
            static_cast<std::int64_t>(DaskelClientErrorCode::TimedOut));
  EXPECT_FALSE(providers.providerInfo);
  const std::string text = providers.error ? providers.error->localizedDescription() : "";
  EXPECT_NE(text.find("timed out"), std::string::npos) << text;
  EXPECT_NE(text.find(S::kProviders), std::string::npos) << text;
  EXPECT_NE(text.find(kDKDaemonServiceName), std::string::npos) << text;

  const auto document = client->documentURLFromBookmarkableStringSync(c.bookmark, 50ms);
  EXPECT_EQ(codeOf(document.error, kDaskelClientErrorDomain),
            static_cast<std::int64_t>(DaskelClientErrorCode::TimedOut));
  EXPECT_FALSE(document.documentURL);

  // Nothing else is disturbed: the connection answers the next calls.
  EXPECT_TRUE(client->isValid());
  EXPECT_FALSE(client->wakeUpSync(20s));
  EXPECT_EQ(client->bookmarkableStringFromDocumentURLSync(c.itemURL, 20s).bookmarkableString,
            c.bookmark);
}

// ---- connection failures ----

TEST_F(DKDaemonClientTest, TheDaemonClosingMidCallFailsEveryOutstandingCallOnceWithNilValues) {
  auto daemon = startDaemon();
  for (const char* selector : kDKDaemonSelectors) {
    daemon->set(selector, FakeDKDaemon::Behaviour::Hold);
  }
  auto client = connect();
  ASSERT_TRUE(client);
  const Url item = url("file:///item");

  std::mutex mutex;
  std::map<std::string, std::vector<ErrorPtr>> heard;
  Inbox<int> arrivals;
  auto note = [&](const char* selector, ErrorPtr error) {
    {
      std::lock_guard lock(mutex);
      heard[selector].push_back(std::move(error));
    }
    arrivals.push(1);
  };
  DrainGuard drain(client->client());
  client->wakeUpCompletion([&](ErrorPtr e) { note(S::kWakeUp, e); });
  client->extendSandboxForFileURL(
      item, "p", "c",
      [&](ErrorPtr e, std::optional<Data> t, std::optional<Url> u, std::optional<Data> pt) {
        EXPECT_FALSE(t || u || pt);
        note(S::kExtendSandbox, e);
      });
  client->providePlaceholderForItemAtURL(item, "p", "c",
                                         [&](ErrorPtr e) { note(S::kProvidePlaceholder, e); });
  client->startProvidingItemAtURL(item, "p", "c", [&](ErrorPtr e) { note(S::kStartProviding, e); });
  client->stopProvidingItemAtURL(item, "p", "c", [&](ErrorPtr e) { note(S::kStopProviding, e); });
  client->providersCompletionHandler([&](ErrorPtr e, std::optional<Value::Dictionary> info) {
    EXPECT_FALSE(info);
    note(S::kProviders, e);
  });
  client->bookmarkableStringFromDocumentURL(item, [&](std::optional<std::string> b, ErrorPtr e) {
    EXPECT_FALSE(b);
    note(S::kBookmarkableString, e);
  });
  client->documentURLFromBookmarkableString(
      "b", [&](std::optional<Url> d, std::optional<Data> t, std::optional<Url> u,
               std::optional<Data> pt, ErrorPtr e) {
        EXPECT_FALSE(d || t || u || pt);
        note(S::kDocumentURL, e);
      });
  ASSERT_TRUE(daemon->held.waitForCount(8));
  EXPECT_EQ(arrivals.size(), 0u);

  daemon->closeConnections();
  ASSERT_TRUE(arrivals.waitForCount(8));
  for (const auto& reply : daemon->held.items()) {
    reply({});  // too late: the connection is gone, nothing is sent
  }
  client->queue()->sync([] {});
  EXPECT_EQ(arrivals.size(), 8u);
  std::lock_guard lock(mutex);
  for (const char* selector : kDKDaemonSelectors) {
    ASSERT_EQ(heard[selector].size(), 1u) << selector;
    EXPECT_EQ(ipcCode(heard[selector][0]), code(IpcErrorCode::ConnectionInterrupted)) << selector;
  }
}

}  // namespace
}  // namespace daskel
