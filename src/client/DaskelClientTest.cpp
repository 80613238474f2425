// DaskelClient against a real IpcListener in a temporary runtime directory, serving the IPC
// test protocol (echo answers at once, hold keeps or drops its reply block): replies reach the
// right handler, every call hears exactly once however the connection ends, blocking calls
// time out cleanly, and connecting to a missing service says which one and where.
#include "client/DaskelClient.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "client/testing/DrainGuard.h"
#include "platform/dispatch/TestLatch.h"
#include "platform/errors/DKErrors.h"
#include "platform/ipc/IpcListener.h"
#include "platform/ipc/IpcTestSupport.h"
#include "platform/log/CapturingLogSink.h"

namespace daskel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using platform::ErrorPtr;
using platform::IpcConnection;
using platform::IpcListener;
using platform::ReplyBlock;
using platform::Result;
using platform::Value;
using platform::testing::Inbox;
using testing::DrainGuard;
using Values = DaskelClient::Values;

constexpr char kService[] = "com.example.ClientTest";

// Serves the test protocol on every connection and keeps the connections, so a test can
// close them from the service's side. hold: puts its reply block in `held`, or drops it.
class TestService : public platform::IpcListenerDelegate {
 public:
  explicit TestService(bool keepsHeldReplies) : keepsHeldReplies_(keepsHeldReplies) {}

  bool shouldAcceptNewConnection(std::shared_ptr<IpcConnection> connection) override {
    connection->setExportedInterface(platform::testing::ipcTestInterface());
    connection->setExportedObject(
        platform::testing::ipcEchoService(keepsHeldReplies_ ? &held : nullptr));
    // Listed before it runs: a test that saw a request arrive may close it at once.
    connections.push(connection);
    connection->resume();
    return true;
  }

  void closeConnections() {
    for (const auto& connection : connections.items()) {
      connection->invalidate();
    }
  }

  Inbox<std::shared_ptr<IpcConnection>> connections;
  Inbox<ReplyBlock> held;

 private:
  const bool keepsHeldReplies_;
};

// Each call's outcomes, by the call's tag; a handler that ran twice shows as two entries.
class Outcomes : public std::enable_shared_from_this<Outcomes> {
 public:
  DaskelClient::ReplyHandler handlerFor(std::string tag) {
    return [self = shared_from_this(), tag](Result<Values> outcome) {
      {
        std::lock_guard lock(self->mutex_);
        self->byTag_[tag].push_back(std::move(outcome));
      }
      self->arrived_.push(tag);
    };
  }
  bool waitForCount(std::size_t count) { return arrived_.waitForCount(count); }
  std::size_t count() const { return arrived_.size(); }
  std::map<std::string, std::vector<Result<Values>>> byTag() const {
    std::lock_guard lock(mutex_);
    return byTag_;
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::vector<Result<Values>>> byTag_;
  Inbox<std::string> arrived_;
};

class DaskelClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/daskel-client-XXXXXX";
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

  // Starts the service; the fixture keeps the listener and the delegate.
  std::shared_ptr<TestService> startService(bool keepsHeldReplies = false) {
    auto service = std::make_shared<TestService>(keepsHeldReplies);
    auto listener = IpcListener::create(kService);
    EXPECT_TRUE(listener) << listener.error()->description();
    if (!listener) {
      return service;
    }
    listener_ = *listener;
    listener_->setDelegate(service);
    listener_->resume();
    service_ = service;
    return service;
  }

  std::unique_ptr<DaskelClient> connect() {
    auto client = DaskelClient::connect(kService, platform::testing::ipcTestInterface());
    EXPECT_TRUE(client) << client.error()->description();
    return client ? std::move(*client) : nullptr;
  }

  std::string socketPath(const std::string& service) const { return (root_ / service).string(); }

  fs::path root_;
  std::shared_ptr<IpcListener> listener_;
  std::shared_ptr<TestService> service_;
};

std::int64_t ipcCode(const Result<Values>& outcome) {
  EXPECT_FALSE(outcome);
  if (outcome) {
    return -1;
  }
  EXPECT_EQ(outcome.error()->domain, kIpcErrorDomain) << outcome.error()->description();
  return outcome.error()->code;
}

// ---- connecting ----

