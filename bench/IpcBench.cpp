// IPC figures, each next to a baseline measured in the same run, between real processes:
// - round trip of echoString: (one string out, one string back) from this process through
//   DaskelClient to the benchmark service, against a blocking ping-pong of the same frames
//   with a raw server; a raw client against the Daskel service splits the cost between the
//   client library and the service;
// - throughput with 1, 8 and 64 closed-loop client processes: the same raw client program,
//   sending the same request bytes and checking the same reply bytes, against the Daskel
//   service and against a minimal single-threaded epoll server; plus DaskelClient clients
//   against the service;
// - resident memory of the service per idle connection, over 1,000 connections.
// Helper processes (bench/helpers) are started per benchmark and killed and reaped at its end.
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchSummary.h"
#include "IpcBenchProtocol.h"
#include "client/DaskelClient.h"
#include "helpers/ChildProcess.h"
#include "helpers/ClosedLoopClients.h"
#include "helpers/RawPingPong.h"
#include "platform/log/Log.h"

namespace daskel::bench {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using daskel::testing::ChildProcess;

constexpr int kRoundTripWarmup = 2000;
constexpr int kRoundTripSamples = 20000;
constexpr int kRoundTripChunk = 100;  // samples of one kind before switching to the next
constexpr auto kThroughputRun = 1000ms;
constexpr int kThroughputRounds = 2;
constexpr int kIdleConnections = 1000;
constexpr auto kHelperDeadline = 30s;

// A runtime directory of its own, removed at the end.
class Scratch {
 public:
  Scratch() {
    char pattern[] = "/tmp/daskel-ipc-bench-XXXXXX";
    if (::mkdtemp(pattern)) {
      root_ = pattern;
      ::setenv("DASKEL_RUNTIME_DIR", root_.c_str(), 1);
    }
  }
  ~Scratch() {
    ::unsetenv("DASKEL_RUNTIME_DIR");
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  bool ok() const { return !root_.empty(); }
  std::string path(const std::string& name) const { return (root_ / name).string(); }
  std::vector<std::string> environment() const { return {"DASKEL_RUNTIME_DIR=" + root_.string()}; }

 private:
  fs::path root_;
};

// Starts a helper and waits for its "ready" line. The ChildProcess kills and reaps it when
// it goes out of scope.
std::optional<ChildProcess> startHelper(const std::string& program,
                                        const std::vector<std::string>& arguments,
                                        const Scratch& scratch,
                                        std::string& error) {
  auto child = ChildProcess::start(program, arguments, scratch.environment(), &error);
  if (!child) {
    return std::nullopt;
  }
  auto line = child->readLine(kHelperDeadline);
  if (!line || line->rfind("ready", 0) != 0) {
    error = program + " did not get ready: " + (line ? *line : "(no output)");
    return std::nullopt;
  }
  return child;
}

double microseconds(Clock::duration d) {
  return std::chrono::duration<double, std::micro>(d).count();
}

void quietLogs() {
  platform::setLogLevels({platform::kLogError, platform::kLogError, platform::kLogError});
}

// ---- round trip ----

void BM_IpcRoundTrip(benchmark::State& state) {
  quietLogs();
  for (auto _ : state) {
    Scratch scratch;
    std::string error;
    if (!scratch.ok()) {
      state.SkipWithError("cannot create a runtime directory");
      return;
    }
    auto service = startHelper(DASKEL_IPC_BENCH_SERVICE, {}, scratch, error);
    auto pingPong = service
                        ? startHelper(DASKEL_IPC_BENCH_RAW_SERVER,
                                      {"pingpong", scratch.path("pingpong.sock")}, scratch, error)
                        : std::nullopt;
    if (!service || !pingPong) {
      state.SkipWithError(error.c_str());
      return;
    }
    auto client = DaskelClient::connect(kIpcBenchService, ipcBenchInterface());
    RawPeer raw(scratch.path("pingpong.sock"), ipcBenchRequestFrame(), ipcBenchReplyFrame());
    RawPeer rawToService(scratch.path(kIpcBenchService), ipcBenchRequestFrame(),
                         ipcBenchReplyFrame());
    if (!client || !raw.ok() || !rawToService.ok()) {
      state.SkipWithError("cannot connect to the helpers");
      return;
    }
    const platform::Value payload(kIpcBenchPayload);
    auto daskelRoundTrip = [&] {
      auto reply = (*client)->callAndWait(kIpcBenchEcho, {payload});
      return reply && reply->size() == 1 && (*reply)[0] == payload;
    };

    std::vector<double> daskel, rawSamples, serviceOnly;
    daskel.reserve(kRoundTripSamples);
    rawSamples.reserve(kRoundTripSamples);
    serviceOnly.reserve(kRoundTripSamples);
    bool correct = true;
    for (int i = 0; i < kRoundTripWarmup && correct; ++i) {
      correct = daskelRoundTrip() && raw.roundTrip() && rawToService.roundTrip();
    }
    // Interleaved in chunks, so that whatever else the machine does affects all three alike.
    while (correct && static_cast<int>(daskel.size()) < kRoundTripSamples) {
      for (int i = 0; i < kRoundTripChunk && correct; ++i) {
        const auto start = Clock::now();
        correct = daskelRoundTrip();
        daskel.push_back(microseconds(Clock::now() - start));
      }
      for (int i = 0; i < kRoundTripChunk && correct; ++i) {
        const auto start = Clock::now();
        correct = raw.roundTrip();
        rawSamples.push_back(microseconds(Clock::now() - start));
      }
      for (int i = 0; i < kRoundTripChunk && correct; ++i) {
        const auto start = Clock::now();
        correct = rawToService.roundTrip();
        serviceOnly.push_back(microseconds(Clock::now() - start));
      }
    }
    if (!correct) {
      state.SkipWithError("a reply was missing or wrong");
      return;
    }
    const double p50 = percentile(daskel, 50);
    const double p99 = percentile(daskel, 99);
    const double rawP50 = percentile(rawSamples, 50);
    const double rawP99 = percentile(rawSamples, 99);
    record("ipc.roundtrip.p50_us", p50);
    record("ipc.roundtrip.p99_us", p99);
    record("ipc.raw.p50_us", rawP50);
    record("ipc.raw.p99_us", rawP99);
    record("ipc.roundtrip.p50_ratio", p50 / rawP50);
    record("ipc.roundtrip.p99_ratio", p99 / rawP99);
    record("ipc.roundtrip.raw_client.p50_us", percentile(serviceOnly, 50));
    record("ipc.roundtrip.raw_client.p99_us", percentile(serviceOnly, 99));
    record("ipc.roundtrip.samples", static_cast<double>(daskel.size()));
    state.counters["p50_us"] = p50;
    state.counters["raw_p50_us"] = rawP50;
    state.counters["p50_ratio"] = p50 / rawP50;
    state.counters["p99_ratio"] = p99 / rawP99;
  }
}
BENCHMARK(BM_IpcRoundTrip)->Iterations(1)->Unit(benchmark::kMillisecond);

// ---- throughput ----

// Runs `clients` client processes in `mode` against `target` for `duration`, all starting at
// once; the sum of their reply rates.
Load runClients(const std::string& mode,
                const std::string& target,
                int clients,
                std::chrono::milliseconds duration,
                const Scratch& scratch) {
  return runClosedLoopClients(DASKEL_IPC_BENCH_CLIENT,
                              {mode, target, std::to_string(duration.count())},
                              scratch.environment(), clients, duration);
}

void BM_IpcThroughput(benchmark::State& state) {
  quietLogs();
  const int clients = static_cast<int>(state.range(0));
  for (auto _ : state) {
    Scratch scratch;
    std::string error;
    auto service = startHelper(DASKEL_IPC_BENCH_SERVICE, {}, scratch, error);
    auto echo = service ? startHelper(DASKEL_IPC_BENCH_RAW_SERVER,
                                      {"epoll", scratch.path("echo.sock")}, scratch, error)
                        : std::nullopt;
    if (!service || !echo) {
      state.SkipWithError(error.c_str());
      return;
    }
    double daskel = 0;
    double baseline = 0;
    // Alternating which goes first, so neither always meets a warmer or colder machine.
    for (int round = 0; round < kThroughputRounds; ++round) {
      for (int turn = 0; turn < 2; ++turn) {
        const bool daskelTurn = (round + turn) % 2 == 0;
        Load load = runClients(
            "raw", daskelTurn ? scratch.path(kIpcBenchService) : scratch.path("echo.sock"), clients,
            kThroughputRun, scratch);
        if (!load.error.empty()) {
          state.SkipWithError(load.error.c_str());
          return;
        }
        (daskelTurn ? daskel : baseline) += load.rps / kThroughputRounds;
      }
    }
    Load library = runClients("library", kIpcBenchService, clients, kThroughputRun, scratch);
    if (!library.error.empty()) {
      state.SkipWithError(library.error.c_str());
      return;
    }
    const std::string prefix = "ipc.throughput." + std::to_string(clients);
    record(prefix + ".rps", daskel);
    record(prefix + ".echo_rps", baseline);
    record(prefix + ".ratio", daskel / baseline);
    record(prefix + ".library_rps", library.rps);
    state.counters["rps"] = daskel;
    state.counters["echo_rps"] = baseline;
    state.counters["ratio"] = daskel / baseline;
    state.counters["library_rps"] = library.rps;
  }
}
BENCHMARK(BM_IpcThroughput)->Arg(1)->Arg(8)->Arg(64)->Iterations(1)->Unit(benchmark::kMillisecond);

// ---- idle connections ----

// VmRSS of `pid` in KiB; -1 when it cannot be read.
long residentKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) {
      return std::atol(line.c_str() + 6);
    }
  }
  return -1;
}

