// ChildProcess: a helper program started by a multi-process test, with its standard output on
// a pipe the test reads. The destructor kills (SIGKILL) and reaps a child that is still
// running, so no test leaves a process behind.
//
// Not thread safe: one test thread owns each ChildProcess.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace daskel::testing {

class ChildProcess {
 public:
  // Starts `program` with `arguments` (argv[1]...) and the test's environment plus `extraEnv`
  // ("NAME=value" entries). Returns nullopt and fills `error` when it cannot be started.
  static std::optional<ChildProcess> start(const std::string& program,
                                           const std::vector<std::string>& arguments,
                                           const std::vector<std::string>& extraEnv = {},
                                           std::string* error = nullptr);

  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  pid_t pid() const { return pid_; }

  // Reads one line of standard output (without the newline), waiting at most `timeout`.
  // nullopt on timeout or end of output.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout);
  // Everything the child writes until it closes its output (after it died, say).
  std::string readToEnd();

  void kill(int signal);
  // Waits for the child to end; returns its wait status. Idempotent.
  int wait();

 private:
  ChildProcess(pid_t pid, int stdoutFd) : pid_(pid), stdoutFd_(stdoutFd) {}
  void release();

  pid_t pid_ = -1;
  int stdoutFd_ = -1;
  std::string buffered_;
  bool reaped_ = false;
  int status_ = 0;
};

}  // namespace daskel::testing
