// IpcRemoteProxy::callAndReadReply: a caller that reads its own reply. Its peer is a raw socket
// that writes exactly the bytes a test chooses (and when), so the tests can put other
// messages in front of the awaited reply, close in the middle of the wait, or answer after
// the caller gave up.
#include "platform/ipc/IpcRemoteProxy.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/dispatch/TestLatch.h"
#include "platform/errors/DKErrors.h"
#include "platform/ipc/Frame.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcHandlerTable.h"
#include "platform/ipc/IpcTestSupport.h"
#include "platform/ipc/Message.h"
#include "platform/log/CapturingLogSink.h"

namespace daskel::platform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::Inbox;
constexpr auto kDeadline = testing::kIpcTestDeadline;

// What reached the connection's queue, and where it ran.
struct Delivery {
  std::string what;
  std::thread::id thread;
  bool onQueue = false;
};

// A connection under test whose peer is the raw socket `fd`. The connection calls the test
// interface and exports it too, with a note: that records into `deliveries`.
struct RawPeer {
  int fd = -1;
  int connectionFd = -1;  // the connection's end, for checking that it was closed
  FrameReader reader;
  std::shared_ptr<IpcConnection> connection;
  std::shared_ptr<Inbox<Delivery>> deliveries = std::make_shared<Inbox<Delivery>>();

  RawPeer() {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    fd = fds[1];
    connectionFd = fds[0];
    auto adopted = IpcConnection::adoptSocket(fds[0], "connection under test");
    EXPECT_TRUE(adopted);
    connection = *adopted;
    connection->setRemoteInterface(testing::ipcTestInterface());
    connection->setExportedInterface(testing::ipcTestInterface());
    auto table = std::make_shared<IpcHandlerTable>();
    table->on("note:", [deliveries = deliveries, queue = connection->queue()](
                           Value::Array args, std::optional<ReplyBlock>) {
      deliveries->push({"note " + std::to_string(args.at(0).integer().value_or(-1)),
                        std::this_thread::get_id(), queue->isCurrent()});
    });
    connection->setExportedObject(table);
    connection->resume();
  }
  ~RawPeer() {
    connection->invalidate();
    ::close(fd);
  }

  // A reply handler that records `what`.
  IpcRemoteProxy::ReplyHandler recorder(std::string what) {
    return [deliveries = deliveries, queue = connection->queue(),
            what = std::move(what)](Value::Array values) {
      const std::string* text = values.empty() ? nullptr : values[0].string();
      deliveries->push({what + (text ? " " + *text : std::string()), std::this_thread::get_id(),
                        queue->isCurrent()});
    };
  }

  void write(const std::vector<std::uint8_t>& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      ASSERT_GT(n, 0) << std::strerror(errno);
      done += static_cast<std::size_t>(n);
    }
  }

  // The next request the connection sent; nullopt at end of stream or the deadline.
  std::optional<Request> readRequest() {
    const auto deadline = Clock::now() + kDeadline;
    for (;;) {
      auto next = reader.nextFrame();
      if (!next) {
        return std::nullopt;
      }
      if (*next) {
        auto message = decodeMessage(**next);
        if (!message || !std::holds_alternative<Request>(*message)) {
          ADD_FAILURE() << "not a request";
          return std::nullopt;
        }
        return std::get<Request>(*message);
      }
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
      pollfd p{fd, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) {
        return std::nullopt;
      }
      std::uint8_t buffer[65536];
      const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) {
        return std::nullopt;
      }
      EXPECT_TRUE(reader.append({buffer, static_cast<std::size_t>(n)}));
    }
  }
};

std::vector<std::uint8_t> frameOf(const Result<std::vector<std::uint8_t>>& payload) {
  EXPECT_TRUE(payload);
  auto frame = encodeFrame(*payload);
  EXPECT_TRUE(frame);
  return *frame;
}

void append(std::vector<std::uint8_t>& bytes, const std::vector<std::uint8_t>& frame) {
  bytes.insert(bytes.end(), frame.begin(), frame.end());
}

std::shared_ptr<IpcRemoteProxy> proxyCounting(const std::shared_ptr<IpcConnection>& connection,
                                              std::shared_ptr<Inbox<ErrorPtr>> errors) {
  return connection->remoteObjectProxyWithErrorHandler(
      [errors = std::move(errors)](const ErrorPtr& error) { errors->push(error); });
}

