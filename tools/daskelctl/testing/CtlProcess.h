// CtlProcess: runs the daskelctl program as a child process for the tests and collects what it
// printed and how it ended. Standard output and standard error are read at once (so a chatty
// child never blocks on a full pipe) until both close, within a deadline; a child still
// running at the deadline is killed and reaped, so no test leaves one behind.
//
// Not thread safe: one test thread runs each CtlProcess.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

extern char** environ;

namespace daskel::ctl::testing {

struct CtlRun {
  bool finished = false;  // false: the deadline passed and the child was killed
  int exitStatus = -1;    // the exit status, or -1 when it died of a signal
  std::string standardOutput;
  std::string standardError;
};

// Runs `program` with `arguments` (argv[1]...) in this process's environment.
inline CtlRun runProgram(const std::string& program,
                         const std::vector<std::string>& arguments,
                         std::chrono::milliseconds deadline = std::chrono::seconds(60)) {
  CtlRun run;
  int out[2];
  int err[2];
  if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
    return run;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const auto& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  pid_t pid = -1;
  const int spawned = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  ::close(err[1]);
  if (spawned != 0) {
    ::close(out[0]);
    ::close(err[0]);
    return run;
  }

  const auto end = std::chrono::steady_clock::now() + deadline;
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* sinks[2] = {&run.standardOutput, &run.standardError};
  int open = 2;
  bool timedOut = false;
  while (open > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      timedOut = true;
      break;
    }
    if (::poll(fds, 2, static_cast<int>(left.count())) < 0) {
      continue;  // EINTR
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd >= 0 && (fds[i].revents & (POLLIN | POLLHUP | POLLERR))) {
        char buffer[4096];
        const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
        if (n > 0) {
          sinks[i]->append(buffer, static_cast<std::size_t>(n));
        } else {
          ::close(fds[i].fd);
          fds[i].fd = -1;
          --open;
        }
      }
    }
  }
  for (auto& fd : fds) {
    if (fd.fd >= 0) {
      ::close(fd.fd);
    }
  }
  if (timedOut) {
    ::kill(pid, SIGKILL);
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  run.finished = !timedOut;
  run.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

}  // namespace daskel::ctl::testing
