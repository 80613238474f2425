#include "helpers/SpawnedProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace daskel::testing {

namespace {

bool addOutput(posix_spawn_file_actions_t* actions, int fd, const std::string& path) {
  const char* target = path.empty() ? "/dev/null" : path.c_str();
  return posix_spawn_file_actions_addopen(actions, fd, target, O_WRONLY | O_CREAT | O_APPEND,
                                          0644) == 0;
}

}  // namespace

std::optional<SpawnedProcess> SpawnedProcess::start(const Options& options, std::string* error) {
  std::vector<std::string> argStorage{options.program};
  argStorage.insert(argStorage.end(), options.arguments.begin(), options.arguments.end());
  std::vector<char*> argv;
  for (auto& argument : argStorage) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  std::vector<std::string> envStorage = options.environment;
  std::vector<char*> envp;
  for (auto& entry : envStorage) {
    envp.push_back(entry.data());
  }
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  bool ok = posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0;
  ok = ok && addOutput(&actions, STDOUT_FILENO, options.standardOutputPath);
  if (ok && !options.standardErrorPath.empty() &&
      options.standardErrorPath == options.standardOutputPath) {
    ok = posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO) == 0;
  } else {
    ok = ok && addOutput(&actions, STDERR_FILENO, options.standardErrorPath);
  }
  // A process group of its own: a test's terminal signals do not reach it.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  pid_t pid = -1;
  int rc = ok ? posix_spawn(&pid, options.program.c_str(), &actions, &attributes, argv.data(),
                            envp.data())
              : EINVAL;
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    if (error) {
      *error = "cannot start " + options.program + ": " + std::strerror(rc);
    }
    return std::nullopt;
  }
  return SpawnedProcess(pid);
}

SpawnedProcess::SpawnedProcess(SpawnedProcess&& other) noexcept
    : pid_(other.pid_), reaped_(other.reaped_), status_(other.status_) {
  other.pid_ = -1;
}

SpawnedProcess& SpawnedProcess::operator=(SpawnedProcess&& other) noexcept {
  if (this != &other) {
    release();
    pid_ = other.pid_;
    reaped_ = other.reaped_;
    status_ = other.status_;
    other.pid_ = -1;
  }
  return *this;
}

SpawnedProcess::~SpawnedProcess() {
  release();
}

void SpawnedProcess::release() {
  if (pid_ > 0 && !reaped_) {
    ::kill(pid_, SIGKILL);
    while (::waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
    }
    reaped_ = true;
  }
  pid_ = -1;
}

std::optional<int> SpawnedProcess::waitFor(std::chrono::milliseconds timeout) {
  if (pid_ <= 0) {
    return std::nullopt;
  }
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!reaped_) {
    const pid_t done = ::waitpid(pid_, &status_, WNOHANG);
    if (done == pid_) {
      reaped_ = true;
      break;
    }
    if (done < 0 && errno != EINTR) {
      return std::nullopt;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      return std::nullopt;
    }
    // Polling keeps this free of SIGCHLD handling, which would disturb the other children a
    // test runs; the process ends within a few polls of its last output.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return status_;
}

void SpawnedProcess::kill(int signal) {
  if (pid_ > 0 && !reaped_) {
    ::kill(pid_, signal);
  }
}

}  // namespace daskel::testing