TEST(IpcRemoteProxyCallAndReadReply,
     RunsTheReplyOnTheCallersThreadAsTheQueuesTurnWhenTheQueueIsIdle) {
  RawPeer peer;
  std::thread answerer([&] {
    auto request = peer.readRequest();
    ASSERT_TRUE(request && request->reply);
    EXPECT_EQ(request->op, "echo:completion:");
    peer.write(frameOf(encodeReply(Reply{*request->reply, {Value("pong")}})));
  });
  auto errors = std::make_shared<Inbox<ErrorPtr>>();
  proxyCounting(peer.connection, errors)
      ->callAndReadReply("echo:completion:", {Value("ping")}, peer.recorder("reply"),
                         Clock::now() + kDeadline);
  answerer.join();
  // Nothing else was queued, so the reply ran before the call returned, on this thread.
  ASSERT_EQ(peer.deliveries->size(), 1u);
  const Delivery reply = peer.deliveries->items().front();
  EXPECT_EQ(reply.what, "reply pong");
  EXPECT_EQ(reply.thread, std::this_thread::get_id());
  EXPECT_TRUE(reply.onQueue);
  EXPECT_EQ(errors->size(), 0u);
}

TEST(IpcRemoteProxyCallAndReadReply,
     DeliversWhatComesBeforeTheReplyInOrderAndNotOnTheCallersThread) {
  RawPeer peer;
  auto errors = std::make_shared<Inbox<ErrorPtr>>();
  auto proxy = proxyCounting(peer.connection, errors);
  proxy->call("hold:completion:", {Value("h")}, peer.recorder("earlier reply"));
  auto held = peer.readRequest();
  ASSERT_TRUE(held && held->reply);

  std::thread answerer([&] {
    auto request = peer.readRequest();
    ASSERT_TRUE(request && request->reply);
    // One write, so the connection reads them all at once: the earlier call's reply, two
    // requests, then the awaited reply.
    std::vector<std::uint8_t> bytes;
    append(bytes, frameOf(encodeReply(Reply{*held->reply, {}})));
    append(bytes, frameOf(encodeRequest(Request{"note:", {Value(1)}, std::nullopt})));
    append(bytes, frameOf(encodeRequest(Request{"note:", {Value(2)}, std::nullopt})));
    append(bytes, frameOf(encodeReply(Reply{*request->reply, {Value("x")}})));
    peer.write(bytes);
  });
  proxy->callAndReadReply("echo:completion:", {Value("x")}, peer.recorder("awaited reply"),
                          Clock::now() + kDeadline);
  answerer.join();

  ASSERT_TRUE(peer.deliveries->waitForCount(4));
  const auto deliveries = peer.deliveries->items();
  ASSERT_EQ(deliveries.size(), 4u);
  const std::vector<std::string> expected{"earlier reply", "note 1", "note 2", "awaited reply x"};
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(deliveries[i].what, expected[i]);
    EXPECT_TRUE(deliveries[i].onQueue) << expected[i];
  }
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_NE(deliveries[i].thread, std::this_thread::get_id()) << expected[i];
  }
  EXPECT_EQ(errors->size(), 0u);
}

TEST(IpcRemoteProxyCallAndReadReply, AfterTheCallTheLoopReadsThePeersMessagesAgain) {
  RawPeer peer;
  std::thread answerer([&] {
    auto request = peer.readRequest();
    ASSERT_TRUE(request && request->reply);
    peer.write(frameOf(encodeReply(Reply{*request->reply, {Value("y")}})));
  });
  auto errors = std::make_shared<Inbox<ErrorPtr>>();
  proxyCounting(peer.connection, errors)
      ->callAndReadReply("echo:completion:", {Value("y")}, peer.recorder("reply"), std::nullopt);
  answerer.join();
  // Nobody waits on the connection now: the loop must be watching it again.
  peer.write(frameOf(encodeRequest(Request{"note:", {Value(7)}, std::nullopt})));
  ASSERT_TRUE(peer.deliveries->waitForCount(2));
  EXPECT_EQ(peer.deliveries->items().back().what, "note 7");
  EXPECT_EQ(errors->size(), 0u);
}

TEST(IpcRemoteProxyCallAndReadReply, AReplyAfterTheCallerGaveUpStillReachesItsHandlerOnce) {
  RawPeer peer;
  auto errors = std::make_shared<Inbox<ErrorPtr>>();
  auto proxy = proxyCounting(peer.connection, errors);
  // Nobody answers before the deadline.
  proxy->callAndReadReply("hold:completion:", {Value("late")}, peer.recorder("late reply"),
                          Clock::now() + 20ms);
  auto request = peer.readRequest();
  ASSERT_TRUE(request && request->reply);
  EXPECT_EQ(peer.deliveries->size(), 0u);
  peer.write(frameOf(encodeReply(Reply{*request->reply, {}})));
  ASSERT_TRUE(peer.deliveries->waitForCount(1));
  peer.connection->queue()->sync([] {});
  ASSERT_EQ(peer.deliveries->size(), 1u);
  EXPECT_EQ(peer.deliveries->items().front().what, "late reply");
  EXPECT_NE(peer.deliveries->items().front().thread, std::this_thread::get_id());
  EXPECT_EQ(errors->size(), 0u);
  EXPECT_TRUE(peer.connection->isValid());
}

