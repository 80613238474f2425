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

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
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

// For closed-loop clients: blocks SIGUSR1, the start signal. Call before starting any thread
// and before saying "ready", so the signal is never lost.
inline void blockStartSignal() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// "error <what>" to the benchmark; the helper's exit status.
inline int fail(const std::string& what) {
  say("error " + what);
  return 1;
}

// A closed-loop client's run: says "ready", waits for SIGUSR1, then makes one request after
// the other for `duration` and says "done <replies> <nanoseconds>". `request(n)` makes the
// n-th request and returns nothing, or why it failed (then "error request <n>: <why>" and
// status 1).
inline int runClosedLoop(std::chrono::steady_clock::duration duration,
                         const std::function<std::optional<std::string>(long)>& request) {
  using Clock = std::chrono::steady_clock;
  say("ready");
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  int signal = 0;
  sigwait(&set, &signal);
  long replies = 0;
  const auto start = Clock::now();
  const auto end = start + duration;
  Clock::time_point now = start;
  while (now < end) {
    if (auto failure = request(replies)) {
      return fail("request " + std::to_string(replies) + ": " + *failure);
    }
    ++replies;
    now = Clock::now();
  }
  say("done " + std::to_string(replies) + " " +
      std::to_string(std::chrono::nanoseconds(now - start).count()));
  return 0;
}

}  // namespace daskel::bench
