// SpawnedProcess: a program started by a real-process test with exactly the environment the
// test gives it (nothing is inherited, so HOME and the DASKEL_* locations cannot leak in from
// the machine) and its standard output and standard error written to files the test reads.
// Unlike ChildProcess, waiting takes a deadline.
//
// The destructor kills (SIGKILL) and reaps a process that is still running, so no test leaves
// one behind.
//
// Not thread safe: one test thread owns each SpawnedProcess.
// Failure: start() returns nullopt and fills `error` with what could not be done.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace daskel::testing {

class SpawnedProcess {
 public:
  struct Options {
    std::string program;
    std::vector<std::string> arguments;    // argv[1]...
    std::vector<std::string> environment;  // the whole environment, "NAME=value" entries
    // Where standard output and standard error go (created or appended to); an empty path
    // means /dev/null. Both may be the same file.
    std::string standardOutputPath;
    std::string standardErrorPath;
  };

  static std::optional<SpawnedProcess> start(const Options& options, std::string* error = nullptr);

  SpawnedProcess(SpawnedProcess&& other) noexcept;
  SpawnedProcess& operator=(SpawnedProcess&& other) noexcept;
  SpawnedProcess(const SpawnedProcess&) = delete;
  SpawnedProcess& operator=(const SpawnedProcess&) = delete;
  ~SpawnedProcess();

  pid_t pid() const { return pid_; }
  bool reaped() const { return reaped_; }

  // Waits at most `timeout` for the process to end; its wait status, or nullopt when it is
  // still running. Once reaped, answers the same status again.
  std::optional<int> waitFor(std::chrono::milliseconds timeout);
  void kill(int signal);

 private:
  explicit SpawnedProcess(pid_t pid) : pid_(pid) {}
  void release();

  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
};

}  // namespace daskel::testing
