// The IPC layer between real processes: a test service (ipc_test_service) in a process of its
// own, raw clients that send it every kind of bad input, well-behaved clients in this process
// and in another one, a client that leaves with replies outstanding and one killed in the
// middle of a request. Every bad connection must be closed with exactly one error line in the
// service's log while the service goes on serving everybody else.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "helpers/ChildProcess.h"
#include "platform/errors/DKErrors.h"
#include "platform/ipc/Frame.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcTestSupport.h"
#include "platform/ipc/Message.h"
#include "platform/ipc/WireCodec.h"

namespace daskel {
namespace {

namespace fs = std::filesystem;
using platform::IpcConnection;
using platform::Value;
using platform::testing::Inbox;
using namespace std::chrono_literals;

constexpr auto kDeadline = platform::testing::kIpcTestDeadline;
constexpr char kService[] = "test.ipcservice";

// ---- raw bytes ----

std::vector<std::uint8_t> header(std::uint32_t length) {
  return {static_cast<std::uint8_t>(length >> 24), static_cast<std::uint8_t>(length >> 16),
          static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)};
}

std::vector<std::uint8_t> framed(std::vector<std::uint8_t> payload) {
  auto frame = header(static_cast<std::uint32_t>(payload.size()));
  frame.insert(frame.end(), payload.begin(), payload.end());
  return frame;
}

std::vector<std::uint8_t> requestPayload(const platform::Request& request) {
  auto payload = platform::encodeRequest(request);
  EXPECT_TRUE(payload);
  return payload ? *payload : std::vector<std::uint8_t>{};
}

// {"op": op, "args": <argsItem>} with the arguments already encoded, for items the encoder
// refuses to write.
std::vector<std::uint8_t> requestWithRawArgs(const std::string& op,
                                             const std::vector<std::uint8_t>& argsItem) {
  std::vector<std::uint8_t> payload;
  platform::WireCodec::appendMapHead(payload, 2);
  platform::WireCodec::appendText(payload, "op");
  platform::WireCodec::appendText(payload, op);
  platform::WireCodec::appendText(payload, "args");
  payload.insert(payload.end(), argsItem.begin(), argsItem.end());
  return payload;
}

struct BadInput {
  std::string what;
  std::vector<std::uint8_t> bytes;
  // Text the service's error line must hold.
  std::string reason;
  // Stop sending (half-close) after the bytes, as a client that gives up in mid-frame.
  bool thenClose = false;
};

std::vector<BadInput> badInputs() {
  std::vector<BadInput> inputs;
  inputs.push_back({"a frame of length 0", header(0), "a frame of length 0"});
  inputs.push_back({"a length over 4 MiB", header(4 * 1024 * 1024 + 1),
                    "a frame of length 4194305, over the limit of 4194304"});
  {
    auto bytes = header(100);
    bytes.resize(bytes.size() + 10, 0x61);
    inputs.push_back({"a truncated frame, then close", bytes,
                      "the stream ended inside a frame (10 of 100 bytes)", true});
  }
  {
    auto payload = requestPayload({"note:", {Value(1)}, std::nullopt});
    payload.push_back(0x00);
    inputs.push_back({"trailing bytes inside a frame", framed(payload),
                      "1 trailing bytes after the message"});
  }
  inputs.push_back({"text that is not UTF-8",
                    framed(requestWithRawArgs("note:", {0x81, 0x62, 0xff, 0xfe})),
                    "a text string is not valid UTF-8"});
  inputs.push_back(
      {"a URL where only a string is allowed",
       framed(requestPayload({"echo:completion:",
                              {Value(*platform::Url::fromString("file:///etc/passwd"))},
                              1u})),
       "argument 0 of echo:completion:: is a URL where only String is allowed"});
  {
    Value::Dictionary c{{"c", Value(Value::Data{1, 2, 3})}};
    Value::Dictionary b{{"b", Value(c)}};
    Value::Dictionary a{{"a", Value(b)}};
    inputs.push_back({"a forbidden class three levels deep inside a dictionary",
                      framed(requestPayload({"store:completion:", {Value(a)}, 2u})),
                      "argument 0 of store:completion:: holds a Data where only String or "
                      "Dictionary is allowed (depth 3)"});
  }
  inputs.push_back({"an unknown operation",
                    framed(requestPayload({"launchMissiles:", {}, std::nullopt})),
                    "IpcTest has no operation \"launchMissiles:\""});
  inputs.push_back({"the wrong number of arguments",
                    framed(requestPayload({"echo:completion:", {Value("a"), Value("b")}, 3u})),
                    "echo:completion: takes 1 argument, the message has 2"});
  {
    std::vector<std::uint8_t> nested(70, 0x81);  // arrays of one element, 70 deep
    nested.push_back(0x80);
    inputs.push_back({"nesting over 64 levels", framed(requestWithRawArgs("note:", nested)),
                      "nesting deeper than 64 levels"});
  }
  inputs.push_back({"a reply nobody asked for",
                    framed(*platform::encodeReply(platform::Reply{77, {}})),
                    "a reply to id 77, which no request of this side awaits"});
  return inputs;
}

int connectRaw(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0)
      << std::strerror(errno);
  return fd;
}