void BM_IpcIdleConnections(benchmark::State& state) {
  quietLogs();
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  if (limit.rlim_cur < static_cast<rlim_t>(kIdleConnections + 64)) {
    state.SkipWithError("RLIMIT_NOFILE is too low for the idle connections");
    return;
  }
  for (auto _ : state) {
    Scratch scratch;
    std::string error;
    auto service = startHelper(DASKEL_IPC_BENCH_SERVICE, {}, scratch, error);
    if (!service) {
      state.SkipWithError(error.c_str());
      return;
    }
    auto control = DaskelClient::connect(kIpcBenchService, ipcBenchInterface());
    if (!control) {
      state.SkipWithError("cannot connect to the service");
      return;
    }
    // The service's open connections, asked over the control connection.
    auto openConnections = [&]() -> long {
      auto reply = (*control)->callAndWait(kIpcBenchConnectionCount, {}, 10s);
      return reply && reply->size() == 1 ? reply->at(0).integer().value_or(-1) : -1;
    };
    auto waitForOpen = [&](long wanted) {
      const auto deadline = Clock::now() + kHelperDeadline;
      while (openConnections() != wanted) {
        if (Clock::now() > deadline) {
          return false;
        }
        std::this_thread::sleep_for(5ms);
      }
      return true;
    };
    // The control connection is used a little first, so what it allocates once is counted
    // before the measurement starts.
    for (int i = 0; i < 100; ++i) {
      (*control)->callAndWait(kIpcBenchEcho, {platform::Value(kIpcBenchPayload)});
    }
    if (!waitForOpen(1)) {
      state.SkipWithError("the service does not count its connections");
      return;
    }
    const long before = residentKiB(service->pid());
    std::vector<int> sockets;
    sockets.reserve(kIdleConnections);
    for (int i = 0; i < kIdleConnections; ++i) {
      const int fd = connectTo(scratch.path(kIpcBenchService));
      if (fd < 0) {
        break;
      }
      sockets.push_back(fd);
    }
    const bool allOpen =
        static_cast<int>(sockets.size()) == kIdleConnections && waitForOpen(kIdleConnections + 1);
    const long after = residentKiB(service->pid());
    for (int fd : sockets) {
      ::close(fd);
    }
    if (!allOpen || before < 0 || after < 0) {
      state.SkipWithError("the idle connections were not all accepted");
      return;
    }
    const double perConnection = static_cast<double>(after - before) / kIdleConnections;
    record("ipc.idle_connection_kib", perConnection);
    record("ipc.idle.rss_before_kib", static_cast<double>(before));
    record("ipc.idle.rss_after_kib", static_cast<double>(after));
    state.counters["kib_per_connection"] = perConnection;
  }
}
BENCHMARK(BM_IpcIdleConnections)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace daskel::bench

int main(int argc, char** argv) {
  return daskel::bench::runBenchmarks(argc, argv);
}
