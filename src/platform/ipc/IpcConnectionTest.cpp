// IpcConnection over socketpairs: delivery order and concurrency, reply blocks, closing and
// the error handlers, refusals (from a raw peer that writes whatever bytes it likes) and flow
// control.
#include "platform/ipc/IpcConnection.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/dispatch/TestLatch.h"
#include "platform/errors/DKErrors.h"
#include "platform/ipc/Frame.h"
#include "platform/ipc/IpcHandlerTable.h"
#include "platform/ipc/IpcTestSupport.h"
#include "platform/ipc/Message.h"
#include "platform/log/CapturingLogSink.h"

namespace daskel::platform {
namespace {

using namespace std::chrono_literals;

using testing::Inbox;
constexpr auto kDeadline = testing::kIpcTestDeadline;

IpcInterface testInterface() {
  return testing::ipcTestInterface();
}

struct Pair {
  std::shared_ptr<IpcConnection> client;
  std::shared_ptr<IpcConnection> server;
};

std::pair<int, int> makeSocketPair() {
  int fds[2];
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  return {fds[0], fds[1]};
}

// A client whose remote interface is the test interface, and a server exporting `object`.
Pair makePair(std::shared_ptr<IpcExportedObject> object) {
  auto [a, b] = makeSocketPair();
  auto client = IpcConnection::adoptSocket(a, "test client");
  auto server = IpcConnection::adoptSocket(b, "test server");
  EXPECT_TRUE(client && server);
  (*client)->setRemoteInterface(testInterface());
  (*server)->setExportedInterface(testInterface());
  (*server)->setExportedObject(std::move(object));
  (*server)->resume();
  (*client)->resume();
  return {*client, *server};
}

std::shared_ptr<IpcHandlerTable> echoService(Inbox<ReplyBlock>* held = nullptr) {
  return testing::ipcEchoService(held);
}

std::optional<std::string> echo(const std::shared_ptr<IpcConnection>& connection,
                                const std::string& text) {
  return testing::ipcEcho(connection, text);
}

std::int64_t ipcCode(const ErrorPtr& error) {
  EXPECT_TRUE(error);
  EXPECT_EQ(error ? error->domain : "", kIpcErrorDomain);
  return error ? error->code : -1;
}

// ---- a raw peer that speaks bytes ----

std::vector<std::uint8_t> frameOf(const Result<std::vector<std::uint8_t>>& payload) {
  EXPECT_TRUE(payload);
  auto frame = encodeFrame(*payload);
  EXPECT_TRUE(frame);
  return *frame;
}

void writeAll(int fd, const std::vector<std::uint8_t>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    ASSERT_GT(n, 0) << std::strerror(errno);
    done += static_cast<std::size_t>(n);
  }
}

// Reads one message from a raw socket; nullopt on end of stream or deadline.
std::optional<Message> readMessage(int fd, FrameReader& reader) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  for (;;) {
    auto next = reader.nextFrame();
    if (!next) {
      return std::nullopt;
    }
    if (*next) {
      auto message = decodeMessage(**next);
      EXPECT_TRUE(message);
      return message ? std::optional<Message>(*message) : std::nullopt;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd p{fd, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) {
      return std::nullopt;
    }
    std::uint8_t buffer[65536];
    ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) {
      return std::nullopt;
    }
    EXPECT_TRUE(reader.append({buffer, static_cast<std::size_t>(n)}));
  }
}

// True when the peer closed `fd` before the deadline.
bool waitForClose(int fd) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd p{fd, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) {
      return false;
    }
    std::uint8_t buffer[4096];
    ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n == 0 || (n < 0 && errno == ECONNRESET)) {
      return true;
    }
  }
}

std::size_t errorLines(const CapturingLogSink& sink) {
  std::size_t count = 0;
  for (const auto& line : sink.lines()) {
    count += line.level == kLogError ? 1 : 0;
  }
  return count;
}

// The last error line; other connections (of earlier tests) may still log debug lines.
std::string lastErrorLine(const CapturingLogSink& sink) {
  std::string last;
  for (const auto& line : sink.lines()) {
    if (line.level == kLogError) {
      last = line.message;
    }
  }
  return last;
}