TEST_F(DaskelClientTest, ASocketFileLeftByADeadServiceGivesTheNotRunningErrorWithItsPath) {
  // Bound and listened on, then closed: what a killed service leaves behind.
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, socketPath(kService).c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(fd, 1), 0);
  ::close(fd);

  auto client = DaskelClient::connect(kService, platform::testing::ipcTestInterface());
  ASSERT_FALSE(client);
  EXPECT_EQ(client.error()->domain, kIpcErrorDomain);
  EXPECT_EQ(client.error()->code, static_cast<std::int64_t>(IpcErrorCode::ConnectionInvalid));
  const std::string text = client.error()->localizedDescription();
  EXPECT_NE(text.find(std::string("service ") + kService + " is not running"), std::string::npos)
      << text;
  EXPECT_NE(text.find(socketPath(kService)), std::string::npos) << text;
}

// ---- replies ----

TEST_F(DaskelClientTest,
       BlockingCallsAndCallsWithHandlersFromManyThreadsAtOnceEachHearTheirOwnReply) {
  // Blocking callers read the connection themselves, one at a time; the replies they read
  // for others must still reach those others, once.
  startService();
  auto client = connect();
  ASSERT_TRUE(client);
  constexpr int kBlockingThreads = 3;
  constexpr int kHandlerThreads = 2;
  constexpr int kCallsPerThread = 60;
  auto outcomes = std::make_shared<Outcomes>();
  std::atomic<int> wrongBlockingReplies{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kBlockingThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kCallsPerThread; ++i) {
        const std::string tag = "blocking " + std::to_string(t) + "/" + std::to_string(i);
        auto reply = client->callAndWait("echo:completion:", {Value(tag)}, 20s);
        if (!reply || *reply != Values{Value(tag)}) {
          ++wrongBlockingReplies;
        }
      }
    });
  }
  for (int t = 0; t < kHandlerThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kCallsPerThread; ++i) {
        const std::string tag = "handler " + std::to_string(t) + "/" + std::to_string(i);
        client->call("echo:completion:", {Value(tag)}, outcomes->handlerFor(tag));
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrongBlockingReplies.load(), 0);
  ASSERT_TRUE(outcomes->waitForCount(kHandlerThreads * kCallsPerThread));
  client->queue()->sync([] {});
  const auto byTag = outcomes->byTag();
  ASSERT_EQ(byTag.size(), static_cast<std::size_t>(kHandlerThreads * kCallsPerThread));
  for (const auto& [tag, results] : byTag) {
    ASSERT_EQ(results.size(), 1u) << tag;
    ASSERT_TRUE(results[0]) << tag << ": " << results[0].error()->description();
    EXPECT_EQ(*results[0], Values{Value(tag)});
  }
  EXPECT_TRUE(client->isValid());
}

// ---- timeouts ----

TEST_F(DaskelClientTest, ABlockingCallTimesOutAndALateReplyIsDroppedWithoutHarm) {
  auto service = startService(/*keepsHeldReplies=*/true);
  auto client = connect();
  ASSERT_TRUE(client);
  auto timedOut = client->callAndWait("hold:completion:", {Value("late")}, 100ms);
  ASSERT_FALSE(timedOut);
  EXPECT_EQ(timedOut.error()->domain, kDaskelClientErrorDomain);
  EXPECT_EQ(timedOut.error()->code, static_cast<std::int64_t>(DaskelClientErrorCode::TimedOut));
  const std::string text = timedOut.error()->localizedDescription();
  EXPECT_NE(text.find("timed out"), std::string::npos) << text;
  EXPECT_NE(text.find("hold:completion:"), std::string::npos) << text;
  EXPECT_NE(text.find("100 ms"), std::string::npos) << text;

  ASSERT_TRUE(service->held.waitForCount(1));
  service->held.items().front()({});  // the late reply
  // The connection is unharmed: the next call gets its own reply.
  EXPECT_TRUE(client->isValid());
  auto reply = client->callAndWait("echo:completion:", {Value("next")}, 20s);
  ASSERT_TRUE(reply) << reply.error()->description();
  EXPECT_EQ(*reply, Values{Value("next")});
}

TEST_F(DaskelClientTest, ABlockingCallOnTheClientsOwnQueueFailsInsteadOfWaitingForItself) {
  startService();
  auto client = connect();
  ASSERT_TRUE(client);
  platform::CapturingLogSink::Scope log;
  Inbox<Result<Values>> nested;
  DaskelClient* const raw = client.get();
  DrainGuard drain(*client);
  client->call("echo:completion:", {Value("outer")}, [&nested, raw](Result<Values>) {
    nested.push(raw->callAndWait("echo:completion:", {Value("inner")}));
  });
  ASSERT_TRUE(nested.waitForCount(1));
  const auto outcome = nested.items().front();
  ASSERT_FALSE(outcome);
  EXPECT_EQ(outcome.error()->domain, kDaskelClientErrorDomain);
  EXPECT_EQ(outcome.error()->code, static_cast<std::int64_t>(DaskelClientErrorCode::WouldDeadlock));
  std::size_t errorLines = 0;
  for (const auto& line : log->lines()) {
    if (line.level == platform::kLogError &&
        line.message.find("client's own queue") != std::string::npos) {
      ++errorLines;
    }
  }
  EXPECT_EQ(errorLines, 1u);
}