// Writes what the peer takes; a peer that closes early (it refused a header) is fine.
void writeBytes(int fd, const std::vector<std::uint8_t>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) {
      return;
    }
    done += static_cast<std::size_t>(n);
  }
}

// True when the peer closed the connection before the deadline.
bool closedByPeer(int fd) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd p{fd, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) {
      return false;
    }
    std::uint8_t buffer[4096];
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n == 0 || (n < 0 && errno == ECONNRESET)) {
      return true;
    }
  }
}

class IpcServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/daskel-ipc-service-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
    runtime_ = root_ / "run";
    logFile_ = root_ / "service.log";
    ::setenv("DASKEL_RUNTIME_DIR", runtime_.c_str(), 1);
    std::string error;
    service_ = testing::ChildProcess::start(
        DASKEL_IPC_TEST_SERVICE, {kService},
        {"DASKEL_RUNTIME_DIR=" + runtime_.string(), "DASKEL_LOG_FILE=" + logFile_.string(),
         "DASKEL_LOG=global=6 console=3 file=6"},
        &error);
    ASSERT_TRUE(service_) << error;
    ASSERT_TRUE(waitForServiceLine("ready"));
  }

  void TearDown() override {
    service_.reset();  // kills and reaps
    ::unsetenv("DASKEL_RUNTIME_DIR");
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }

  // Reads the service's output until `line` comes; false at the deadline or end of output.
  bool waitForServiceLine(const std::string& line) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (std::chrono::steady_clock::now() < deadline) {
      auto next = service_->readLine(std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now()));
      if (!next) {
        return false;
      }
      if (*next == line) {
        return true;
      }
    }
    return false;
  }

  std::vector<std::string> serviceErrorLines() const {
    std::vector<std::string> lines;
    std::ifstream in(logFile_);
    for (std::string line; std::getline(in, line);) {
      if (line.find(" <Error>: ") != std::string::npos) {
        lines.push_back(line);
      }
    }
    return lines;
  }

  std::shared_ptr<IpcConnection> connectGoodClient() {
    auto connection = IpcConnection::connectToService(kService);
    EXPECT_TRUE(connection) << (connection ? "" : connection.error()->description());
    if (!connection) {
      return nullptr;
    }
    (*connection)->setRemoteInterface(platform::testing::ipcTestInterface());
    (*connection)->resume();
    return *connection;
  }

  std::string servicePath() const { return (runtime_ / kService).string(); }

  fs::path root_;
  fs::path runtime_;
  fs::path logFile_;
  std::optional<testing::ChildProcess> service_;
};

TEST_F(IpcServiceTest, EachBadInputClosesOnlyItsConnectionWithOneErrorLine) {
  auto good = connectGoodClient();
  ASSERT_TRUE(good);
  ASSERT_EQ(platform::testing::ipcEcho(good, "before"), "before");
  const std::string peer = "connection from pid " + std::to_string(::getpid());

  const auto inputs = badInputs();
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    const BadInput& input = inputs[i];
    SCOPED_TRACE(input.what);
    const int fd = connectRaw(servicePath());
    writeBytes(fd, input.bytes);
    if (input.thenClose) {
      ::shutdown(fd, SHUT_WR);
    }
    EXPECT_TRUE(closedByPeer(fd)) << "the service kept the connection open";
    ::close(fd);

    // The service logs before it closes, so the line is there now.
    const auto errors = serviceErrorLines();
    ASSERT_EQ(errors.size(), i + 1) << "expected exactly one more error line";
    EXPECT_NE(errors.back().find(peer), std::string::npos) << errors.back();
    EXPECT_NE(errors.back().find(input.reason), std::string::npos) << errors.back();

    // A well-behaved client is served as before, on its old connection and a new one.
    EXPECT_EQ(platform::testing::ipcEcho(good, "after " + input.what), "after " + input.what);
    auto fresh = connectGoodClient();
    ASSERT_TRUE(fresh);
    EXPECT_EQ(platform::testing::ipcEcho(fresh, "fresh"), "fresh");
    fresh->invalidate();
  }
  EXPECT_EQ(serviceErrorLines().size(), inputs.size());

  // A client in a process of its own too.
  auto client = testing::ChildProcess::start(DASKEL_IPC_TEST_CLIENT,
                                             {kService, "echo", "from another process"},
                                             {"DASKEL_RUNTIME_DIR=" + runtime_.string()});
  ASSERT_TRUE(client);
  EXPECT_EQ(client->readLine(std::chrono::duration_cast<std::chrono::milliseconds>(kDeadline)),
            "from another process");
  EXPECT_EQ(client->wait(), 0);
  good->invalidate();
}