TEST(IpcRemoteProxyCallAndReadReply,
     InvalidatingDuringTheWaitEndsItFailsTheCallOnceAndClosesTheSocket) {
  RawPeer peer;
  auto errors = std::make_shared<Inbox<ErrorPtr>>();
  auto proxy = proxyCounting(peer.connection, errors);
  auto returned = std::make_shared<TestLatch>(1);
  // Without a deadline: only the close can end this wait.
  std::thread caller([&] {
    proxy->callAndReadReply("hold:completion:", {Value("h")}, peer.recorder("reply"), std::nullopt);
    returned->countDown();
  });
  ASSERT_TRUE(peer.readRequest());
  peer.connection->invalidate();
  const bool ended = returned->waitFor();
  if (!ended) {
    ADD_FAILURE() << "the waiting caller did not notice the close";
    ::shutdown(peer.fd, SHUT_RDWR);  // frees it, so the test can end
  }
  caller.join();
  ASSERT_TRUE(errors->waitForCount(1));
  peer.connection->queue()->sync([] {});
  EXPECT_EQ(errors->size(), 1u);
  EXPECT_EQ(errors->items().front()->code,
            static_cast<std::int64_t>(IpcErrorCode::ConnectionInvalid));
  EXPECT_EQ(peer.deliveries->size(), 0u);
  if (ended) {
    // Closed by the time the wait ended (nothing in this test opens descriptors meanwhile).
    errno = 0;
    EXPECT_EQ(::fcntl(peer.connectionFd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
  }
}

TEST(IpcRemoteProxyCallAndReadReply, ARefusedReplyFailsTheCallOnceWithMessageRefused) {
  CapturingLogSink::Scope log;
  RawPeer peer;
  std::thread answerer([&] {
    auto request = peer.readRequest();
    ASSERT_TRUE(request && request->reply);
    // echo answers a string; an integer breaks the interface.
    peer.write(frameOf(encodeReply(Reply{*request->reply, {Value(5)}})));
  });
  auto errors = std::make_shared<Inbox<ErrorPtr>>();
  proxyCounting(peer.connection, errors)
      ->callAndReadReply("echo:completion:", {Value("z")}, peer.recorder("reply"),
                         Clock::now() + kDeadline);
  answerer.join();
  ASSERT_TRUE(errors->waitForCount(1));
  peer.connection->queue()->sync([] {});
  EXPECT_EQ(errors->size(), 1u);
  EXPECT_EQ(errors->items().front()->code, static_cast<std::int64_t>(IpcErrorCode::MessageRefused));
  EXPECT_EQ(peer.deliveries->size(), 0u);
  EXPECT_FALSE(peer.connection->isValid());
}

TEST(IpcRemoteProxyCallAndReadReply, CallersWaitingOnOneConnectionAtOnceEachGetTheirOwnReply) {
  // A raw peer that answers every echo, in arrival order, from its own thread.
  RawPeer peer;
  constexpr int kThreads = 4;
  constexpr int kCallsPerThread = 100;
  std::thread answerer([&] {
    for (int i = 0; i < kThreads * kCallsPerThread; ++i) {
      auto request = peer.readRequest();
      if (!request || !request->reply) {
        ADD_FAILURE() << "request " << i << " missing";
        return;
      }
      peer.write(frameOf(encodeReply(Reply{*request->reply, {request->args.at(0)}})));
    }
  });
  auto errors = std::make_shared<Inbox<ErrorPtr>>();
  std::atomic<int> wrong{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < kThreads; ++t) {
    callers.emplace_back([&, t] {
      for (int i = 0; i < kCallsPerThread; ++i) {
        const std::string tag = std::to_string(t) + "/" + std::to_string(i);
        auto got = std::make_shared<Inbox<std::string>>();
        proxyCounting(peer.connection, errors)
            ->callAndReadReply(
                "echo:completion:", {Value(tag)},
                [got](Value::Array values) {
                  const std::string* s = values.at(0).string();
                  got->push(s ? *s : "(not a string)");
                },
                Clock::now() + kDeadline);
        // The reply may have been read by another caller or the loop: then it comes later.
        if (!got->waitForCount(1) || got->items().front() != tag) {
          ++wrong;
        }
      }
    });
  }
  for (auto& caller : callers) {
    caller.join();
  }
  answerer.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(errors->size(), 0u);
  EXPECT_TRUE(peer.connection->isValid());
}

}  // namespace
}  // namespace daskel::platform
