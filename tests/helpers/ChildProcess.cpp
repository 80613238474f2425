#include "helpers/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace daskel::testing {

std::optional<ChildProcess> ChildProcess::start(const std::string& program,
                                                const std::vector<std::string>& arguments,
                                                const std::vector<std::string>& extraEnv,
                                                std::string* error) {
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) {
    if (error) *error = std::string("pipe: ") + std::strerror(errno);
    return std::nullopt;
  }
  std::vector<std::string> argStorage;
  argStorage.push_back(program);
  argStorage.insert(argStorage.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& arg : argStorage) argv.push_back(arg.data());
  argv.push_back(nullptr);

  std::vector<std::string> envStorage;
  for (char** e = environ; *e; ++e) envStorage.emplace_back(*e);
  envStorage.insert(envStorage.end(), extraEnv.begin(), extraEnv.end());
  std::vector<char*> envp;
  for (auto& entry : envStorage) envp.push_back(entry.data());
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  if (rc != 0) {
    close(pipeFds[0]);
    if (error) *error = "posix_spawn " + program + ": " + std::strerror(rc);
    return std::nullopt;
  }
  return ChildProcess(pid, pipeFds[0]);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(other.pid_),
      stdoutFd_(other.stdoutFd_),
      buffered_(std::move(other.buffered_)),
      reaped_(other.reaped_),
      status_(other.status_) {
  other.pid_ = -1;
  other.stdoutFd_ = -1;
}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    release();
    pid_ = other.pid_;
    stdoutFd_ = other.stdoutFd_;
    buffered_ = std::move(other.buffered_);
    reaped_ = other.reaped_;
    status_ = other.status_;
    other.pid_ = -1;
    other.stdoutFd_ = -1;
  }
  return *this;
}

ChildProcess::~ChildProcess() {
  release();
}

void ChildProcess::release() {
  if (pid_ > 0 && !reaped_) {
    ::kill(pid_, SIGKILL);
    wait();
  }
  if (stdoutFd_ >= 0) {
    close(stdoutFd_);
    stdoutFd_ = -1;
  }
  pid_ = -1;
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (auto newline = buffered_.find('\n'); newline != std::string::npos) {
      std::string line = buffered_.substr(0, newline);
      buffered_.erase(0, newline + 1);
      return line;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || stdoutFd_ < 0) {
      return std::nullopt;
    }
    pollfd pfd{stdoutFd_, POLLIN, 0};
    int ready = poll(&pfd, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return std::nullopt;
    char chunk[4096];
    ssize_t n = read(stdoutFd_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;
    buffered_.append(chunk, static_cast<size_t>(n));
  }
}

std::string ChildProcess::readToEnd() {
  std::string all = std::move(buffered_);
  buffered_.clear();
  char chunk[4096];
  while (stdoutFd_ >= 0) {
    ssize_t n = read(stdoutFd_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    all.append(chunk, static_cast<size_t>(n));
  }
  return all;
}

void ChildProcess::kill(int signal) {
  if (pid_ > 0 && !reaped_) {
    ::kill(pid_, signal);
  }
}

int ChildProcess::wait() {
  if (pid_ > 0 && !reaped_) {
    while (waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
    }
    reaped_ = true;
  }
  return status_;
}

}  // namespace daskel::testing
