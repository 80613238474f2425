// TestPeerProcess: for the identity tests, a real child process that connects to a Unix
// socket the test listens on, so the test holds a kernel-verified AuditToken for it. After
// connecting, the child optionally waits for the test to open a gate, optionally changes its
// root directory, and then either executes a program (keeping its pid, and so its token) or
// stays idle in this test binary's image until it is killed.
//
// The destructor kills (SIGKILL) and reaps a child that has not been reaped, so no test
// leaves a process behind. Waits are bounded by deadlines, never bare sleeps.
//
// Test-only and header-only: daskel_add_module builds no library code from it.
// Not thread safe: one test thread owns each TestPeerProcess.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/identity/AuditToken.h"
#include "platform/identity/ScopedFd.h"

namespace daskel::platform {

class TestPeerProcess {
 public:
  struct Options {
    // The program to execute after connecting; empty: stay idle in this image.
    std::string program;
    // argv[1]... of the program; argv[0] is the program path.
    std::vector<std::string> arguments;
    // chroot(2) into this directory after connecting (needs privilege).
    std::string rootDirectory;
    // Wait for openGate() before going on from the connection.
    bool gated = false;
    // Exit at once after connecting.
    bool exitAfterConnect = false;
    // Leave the connection in the listener's backlog; accept it later with acceptFrom().
    bool deferAccept = false;
  };

  // A listening Unix stream socket under a unique abstract name (no file to clean up), and
  // the address to reach it.
  struct Listener {
    ScopedFd socket;
    sockaddr_un address = {};
    socklen_t addressLength = 0;
  };

  static std::optional<Listener> listen() {
    static std::atomic<int> counter{0};
    Listener listener;
    listener.socket = ScopedFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!listener.socket.valid())
      return std::nullopt;
    std::string name =
        "daskel-identity-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    listener.address.sun_family = AF_UNIX;
    // Abstract address: a leading NUL, then the name.
    std::memcpy(listener.address.sun_path + 1, name.data(), name.size());
    listener.addressLength =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (::bind(listener.socket.get(), reinterpret_cast<const sockaddr*>(&listener.address),
               listener.addressLength) != 0 ||
        ::listen(listener.socket.get(), 16) != 0) {
      return std::nullopt;
    }
    return listener;
  }

  // Makes `pid` the next pid the kernel hands out in this pid namespace, unless another
  // process forks first (ns_last_pid; needs privilege). False when that is not permitted.
  static bool steerNextPid(pid_t pid) {
    int fd = ::open("/proc/sys/kernel/ns_last_pid", O_WRONLY | O_CLOEXEC);
    if (fd < 0)
      return false;
    std::string text = std::to_string(pid - 1);
    bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return written;
  }