// ---- round trips, order, concurrency ----

TEST(IpcConnection, RequestAndReplyMakeARoundTripAndTheReplyRunsOnTheConnectionsQueue) {
  auto pair = makePair(echoService());
  auto onQueue = std::make_shared<Inbox<bool>>();
  auto values = std::make_shared<Inbox<Value::Array>>();
  auto client = pair.client;
  client->remoteObjectProxy()->call("echo:completion:", {Value("hello")},
                                    [client, onQueue, values](Value::Array reply) {
                                      onQueue->push(client->queue()->isCurrent());
                                      values->push(std::move(reply));
                                    });
  ASSERT_TRUE(values->waitForCount(1));
  EXPECT_EQ(values->items().front(), Value::Array{Value("hello")});
  EXPECT_TRUE(onQueue->items().front());
  pair.client->invalidate();
}

TEST(IpcConnection, AHandlerBlockedUntilAnotherConnectionsRequestIsAnsweredDoesNotStopIt) {
  // The first connection's handler waits, where nobody can see it, until the test has had
  // the second connection's echo answered: the second connection must be served meanwhile.
  auto inside = std::make_shared<TestLatch>(1);
  auto answered = std::make_shared<TestLatch>(1);
  auto sawAnswer = std::make_shared<Inbox<bool>>();
  auto blockingTable = std::make_shared<IpcHandlerTable>();
  blockingTable->on("note:", [inside, answered, sawAnswer](Value::Array, std::optional<ReplyBlock>) {
    inside->countDown();
    sawAnswer->push(answered->waitFor(kDeadline));
  });
  auto blocked = makePair(blockingTable);
  auto served = makePair(echoService());

  blocked.client->remoteObjectProxy()->call("note:", {Value(1)});
  ASSERT_TRUE(inside->waitFor());
  const auto reply = echo(served.client, "while the other waits");
  answered->countDown();
  EXPECT_EQ(reply, "while the other waits");
  ASSERT_TRUE(sawAnswer->waitForCount(1));
  EXPECT_TRUE(sawAnswer->items().front());
  // The blocked connection itself works on afterwards.
  blocked.client->remoteObjectProxy()->call("note:", {Value(2)});
  ASSERT_TRUE(sawAnswer->waitForCount(2));
  blocked.client->invalidate();
  served.client->invalidate();
}

TEST(IpcConnection, AHandlerMayWaitForItsOwnCallOverAnotherConnection) {
  // A handler that calls another service and waits for the answer, as a service asking a
  // provider does: the request, its delivery and the reply all need the loop meanwhile.
  auto downstream = makePair(echoService());
  auto results = std::make_shared<Inbox<std::string>>();
  auto table = std::make_shared<IpcHandlerTable>();
  table->on("echo:completion:", [downstream = downstream.client](Value::Array args,
                                                                 std::optional<ReplyBlock> reply) {
    const auto answer = echo(downstream, "downstream " + *args[0].string());
    (*reply)({Value(answer.value_or("(no answer)"))});
  });
  auto upstream = makePair(table);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(echo(upstream.client, std::to_string(i)), "downstream " + std::to_string(i));
  }
  upstream.client->invalidate();
  downstream.client->invalidate();
}

