// Throughput with many client processes at once. Every client program of the benchmarks
// (ipc_bench_client, daemon_bench_client) follows one protocol on its standard output:
//   "ready"                         connected; it then waits for SIGUSR1
//   "done <replies> <nanoseconds>"  after its closed loop of one request per reply
//   "error <what>"                  it failed (and exits 1)
// runClosedLoopClients() starts them all, waits until every one is ready, starts them with
// one signal each, and adds up their reply rates. The children are killed and reaped on every
// way out.
//
// THREADING NOTES: a plain function; the caller's thread owns the children for the call.
// Failure: Load::error says which client failed and what it printed; rps is then 0.
#pragma once

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "helpers/ChildProcess.h"

namespace daskel::bench {

struct Load {
  double rps = 0;  // the sum of the clients' reply rates
  std::string error;
};

// Runs `clients` copies of `program` with `arguments` (the run's length among them, which
// `duration` must match) and environment additions `environment`.
inline Load runClosedLoopClients(const std::string& program,
                                 const std::vector<std::string>& arguments,
                                 const std::vector<std::string>& environment,
                                 int clients,
                                 std::chrono::milliseconds duration) {
  using Clock = std::chrono::steady_clock;
  using daskel::testing::ChildProcess;
  // How long a client may take to get ready, or to report after its run.
  constexpr auto kClientDeadline = std::chrono::seconds(30);
  Load load;
  std::vector<ChildProcess> children;
  children.reserve(clients);
  for (int i = 0; i < clients; ++i) {
    auto child = ChildProcess::start(program, arguments, environment, &load.error);
    if (!child) {
      return load;
    }
    children.push_back(std::move(*child));
  }
  // One deadline for all of them, so that hanging clients cannot add up their timeouts.
  auto left = [](Clock::time_point deadline) {
    return std::max(std::chrono::milliseconds(0),
                    std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()));
  };
  const auto readyBy = Clock::now() + kClientDeadline;
  for (auto& child : children) {
    auto line = child.readLine(left(readyBy));
    if (line != "ready") {
      load.error = program + " did not get ready: " + line.value_or("(no output)");
      return load;
    }
  }
  for (auto& child : children) {
    child.kill(SIGUSR1);
  }
  double rps = 0;
  const auto doneBy = Clock::now() + duration + kClientDeadline;
  for (auto& child : children) {
    auto line = child.readLine(left(doneBy));
    long replies = 0;
    long long nanoseconds = 0;
    if (!line || std::sscanf(line->c_str(), "done %ld %lld", &replies, &nanoseconds) != 2 ||
        nanoseconds <= 0) {
      load.error = program + " failed: " + line.value_or("(no output)");
      return load;
    }
    rps += replies / (static_cast<double>(nanoseconds) / 1e9);
  }
  for (auto& child : children) {
    child.wait();
  }
  load.rps = rps;
  return load;
}

}  // namespace daskel::bench
