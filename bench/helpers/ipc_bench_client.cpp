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

void waitForStart() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  int signal = 0;
  sigwait(&set, &signal);
}

int fail(const std::string& what) {
  daskel::bench::say("error " + what);
  return 1;
}

int runRaw(const std::string& path, Clock::duration duration) {
  const int fd = connectTo(path);
  if (fd < 0) {
    return fail("cannot connect to " + path + ": " + std::strerror(errno));
  }
  const auto request = daskel::bench::ipcBenchRequestFrame();
  const auto expected = daskel::bench::ipcBenchReplyFrame();
  std::vector<std::uint8_t> reply(expected.size());
  daskel::bench::say("ready");
  waitForStart();
  long replies = 0;
  const auto start = Clock::now();
  const auto end = start + duration;
  Clock::time_point now = start;
  while (now < end) {
    if (!writeAll(fd, request) || !readExactly(fd, reply.data(), reply.size())) {
      return fail("the connection to " + path + " ended after " + std::to_string(replies) +
                  " replies");
    }
    if (reply != expected) {
      return fail("reply " + std::to_string(replies) + " differs from the expected bytes");
    }
    ++replies;
    now = Clock::now();
  }
  daskel::bench::say("done " + std::to_string(replies) + " " +
                     std::to_string(std::chrono::nanoseconds(now - start).count()));
  ::close(fd);
  return 0;
}

int runLibrary(const std::string& service, Clock::duration duration) {
  auto client = daskel::DaskelClient::connect(service, daskel::bench::ipcBenchInterface());
  if (!client) {
    return fail((*client.error()).description());
  }
  const daskel::platform::Value payload(daskel::bench::kIpcBenchPayload);
  daskel::bench::say("ready");
  waitForStart();
  long replies = 0;
  const auto start = Clock::now();
  const auto end = start + duration;
  Clock::time_point now = start;
  while (now < end) {
    auto reply = (*client)->callAndWait(daskel::bench::kIpcBenchEcho, {payload});
    if (!reply) {
      return fail(reply.error()->description());
    }
    if (reply->size() != 1 || (*reply)[0] != payload) {
      return fail("reply " + std::to_string(replies) + " is not the string sent");
    }
    ++replies;
    now = Clock::now();
  }
  daskel::bench::say("done " + std::to_string(replies) + " " +
                     std::to_string(std::chrono::nanoseconds(now - start).count()));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  daskel::bench::prepareHelperProcess();
  // Blocked before any thread starts and before "ready", so the start signal is never lost.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
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