TEST(IpcConnection, KeepsTheOrderWhileOtherBlocksKeepTheConnectionsQueueBusy) {
  // One connection's requests arrive in the order sent, one at a time, on its queue, also
  // while blocks submitted from another thread make that queue busy at random moments (so
  // some requests wait in the queue and others find it idle).
  constexpr int kCount = 3000;
  auto received = std::make_shared<Inbox<std::int64_t>>();
  auto probe = std::make_shared<std::atomic<int>>(0);
  auto faults = std::make_shared<std::atomic<int>>(0);
  auto serverHolder = std::make_shared<std::weak_ptr<IpcConnection>>();
  auto table = std::make_shared<IpcHandlerTable>();
  table->on("note:", [=](Value::Array args, std::optional<ReplyBlock>) {
    if (probe->fetch_add(1) != 0) {
      ++*faults;
    }
    if (auto server = serverHolder->lock(); !server || !server->queue()->isCurrent()) {
      ++*faults;
    }
    received->push(*args[0].integer());
    probe->fetch_sub(1);
  });
  auto pair = makePair(table);
  *serverHolder = pair.server;
  std::atomic<bool> sending{true};
  std::thread busy([&, queue = pair.server->queue()] {
    while (sending) {
      queue->async([probe, faults] {
        if (probe->fetch_add(1) != 0) {
          ++*faults;
        }
        std::this_thread::yield();
        probe->fetch_sub(1);
      });
      std::this_thread::yield();
    }
  });
  auto proxy = pair.client->remoteObjectProxy();
  for (int i = 0; i < kCount; ++i) {
    proxy->call("note:", {Value(i)});
  }
  const bool all = received->waitForCount(kCount);
  sending = false;
  busy.join();
  ASSERT_TRUE(all);
  const auto items = received->items();
  for (int i = 0; i < kCount; ++i) {
    ASSERT_EQ(items[i], i) << "request " << i << " was delivered out of order";
  }
  EXPECT_EQ(faults->load(), 0) << "blocks overlapped or a request ran off the queue";
  pair.client->invalidate();
}

TEST(IpcConnection, KeepsFramesWholeWhenManyThreadsSendLargeMessagesAtOnce) {
  auto pair = makePair(echoService());
  constexpr int kThreads = 4;
  constexpr int kPerThread = 12;
  auto answers = std::make_shared<Inbox<bool>>();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      auto proxy = pair.client->remoteObjectProxy();
      for (int i = 0; i < kPerThread; ++i) {
        // Large enough that writes block and finish later from the loop.
        std::string text(300 * 1024 + t * 1000 + i, static_cast<char>('a' + t));
        proxy->call("echo:completion:", {Value(text)}, [answers, text](Value::Array values) {
          answers->push(values.at(0) == Value(text));
        });
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  ASSERT_TRUE(answers->waitForCount(kThreads * kPerThread));
  for (bool matched : answers->items()) {
    EXPECT_TRUE(matched);
  }
  EXPECT_TRUE(pair.client->isValid());
  pair.client->invalidate();
}

TEST(IpcConnection, PausesReadingWhileRequestsPileUpAndLosesNoneOfThem) {
  // The first request blocks the server's queue until every other one has been sent: far
  // more than the read pause allows, so the sender's writes back up and resume later.
  constexpr int kCount = 24;
  auto gate = std::make_shared<TestLatch>(1);
  auto received = std::make_shared<Inbox<std::size_t>>();
  auto table = std::make_shared<IpcHandlerTable>();
  table->on("blob:", [gate, received](Value::Array args, std::optional<ReplyBlock>) {
    if (received->size() == 0) {
      gate->waitFor(kDeadline);
    }
    received->push(args[0].data()->size());
  });
  auto pair = makePair(table);
  auto proxy = pair.client->remoteObjectProxy();
  for (int i = 0; i < kCount; ++i) {
    proxy->call("blob:", {Value(Value::Data(1024 * 1024 + i, static_cast<std::uint8_t>(i)))});
  }
  gate->countDown();
  ASSERT_TRUE(received->waitForCount(kCount));
  const auto sizes = received->items();
  for (int i = 0; i < kCount; ++i) {
    EXPECT_EQ(sizes[i], 1024u * 1024u + i);
  }
  pair.client->invalidate();
}

// ---- reply blocks ----

TEST(IpcConnection, AReplyBlockMayBeCalledFromAnotherThread) {
  auto table = std::make_shared<IpcHandlerTable>();
  std::vector<std::thread> threads;
  std::mutex threadsMutex;
  table->on("echo:completion:", [&](Value::Array args, std::optional<ReplyBlock> reply) {
    std::lock_guard lock(threadsMutex);
    threads.emplace_back([reply = *reply, text = args[0]] { reply({text}); });
  });
  auto pair = makePair(table);
  EXPECT_EQ(echo(pair.client, "from a thread"), "from a thread");
  pair.client->invalidate();
  std::lock_guard lock(threadsMutex);
  for (auto& thread : threads) {
    thread.join();
  }
}

// Sets up a connection whose server calls the reply block of echo twice, and returns what
// the client saw: the number of replies and whether a later request still works.
std::pair<std::size_t, bool> callReplyTwice() {
  auto table = std::make_shared<IpcHandlerTable>();
  auto first = std::make_shared<std::atomic<bool>>(true);
  table->on("echo:completion:", [first](Value::Array args, std::optional<ReplyBlock> reply) {
    (*reply)({args[0]});
    if (first->exchange(false)) {
      (*reply)({Value("again")});
    }
  });
  auto pair = makePair(table);
  auto replies = std::make_shared<Inbox<Value::Array>>();
  pair.client->remoteObjectProxy()->call("echo:completion:", {Value("once")},
                                         [replies](Value::Array v) { replies->push(v); });
  // A second reply to the same id would make the client refuse it and close, so the next
  // request would fail.
  const bool stillWorks = echo(pair.client, "next") == "next";
  const std::size_t count = replies->size();
  pair.client->invalidate();
  return {count, stillWorks};
}

#ifdef NDEBUG
TEST(IpcConnection, AReplyBlockCalledTwiceSendsOnlyTheFirstReply) {
  CapturingLogSink::Scope log;
  auto [replies, stillWorks] = callReplyTwice();
  EXPECT_EQ(replies, 1u);
  EXPECT_TRUE(stillWorks);
  EXPECT_EQ(log->count(kLogError, "The reply block of echo:completion: was called a second "
                                  "time; the call is ignored"),
            1u);
}
#else
TEST(IpcConnectionDeathTest, AReplyBlockCalledTwiceAbortsDebugBuilds) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(callReplyTwice(), "called a second time");
}
#endif

