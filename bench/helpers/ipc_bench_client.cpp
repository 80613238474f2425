// ipc_bench_client MODE TARGET MILLISECONDS: one closed-loop client of the IPC throughput
// benchmark. Connects, prints "ready", waits for SIGUSR1, then sends one request at a time
// for MILLISECONDS, each after the previous reply, and prints "done <replies> <nanoseconds>".
//   raw      TARGET is a socket path; sends the benchmark's request frame and checks that the
//            reply is, byte for byte, the benchmark's reply frame. The same program, bytes and
//            checks serve the Daskel service and the epoll echo server alike.
//   library  TARGET is a service name; calls echoString: through DaskelClient and checks the
//            string that comes back.
// A wrong reply prints "error <what>" and exits 1.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "IpcBenchProtocol.h"
#include "client/DaskelClient.h"
#include "helpers/HelperProcess.h"
#include "platform/log/Log.h"

namespace {

using Clock = std::chrono::steady_clock;

int connectTo(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return -1;
  }
  return fd;
}

bool writeAll(int fd, const std::vector<std::uint8_t>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

bool readExactly(int fd, std::uint8_t* buffer, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = ::read(fd, buffer + done, size - done);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

int runRaw(const std::string& path, Clock::duration duration) {
  const int fd = connectTo(path);
  if (fd < 0) {
    return daskel::bench::fail("cannot connect to " + path + ": " + std::strerror(errno));
  }
  const auto request = daskel::bench::ipcBenchRequestFrame();
  const auto expected = daskel::bench::ipcBenchReplyFrame();
  std::vector<std::uint8_t> reply(expected.size());
  const int status = daskel::bench::runClosedLoop(duration, [&](long) -> std::optional<std::string> {
    if (!writeAll(fd, request) || !readExactly(fd, reply.data(), reply.size())) {
      return "the connection to " + path + " ended";
    }
    if (reply != expected) {
      return std::string("the reply differs from the expected bytes");
    }
    return std::nullopt;
  });
  ::close(fd);
  return status;
}

int runLibrary(const std::string& service, Clock::duration duration) {
  auto client = daskel::DaskelClient::connect(service, daskel::bench::ipcBenchInterface());
  if (!client) {
    return daskel::bench::fail((*client.error()).description());
  }
  const daskel::platform::Value payload(daskel::bench::kIpcBenchPayload);
  return daskel::bench::runClosedLoop(duration, [&](long) -> std::optional<std::string> {
    auto reply = (*client)->callAndWait(daskel::bench::kIpcBenchEcho, {payload});
    if (!reply) {
      return reply.error()->description();
    }
    if (reply->size() != 1 || (*reply)[0] != payload) {
      return std::string("the reply is not the string sent");
    }
    return std::nullopt;
  });
}

}  // namespace

int main(int argc, char** argv) {
  daskel::bench::prepareHelperProcess();
  daskel::bench::blockStartSignal();
  if (argc != 4) {
    std::fprintf(stderr, "usage: ipc_bench_client raw|library TARGET MILLISECONDS\n");
    return 2;
  }
  daskel::platform::setLogLevels(
      {daskel::platform::kLogError, daskel::platform::kLogError, daskel::platform::kLogError});
  const std::string mode = argv[1];
  const auto duration = std::chrono::milliseconds(std::atol(argv[3]));
  if (mode == "raw") {
    return runRaw(argv[2], duration);
  }
  if (mode == "library") {
    return runLibrary(argv[2], duration);
  }
  std::fprintf(stderr, "ipc_bench_client: unknown mode %s\n", mode.c_str());
  return 2;
}
