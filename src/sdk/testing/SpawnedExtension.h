// SpawnedExtension: an extension executable started the way the daemon starts one (control
// socket on descriptor 3, DASKEL_EXTENSION_CONTROL_FD and DASKEL_EXTENSION_IDENTIFIER set,
// working directory the bundle), with the test holding the daemon's end of the control socket
// and the child's standard error going to a file. The destructor kills (SIGKILL) and reaps a
// child that is still running.
//
// Not thread safe: one test thread owns each SpawnedExtension.
// Failure: start() returns nullopt and fills `error`.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/extensions/ExtensionControlChannel.h"

extern char** environ;

namespace daskel::sdk::testing {

class SpawnedExtension {
 public:
  // Starts `executable` in `bundlePath`. Without `withControlSocket` the two variables and
  // descriptor 3 are left out, as when somebody runs the program by hand.
  static std::optional<SpawnedExtension> start(const std::string& executable,
                                               const std::string& bundlePath,
                                               const std::string& identifier,
                                               const std::vector<std::string>& extraEnv,
                                               const std::string& stderrPath,
                                               bool withControlSocket,
                                               std::string* error) {
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      env.emplace_back(*entry);
    }
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());
    std::unique_ptr<platform::ExtensionControlChannel> control;
    platform::ScopedFd childEnd;
    if (withControlSocket) {
      auto pair = platform::ExtensionControlChannel::makeSocketPair();
      if (!pair) {
        *error = pair.error()->description();
        return std::nullopt;
      }
      control = std::make_unique<platform::ExtensionControlChannel>(
          ::fcntl(pair->first.get(), F_DUPFD_CLOEXEC, 0));
      // Above 3, so that the dup2 onto 3 clears close-on-exec.
      childEnd = platform::ScopedFd(::fcntl(pair->second.get(), F_DUPFD_CLOEXEC, 10));
      env.push_back("DASKEL_EXTENSION_CONTROL_FD=3");
      env.push_back("DASKEL_EXTENSION_IDENTIFIER=" + identifier);
    }
    std::vector<char*> envp;
    for (std::string& entry : env) {
      envp.push_back(entry.data());
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (childEnd.valid()) {
      posix_spawn_file_actions_adddup2(&actions, childEnd.get(), 3);
    }
    posix_spawn_file_actions_addopen(&actions, 2, stderrPath.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addchdir_np(&actions, bundlePath.c_str());
    std::string program = executable;
    char* argv[] = {program.data(), nullptr};
    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, executable.c_str(), &actions, nullptr, argv,
                                      envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
      *error = "posix_spawn " + executable + ": " + std::strerror(spawned);
      return std::nullopt;
    }
    return SpawnedExtension(pid, std::move(control));
  }

  SpawnedExtension(SpawnedExtension&& other) noexcept
      : pid_(std::exchange(other.pid_, -1)), control_(std::move(other.control_)) {}
  SpawnedExtension& operator=(SpawnedExtension&&) = delete;
  ~SpawnedExtension() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      int status;
      ::waitpid(pid_, &status, 0);
    }
  }

  // The daemon's end of the control socket; null when started without one.
  platform::ExtensionControlChannel* control() { return control_.get(); }
  void closeControlSocket() { control_.reset(); }

  // The child's wait status once it ended, nullopt if it still runs at the deadline.
  std::optional<int> waitForExit(std::chrono::seconds timeout = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (pid_ > 0) {
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return status;
      }
      if (std::chrono::steady_clock::now() > deadline) {
        return std::nullopt;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return std::nullopt;
  }

 private:
  SpawnedExtension(pid_t pid, std::unique_ptr<platform::ExtensionControlChannel> control)
      : pid_(pid), control_(std::move(control)) {}

  pid_t pid_;
  std::unique_ptr<platform::ExtensionControlChannel> control_;
};

}  // namespace daskel::sdk::testing