TEST(IpcConnection, ADroppedReplyBlockSendsNothingAndTheConnectionLivesOn) {
  auto pair = makePair(echoService());  // hold: drops its reply block
  auto heldAnswered = std::make_shared<std::atomic<bool>>(false);
  pair.client->remoteObjectProxy()->call("hold:completion:", {Value("x")},
                                         [heldAnswered](Value::Array) { heldAnswered->store(true); });
  // The server handles hold before echo and writes in order: a reply to hold would have
  // arrived before echo's.
  EXPECT_EQ(echo(pair.client, "after"), "after");
  EXPECT_FALSE(heldAnswered->load());
  EXPECT_TRUE(pair.client->isValid());
  EXPECT_TRUE(pair.server->isValid());
  pair.client->invalidate();
}

TEST(IpcConnection, AReplyBlockCalledAfterItsConnectionClosedDoesNothing) {
  CapturingLogSink::Scope log;
  Inbox<ReplyBlock> held;
  auto pair = makePair(echoService(&held));
  auto serverClosed = std::make_shared<TestLatch>(1);
  pair.server->setInvalidationHandler([serverClosed] { serverClosed->countDown(); });
  pair.client->remoteObjectProxy()->call("hold:completion:", {Value("x")}, [](Value::Array) {});
  ASSERT_TRUE(held.waitForCount(1));
  pair.client->invalidate();
  ASSERT_TRUE(serverClosed->waitFor());
  held.items().front()({});
  EXPECT_TRUE(held.items().front().wasCalled());
  EXPECT_EQ(errorLines(log.sink()), 0u);
}

TEST(IpcConnection, AReplyOutsideTheInterfaceClosesTheConnectionInsteadOfLeavingThePeerWaiting) {
  CapturingLogSink::Scope log;
  auto table = std::make_shared<IpcHandlerTable>();
  table->on("echo:completion:", [](Value::Array, std::optional<ReplyBlock> reply) {
    (*reply)({Value(42)});  // echo replies with a string
  });
  auto pair = makePair(table);
  auto errors = std::make_shared<Inbox<ErrorPtr>>();
  pair.client->remoteObjectProxyWithErrorHandler([errors](const ErrorPtr& e) { errors->push(e); })
      ->call("echo:completion:", {Value("x")}, [](Value::Array) { ADD_FAILURE() << "replied"; });
  ASSERT_TRUE(errors->waitForCount(1));
  EXPECT_EQ(ipcCode(errors->items().front()), 1);  // the peer closed
  EXPECT_EQ(errorLines(log.sink()), 1u);
  EXPECT_FALSE(pair.server->isValid());
}