// ---- connection loss ----

TEST_F(DaskelClientTest, TheServiceClosingMidCallFailsEveryOutstandingCallExactlyOnce) {
  auto service = startService(/*keepsHeldReplies=*/true);
  auto client = connect();
  ASSERT_TRUE(client);
  Inbox<ErrorPtr> invalidations;
  DrainGuard drain(*client);
  client->setInvalidationHandler([&invalidations](ErrorPtr error) { invalidations.push(error); });

  constexpr int kCalls = 6;
  auto outcomes = std::make_shared<Outcomes>();
  for (int i = 0; i < kCalls; ++i) {
    client->call("hold:completion:", {Value("held " + std::to_string(i))},
                 outcomes->handlerFor("held " + std::to_string(i)));
  }
  ASSERT_TRUE(service->held.waitForCount(kCalls));
  EXPECT_EQ(outcomes->count(), 0u);

  service->closeConnections();
  ASSERT_TRUE(outcomes->waitForCount(kCalls));
  ASSERT_TRUE(invalidations.waitForCount(1));
  // The service's reply blocks, called now, send nothing: the connection is gone.
  for (const auto& reply : service->held.items()) {
    reply({});
  }
  client->queue()->sync([] {});

  const auto byTag = outcomes->byTag();
  ASSERT_EQ(byTag.size(), static_cast<std::size_t>(kCalls));
  for (const auto& [tag, results] : byTag) {
    ASSERT_EQ(results.size(), 1u) << tag << " heard more than once";
    EXPECT_EQ(ipcCode(results[0]), static_cast<std::int64_t>(IpcErrorCode::ConnectionInterrupted))
        << tag;
  }
  EXPECT_EQ(invalidations.size(), 1u);
  ASSERT_TRUE(invalidations.items().front());
  EXPECT_EQ(invalidations.items().front()->code,
            static_cast<std::int64_t>(IpcErrorCode::ConnectionInterrupted));

  // Later calls fail at once, with the connection-invalid error.
  EXPECT_FALSE(client->isValid());
  auto later = client->callAndWait("echo:completion:", {Value("too late")}, 20s);
  EXPECT_EQ(ipcCode(later), static_cast<std::int64_t>(IpcErrorCode::ConnectionInvalid));
}

TEST_F(DaskelClientTest, DestroyingTheClientFailsItsOutstandingCallsWithConnectionInvalid) {
  auto service = startService(/*keepsHeldReplies=*/true);
  auto client = connect();
  ASSERT_TRUE(client);
  auto outcomes = std::make_shared<Outcomes>();
  client->call("hold:completion:", {Value("a")}, outcomes->handlerFor("a"));
  client->call("hold:completion:", {Value("b")}, outcomes->handlerFor("b"));
  ASSERT_TRUE(service->held.waitForCount(2));
  auto queue = client->queue();
  client.reset();
  ASSERT_TRUE(outcomes->waitForCount(2));
  queue->sync([] {});
  for (const auto& [tag, results] : outcomes->byTag()) {
    ASSERT_EQ(results.size(), 1u) << tag;
    EXPECT_EQ(ipcCode(results[0]), static_cast<std::int64_t>(IpcErrorCode::ConnectionInvalid));
  }
  // The service sees the connection end.
  const auto serverSide = service->connections.items().front();
  EXPECT_TRUE(platform::waitUntil([&] { return !serverSide->isValid(); }));
}

TEST_F(DaskelClientTest, ABlockingCallWaitingWithoutTimeoutReturnsWhenTheServiceCloses) {
  auto service = startService(/*keepsHeldReplies=*/true);
  auto client = connect();
  ASSERT_TRUE(client);
  std::thread closer([&service] {
    if (service->held.waitForCount(1)) {
      service->closeConnections();
    }
  });
  auto outcome = client->callAndWait("hold:completion:", {Value("waiting")});
  closer.join();
  EXPECT_EQ(ipcCode(outcome), static_cast<std::int64_t>(IpcErrorCode::ConnectionInterrupted));
}

}  // namespace
}  // namespace daskel
