// Set-up shared by the IPC benchmark's helper programs: a helper dies with the benchmark
// process, never outlives a time limit, may hold thousands of descriptors, and reports to
// the benchmark one line at a time on standard output.
//
// THREADING NOTES: say() may be called from any thread; prepareHelperProcess() once, first.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace daskel::bench {

// No helper runs longer than this, whatever happens to the benchmark.
inline constexpr unsigned kHelperLifetimeSeconds = 300;

inline void prepareHelperProcess() {
  // Killed when the benchmark process goes, even by SIGKILL; and if it went already, now.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() == 1) {
    std::_Exit(1);
  }
  ::alarm(kHelperLifetimeSeconds);
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// One line to the benchmark, written whole.
inline void say(const std::string& line) {
  const std::string text = line + "\n";
  (void)!::write(STDOUT_FILENO, text.data(), text.size());
}

// Blocks until SIGTERM (or SIGINT) arrives. Call with both blocked in every thread, that
// is, before starting any.
inline void waitForTermination() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  int signal = 0;
  sigwait(&set, &signal);
}

inline void blockTerminationSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

}  // namespace daskel::bench