// ---- closing ----

TEST(IpcConnection, InvalidatingRunsTheErrorHandlerOfEachProxyWithRepliesOutstandingOnce) {
  Inbox<ReplyBlock> held;
  auto pair = makePair(echoService(&held));
  std::shared_ptr<Inbox<ErrorPtr>> errorsA, errorsB, errorsC;
  std::shared_ptr<IpcRemoteProxy> a, b, c;
  for (auto [errors, proxy] : {std::pair{&errorsA, &a}, {&errorsB, &b}, {&errorsC, &c}}) {
    *errors = std::make_shared<Inbox<ErrorPtr>>();
    *proxy = pair.client->remoteObjectProxyWithErrorHandler(
        [errors = *errors](const ErrorPtr& e) { errors->push(e); });
  }
  auto replies = std::make_shared<std::atomic<int>>(0);
  for (int i = 0; i < 3; ++i) {
    a->call("hold:completion:", {Value("a")}, [replies](Value::Array) { ++*replies; });
  }
  b->call("hold:completion:", {Value("b")}, [replies](Value::Array) { ++*replies; });
  c->call("note:", {Value(1)});  // no reply awaited
  ASSERT_TRUE(held.waitForCount(4));
  auto invalidated = std::make_shared<TestLatch>(1);
  pair.client->setInvalidationHandler([invalidated] { invalidated->countDown(); });

  pair.client->invalidate();
  pair.client->invalidate();
  ASSERT_TRUE(invalidated->waitFor());  // runs after the error handlers

  ASSERT_EQ(errorsA->size(), 1u);
  ASSERT_EQ(errorsB->size(), 1u);
  EXPECT_EQ(errorsC->size(), 0u);
  EXPECT_EQ(ipcCode(errorsA->items().front()), 2);  // ConnectionInvalid
  EXPECT_EQ(ipcCode(errorsB->items().front()), 2);
  EXPECT_EQ(replies->load(), 0);
  EXPECT_FALSE(pair.client->isValid());
  EXPECT_EQ(ipcCode(pair.client->closeError()), 2);
}

TEST(IpcConnection, ThePeerClosingGivesConnectionInterruptedAndRunsBothHandlers) {
  Inbox<ReplyBlock> held;
  auto pair = makePair(echoService(&held));
  auto events = std::make_shared<Inbox<std::string>>();
  pair.client->setInterruptionHandler([events] { events->push("interrupted"); });
  pair.client->setInvalidationHandler([events] { events->push("invalidated"); });
  auto proxy = pair.client->remoteObjectProxyWithErrorHandler([events](const ErrorPtr& e) {
    events->push("error " + std::to_string(e->code));
  });
  proxy->call("hold:completion:", {Value("x")}, [](Value::Array) {});
  ASSERT_TRUE(held.waitForCount(1));
  pair.server->invalidate();
  ASSERT_TRUE(events->waitForCount(3));
  EXPECT_EQ(events->items(), (std::vector<std::string>{"error 1", "interrupted", "invalidated"}));
}

TEST(IpcConnection, ACallOnAClosedConnectionFailsWithConnectionInvalid) {
  auto pair = makePair(echoService());
  pair.client->invalidate();
  auto errors = std::make_shared<Inbox<ErrorPtr>>();
  auto proxy = pair.client->remoteObjectProxyWithErrorHandler(
      [errors](const ErrorPtr& e) { errors->push(e); });
  proxy->call("echo:completion:", {Value("x")}, [](Value::Array) { ADD_FAILURE(); });
  proxy->call("note:", {Value(1)});  // nobody waits: nothing to report
  ASSERT_TRUE(errors->waitForCount(1));
  EXPECT_EQ(ipcCode(errors->items().front()), 2);
  // Flush the queue, then make sure the call without a reply reported nothing.
  pair.client->queue()->sync([] {});
  EXPECT_EQ(errors->size(), 1u);
}