  // Waits until the clock that start times in /proc/<pid>/stat count (clock ticks of boot
  // time) has passed `ticks`, so that a process forked afterwards has a later start time.
  static bool waitForClockTickAfter(std::uint64_t ticks) {
    const auto hz = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (;;) {
      timespec now;
      ::clock_gettime(CLOCK_BOOTTIME, &now);
      std::uint64_t nowTicks = static_cast<std::uint64_t>(now.tv_sec) * hz +
                               static_cast<std::uint64_t>(now.tv_nsec) * hz / 1'000'000'000;
      if (nowTicks > ticks)
        return true;
      if (std::chrono::steady_clock::now() >= deadline)
        return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  // Forks the child; unless options.deferAccept, accepts its connection (waiting at most
  // 10 s). nullptr when the child cannot be started or does not connect in time.
  static std::unique_ptr<TestPeerProcess> start(const Listener& listener, const Options& options) {
    // Everything the child needs is prepared before fork: after fork only
    // async-signal-safe calls are made, as other threads of this process may hold locks.
    std::vector<std::string> argumentStorage;
    argumentStorage.push_back(options.program);
    argumentStorage.insert(argumentStorage.end(), options.arguments.begin(),
                           options.arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : argumentStorage)
      argv.push_back(argument.data());
    argv.push_back(nullptr);

    int gate[2] = {-1, -1};
    if (options.gated && ::pipe2(gate, O_CLOEXEC) != 0)
      return nullptr;

    pid_t pid = ::fork();
    if (pid < 0) {
      if (options.gated) {
        ::close(gate[0]);
        ::close(gate[1]);
      }
      return nullptr;
    }
    if (pid == 0) {
      // Not close-on-exec: the program keeps its connection, as a real client would.
      int s = ::socket(AF_UNIX, SOCK_STREAM, 0);
      if (s < 0 || ::connect(s, reinterpret_cast<const sockaddr*>(&listener.address),
                             listener.addressLength) != 0) {
        ::_exit(121);
      }
      if (options.exitAfterConnect)
        ::_exit(0);
      if (options.gated) {
        char byte;
        while (::read(gate[0], &byte, 1) < 0 && errno == EINTR) {
        }
      }
      if (!options.rootDirectory.empty() &&
          (::chroot(options.rootDirectory.c_str()) != 0 || ::chdir("/") != 0)) {
        ::_exit(122);
      }
      if (!options.program.empty()) {
        ::execv(argv[0], argv.data());
        ::_exit(127);
      }
      for (;;)
        ::pause();
    }

    std::unique_ptr<TestPeerProcess> child(new TestPeerProcess(pid));
    if (options.gated) {
      ::close(gate[0]);
      child->gate_ = ScopedFd(gate[1]);
    }
    if (!options.deferAccept && !child->acceptFrom(listener))
      return nullptr;
    return child;
  }

  ~TestPeerProcess() {
    if (!reaped_) {
      ::kill(pid_, SIGKILL);
      reap();
    }
  }
  TestPeerProcess(const TestPeerProcess&) = delete;
  TestPeerProcess& operator=(const TestPeerProcess&) = delete;

  pid_t pid() const { return pid_; }
  // The accepted connection of this child, or -1 before it is accepted.
  int connection() const { return connection_.get(); }

  // Accepts the next connection waiting on `listener`, waiting at most 10 s for one.
  bool acceptFrom(const Listener& listener) {
    struct pollfd poll = {listener.socket.get(), POLLIN, 0};
    int ready;
    do {
      ready = ::poll(&poll, 1, 10'000);
    } while (ready < 0 && errno == EINTR);
    if (ready != 1)
      return false;
    connection_ = ScopedFd(::accept4(listener.socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    return connection_.valid();
  }

  std::optional<AuditToken> token(
      AuditToken::PidfdUse use = AuditToken::PidfdUse::WhenAvailable) const {
    return AuditToken::fromSocket(connection_.get(), use);
  }

  // Lets a gated child go on.
  void openGate() {
    char byte = 1;
    while (::write(gate_.get(), &byte, 1) < 0 && errno == EINTR) {
    }
  }

  void kill(int signal) { ::kill(pid_, signal); }

  // Waits until the child has exited, leaving it a zombie (not reaped).
  bool waitUntilExited() {
    siginfo_t info = {};
    int result;
    do {
      result = ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
    } while (result < 0 && errno == EINTR);
    return result == 0;
  }

  // Waits for the child to end and reaps it; returns its wait status. Idempotent.
  int reap() {
    if (!reaped_) {
      int result;
      do {
        result = ::waitpid(pid_, &status_, 0);
      } while (result < 0 && errno == EINTR);
      reaped_ = true;
    }
    return status_;
  }

  // Waits until /proc/<pid>/exe names `path` (the child has executed it), for at most
  // `timeout`.
  bool waitForExecutable(const std::string& path,
                         std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
    return waitForProcLink("exe", path, timeout);
  }
  // Waits until /proc/<pid>/root names `path` (the child has changed its root).
  bool waitForRoot(const std::string& path,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
    return waitForProcLink("root", path, timeout);
  }

 private:
  explicit TestPeerProcess(pid_t pid) : pid_(pid) {}

  bool waitForProcLink(const char* entry,
                       const std::string& path,
                       std::chrono::milliseconds timeout) const {
    std::string link = "/proc/" + std::to_string(pid_) + "/" + entry;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      char target[4096];
      ssize_t n = ::readlink(link.c_str(), target, sizeof target);
      if (n > 0 && std::string(target, static_cast<std::size_t>(n)) == path)
        return true;
      if (std::chrono::steady_clock::now() >= deadline)
        return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }

  pid_t pid_;
  ScopedFd connection_;
  ScopedFd gate_;
  bool reaped_ = false;
  int status_ = 0;
};

}  // namespace daskel::platform