TEST_F(IpcServiceTest, ClientsThatLeaveOrDieWithRepliesOutstandingDoNotDisturbTheService) {
  auto good = connectGoodClient();
  ASSERT_TRUE(good);
  const std::string self = std::to_string(::getpid());

  // A client in this process that gives up on its request.
  auto leaving = connectGoodClient();
  ASSERT_TRUE(leaving);
  auto errors = std::make_shared<Inbox<platform::ErrorPtr>>();
  leaving->remoteObjectProxyWithErrorHandler([errors](const platform::ErrorPtr& e) {
    errors->push(e);
  })->call("hold:completion:", {Value("leaving")}, [](Value::Array) { ADD_FAILURE(); });
  ASSERT_TRUE(waitForServiceLine("held " + self));
  leaving->invalidate();
  ASSERT_TRUE(errors->waitForCount(1));
  EXPECT_EQ(errors->items().front()->code, 2);  // closed locally: ConnectionInvalid
  ASSERT_TRUE(waitForServiceLine("interrupted " + self));

  // A client process killed while its request is outstanding.
  auto client = testing::ChildProcess::start(DASKEL_IPC_TEST_CLIENT, {kService, "hold"},
                                             {"DASKEL_RUNTIME_DIR=" + runtime_.string()});
  ASSERT_TRUE(client);
  ASSERT_EQ(client->readLine(std::chrono::duration_cast<std::chrono::milliseconds>(kDeadline)),
            "sent");
  const std::string clientPid = std::to_string(client->pid());
  ASSERT_TRUE(waitForServiceLine("held " + clientPid));
  client->kill(SIGKILL);
  client->wait();
  ASSERT_TRUE(waitForServiceLine("interrupted " + clientPid));

  // Answering both orphaned requests now reaches nobody and harms nothing.
  auto released = std::make_shared<Inbox<std::int64_t>>();
  good->remoteObjectProxy()->call("releaseHeldCompletion:", {}, [released](Value::Array v) {
    released->push(*v.at(0).integer());
  });
  ASSERT_TRUE(released->waitForCount(1));
  EXPECT_EQ(released->items().front(), 2);
  EXPECT_EQ(platform::testing::ipcEcho(good, "still here"), "still here");
  EXPECT_TRUE(serviceErrorLines().empty());
  good->invalidate();
}

TEST_F(IpcServiceTest, TheServiceDyingInterruptsItsClientsOutstandingRequests) {
  auto client = connectGoodClient();
  ASSERT_TRUE(client);
  auto events = std::make_shared<Inbox<std::string>>();
  client->setInterruptionHandler([events] { events->push("interrupted"); });
  client->remoteObjectProxyWithErrorHandler([events](const platform::ErrorPtr& e) {
    events->push(e->domain + " " + std::to_string(e->code));
  })->call("hold:completion:", {Value("x")}, [](Value::Array) { ADD_FAILURE(); });
  ASSERT_TRUE(waitForServiceLine("held " + std::to_string(::getpid())));
  service_->kill(SIGKILL);
  service_->wait();
  ASSERT_TRUE(events->waitForCount(2));
  EXPECT_EQ(events->items(),
            (std::vector<std::string>{std::string(kIpcErrorDomain) + " 1", "interrupted"}));
}

TEST_F(IpcServiceTest, ASecondInstanceOfARunningServiceFailsAndLeavesTheFirstServing) {
  auto second = testing::ChildProcess::start(
      DASKEL_IPC_TEST_SERVICE, {kService},
      {"DASKEL_RUNTIME_DIR=" + runtime_.string(), "DASKEL_LOG=console=3"});
  ASSERT_TRUE(second);
  const int status = second->wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
  auto client = connectGoodClient();
  ASSERT_TRUE(client);
  EXPECT_EQ(platform::testing::ipcEcho(client, "first"), "first");
  client->invalidate();
}

TEST_F(IpcServiceTest, ARestartedServiceReplacesTheSocketItsKilledPredecessorLeft) {
  service_->kill(SIGKILL);
  service_->wait();
  ASSERT_TRUE(fs::exists(servicePath()));  // left behind
  ASSERT_FALSE(IpcConnection::connectToService(kService));

  std::string error;
  service_ = testing::ChildProcess::start(
      DASKEL_IPC_TEST_SERVICE, {kService},
      {"DASKEL_RUNTIME_DIR=" + runtime_.string(), "DASKEL_LOG_FILE=" + logFile_.string()},
      &error);
  ASSERT_TRUE(service_) << error;
  ASSERT_TRUE(waitForServiceLine("ready"));
  auto client = connectGoodClient();
  ASSERT_TRUE(client);
  EXPECT_EQ(platform::testing::ipcEcho(client, "again"), "again");
  client->invalidate();
}

}  // namespace
}  // namespace daskel