TEST(IpcConnection, AConnectionNobodyResumedClosesItsSocketWhenDropped) {
  auto [a, b] = makeSocketPair();
  {
    auto connection = IpcConnection::adoptSocket(a, "dropped");
    ASSERT_TRUE(connection);
  }
  EXPECT_TRUE(waitForClose(b));
  ::close(b);
}

TEST(IpcConnection, AResumedConnectionStaysOpenWithoutOwnersUntilThePeerCloses) {
  auto received = std::make_shared<Inbox<std::int64_t>>();
  auto table = std::make_shared<IpcHandlerTable>();
  table->on("note:", [received](Value::Array args, std::optional<ReplyBlock>) {
    received->push(*args[0].integer());
  });
  auto [a, b] = makeSocketPair();
  std::weak_ptr<IpcConnection> weak;
  {
    auto server = IpcConnection::adoptSocket(b, "unowned server");
    ASSERT_TRUE(server);
    (*server)->setExportedInterface(testInterface());
    (*server)->setExportedObject(table);
    (*server)->resume();
    weak = *server;
  }
  auto client = IpcConnection::adoptSocket(a, "client");
  ASSERT_TRUE(client);
  (*client)->setRemoteInterface(testInterface());
  (*client)->remoteObjectProxy()->call("note:", {Value(7)});
  ASSERT_TRUE(received->waitForCount(1));
  EXPECT_FALSE(weak.expired());
  (*client)->invalidate();
  // Closing releases the server's hold on itself.
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  while (!weak.expired() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_TRUE(weak.expired());
}

// ---- refusals ----

TEST(IpcConnection, ARequestTheRemoteInterfaceLacksIsRefusedLocallyAndTheConnectionLives) {
  CapturingLogSink::Scope log;
  auto pair = makePair(echoService());
  auto errors = std::make_shared<Inbox<ErrorPtr>>();
  auto proxy = pair.client->remoteObjectProxyWithErrorHandler(
      [errors](const ErrorPtr& e) { errors->push(e); });
  proxy->call("noSuchOperation:completion:", {Value("x")}, [](Value::Array) { ADD_FAILURE(); });
  proxy->call("echo:completion:", {Value(1)}, [](Value::Array) { ADD_FAILURE(); });
  ASSERT_TRUE(errors->waitForCount(2));
  EXPECT_EQ(ipcCode(errors->items()[0]), 3);
  EXPECT_EQ(ipcCode(errors->items()[1]), 3);
  EXPECT_EQ(errorLines(log.sink()), 2u);
  EXPECT_EQ(echo(pair.client, "alive"), "alive");
  pair.client->invalidate();
}

// A connection under test whose peer is a raw socket.
struct RawPeer {
  std::shared_ptr<IpcConnection> connection;
  int fd = -1;
  FrameReader reader;
  ~RawPeer() {
    if (connection) connection->invalidate();
    if (fd >= 0) ::close(fd);
  }
};

void makeRawPeer(RawPeer& peer, bool exportsInterface) {
  auto [a, b] = makeSocketPair();
  auto connection = IpcConnection::adoptSocket(a, "under test");
  ASSERT_TRUE(connection);
  peer.connection = *connection;
  peer.fd = b;
  peer.connection->setRemoteInterface(testInterface());
  if (exportsInterface) {
    peer.connection->setExportedInterface(testInterface());
    peer.connection->setExportedObject(echoService());
  }
  peer.connection->resume();
}

TEST(IpcConnection, RefusesAReplyOfAClassTheInterfaceDoesNotAllow) {
  CapturingLogSink::Scope log;
  RawPeer peer;
  makeRawPeer(peer, false);
  auto errors = std::make_shared<Inbox<ErrorPtr>>();
  peer.connection->remoteObjectProxyWithErrorHandler([errors](const ErrorPtr& e) {
    errors->push(e);
  })->call("echo:completion:", {Value("x")}, [](Value::Array) { ADD_FAILURE() << "delivered"; });
  auto request = readMessage(peer.fd, peer.reader);
  ASSERT_TRUE(request && std::holds_alternative<Request>(*request));
  const std::uint64_t id = *std::get<Request>(*request).reply;
  writeAll(peer.fd, frameOf(encodeReply(Reply{id, {Value(*Url::fromString("file:///x"))}})));
  ASSERT_TRUE(waitForClose(peer.fd));
  ASSERT_TRUE(errors->waitForCount(1));
  EXPECT_EQ(ipcCode(errors->items().front()), 3);
  ASSERT_EQ(errorLines(log.sink()), 1u);
  const std::string line = lastErrorLine(log.sink());
  EXPECT_NE(line.find("connection under test (pid " + std::to_string(::getpid())),
            std::string::npos)
      << line;
  EXPECT_NE(line.find("reply value 0 of echo:completion:: is a URL where only String is allowed"),
            std::string::npos)
      << line;
}

TEST(IpcConnection, RefusesStrayRepliesAndRequestsItCannotServeByClosing) {
  const struct {
    const char* what;
    bool exportsInterface;
    Result<std::vector<std::uint8_t>> payload;
    const char* line;  // a fragment of the one error line, or "" when any will do
  } cases[] = {
      {"a reply nobody waits for", false, encodeReply(Reply{99, {}}),
       "a reply to id 99, which no request of this side awaits"},
      {"a request with no exported interface", false,
       encodeRequest(Request{"note:", {Value(1)}, std::nullopt}), ""},
      {"a request without the reply id its operation needs", true,
       encodeRequest(Request{"echo:completion:", {Value("x")}, std::nullopt}), ""},
      {"a reply id on an operation without reply", true,
       encodeRequest(Request{"note:", {Value(1)}, 5u}), ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    CapturingLogSink::Scope log;
    RawPeer peer;
    makeRawPeer(peer, c.exportsInterface);
    writeAll(peer.fd, frameOf(c.payload));
    ASSERT_TRUE(waitForClose(peer.fd));
    ASSERT_EQ(errorLines(log.sink()), 1u);
    EXPECT_NE(lastErrorLine(log.sink()).find(c.line), std::string::npos);
  }
}

TEST(IpcConnection, DeliversTheRequestsBeforeAViolationAndNothingAfterIt) {
  CapturingLogSink::Scope log;
  auto received = std::make_shared<Inbox<std::int64_t>>();
  auto table = std::make_shared<IpcHandlerTable>();
  table->on("note:", [received](Value::Array args, std::optional<ReplyBlock>) {
    received->push(*args[0].integer());
  });
  auto [a, b] = makeSocketPair();
  auto server = IpcConnection::adoptSocket(a, "server");
  ASSERT_TRUE(server);
  (*server)->setExportedInterface(testInterface());
  (*server)->setExportedObject(table);
  std::vector<std::uint8_t> bytes;
  for (int i : {1, 2}) {
    auto frame = frameOf(encodeRequest(Request{"note:", {Value(i)}, std::nullopt}));
    bytes.insert(bytes.end(), frame.begin(), frame.end());
  }
  const std::uint8_t zeroLength[] = {0, 0, 0, 0};
  bytes.insert(bytes.end(), std::begin(zeroLength), std::end(zeroLength));
  auto after = frameOf(encodeRequest(Request{"note:", {Value(3)}, std::nullopt}));
  bytes.insert(bytes.end(), after.begin(), after.end());
  writeAll(b, bytes);  // all in the socket before reading starts
  (*server)->resume();
  ASSERT_TRUE(waitForClose(b));
  (*server)->queue()->sync([] {});
  EXPECT_EQ(received->items(), (std::vector<std::int64_t>{1, 2}));
  EXPECT_EQ(errorLines(log.sink()), 1u);
  ::close(b);
}

}  // namespace
}  // namespace daskel::platform
