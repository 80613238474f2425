// Daemon figures, end to end through the real daskeld on a whole installation in a temporary
// directory (DaemonFixture: every DASKEL_* location and HOME point into it), with real
// extension processes (the scripted test extension) and real client processes:
// - round trip of wakeUpCompletion: from this process through DKDaemonClient, against a
//   blocking ping-pong of the very same request and reply frames with a raw server process,
//   measured interleaved in the same run; a raw client sending the same frames to the daemon
//   splits the cost between the client library and the daemon;
// - round trip of startProvidingItemAtURL:... for a granted item of a running scripted
//   extension (identifier look-up and startProviding in the extension process, the
//   access-control check in the daemon), against a ping-pong of its frames;
// - requests per second with 8 and 64 closed-loop client processes (daemon_bench_client):
//   wakeUpCompletion: alone, and startProviding alone;
// - round trip of the same startProviding request naming a provider that is not installed:
//   the daemon answers it alone (entitlement check, provider look-up), so the difference is
//   what the two requests to the extension cost;
// - start-up: from spawning daskeld to the answer to the first wake-up, with 1, 20 and 100
//   installed providers, each of which the daemon launches and registers at start-up, and
//   the cost of one more provider (the slope from 1 provider).
// With DASKEL_BENCH_DAEMON_LOG_DIR set (see below) the daemon logs at debug level and the
// start-up figures are split into launch, ready handshake and set-up round trip per provider.
// This process is a client application itself: a manifest names its executable (and the
// client program's) with both access-control entitlements.
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchSummary.h"
#include "ScriptedExtensionBundle.h"
#include "client/DKDaemonClient.h"
#include "daemon/protocol/DKDaemon.h"
#include "helpers/ChildProcess.h"
#include "helpers/ClosedLoopClients.h"
#include "helpers/DaemonFixture.h"
#include "helpers/RawPingPong.h"
#include "platform/ipc/Frame.h"
#include "platform/ipc/Message.h"
#include "platform/log/Log.h"
#include "platform/plist/PropertyList.h"

namespace daskel::bench {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using daskel::testing::ChildProcess;
using daskel::testing::DaemonFixture;
using daskel::testing::ScriptedExtensionBundle;
using platform::Value;
namespace S = DKDaemonSelector;

// The daemon logs notices and errors, as a quiet production installation would; info lines
// (one per accepted connection) would otherwise go to the log file, at a cost to every figure.
constexpr char kDaemonLogLevels[] = "global=5 console=5 file=5";
// For finding where the time goes: with DASKEL_BENCH_DAEMON_LOG_DIR set, the daemon logs at
// debug level (timestamps in microseconds) and every installation's daemon log is kept there
// as <label>-<n>.log. Debug logging slows the daemon, so the figures of such a run are not
// comparable with others.
constexpr char kLogDirectoryVariable[] = "DASKEL_BENCH_DAEMON_LOG_DIR";
constexpr char kDebugLogLevels[] = "global=7 console=7 file=7";

constexpr char kReadKey[] = "com.orvane.daskel.acl-read";
constexpr char kWriteKey[] = "com.orvane.daskel.acl-write";
constexpr char kBenchApplication[] = "org.daskel.bench";
constexpr char kConsumer[] = "org.daskel.bench.consumer";
constexpr char kProvider[] = "com.example.bench.provider0";
constexpr char kItem[] = "Bench/Item.txt";  // in kProvider's storage directory

// The id the raw peers put in every request, as in the IPC benchmark: three bytes of CBOR.
constexpr std::uint64_t kRawReplyId = 1000;

constexpr int kWakeUpWarmup = 1000;
constexpr int kWakeUpSamples = 10000;
constexpr int kStartProvidingWarmup = 200;
constexpr int kStartProvidingSamples = 2000;
constexpr int kChunk = 100;  // samples of one kind before switching to the next
constexpr auto kThroughputRun = 1000ms;
constexpr int kThroughputRounds = 2;
constexpr int kStartupRuns = 3;
constexpr auto kServingDeadline = 60s;
constexpr auto kHelperDeadline = 30s;

double microseconds(Clock::duration d) {
  return std::chrono::duration<double, std::micro>(d).count();
}

double milliseconds(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

void quietLogs() {
  platform::setLogLevels({platform::kLogError, platform::kLogError, platform::kLogError});
}

// Sets an environment variable of this process for a scope, restoring the old value after.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const std::string& value) : name_(name) {
    if (const char* old = std::getenv(name)) {
      old_ = old;
    }
    ::setenv(name, value.c_str(), 1);
  }
  ~ScopedEnvironment() {
    if (old_) {
      ::setenv(name_, old_->c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  const char* const name_;
  std::optional<std::string> old_;
};

// A DaemonFixture with `providers` scripted extensions (all succeeding at once), a manifest
// that makes this program and daemon_bench_client the application kBenchApplication with both
// access-control entitlements, and this process's DASKEL_RUNTIME_DIR and HOME pointing into
// it, so DKDaemonClient here and in the client processes finds the daemon.
class BenchInstallation {
 public:
  // `label` names the kept log (see kLogDirectoryVariable).
  BenchInstallation(int providers, std::string label)
      : runtime_("DASKEL_RUNTIME_DIR", fixture_.runtimeDirectory()),
        home_("HOME", fixture_.homeDirectory()),
        label_(std::move(label)) {
    error_ = layOut(providers);
  }
  ~BenchInstallation() {
    const char* directory = std::getenv(kLogDirectoryVariable);
    if (directory == nullptr || !fixture_.running()) {
      return;
    }
    fixture_.stop();
    static std::map<std::string, int> keptLogs;  // by label
    std::ofstream out(std::string(directory) + "/" + label_ + "-" +
                      std::to_string(++keptLogs[label_]) + ".log");
    out << fixture_.log();
  }
  BenchInstallation(const BenchInstallation&) = delete;
  BenchInstallation& operator=(const BenchInstallation&) = delete;

  const std::string& error() const { return error_; }
  DaemonFixture& fixture() { return fixture_; }
  std::string path(const std::string& name) const { return fixture_.root() + "/" + name; }

  // The storage directory of provider `index`.
  std::string storage(int index) const { return fixture_.storageDirectory(group(index)); }

  // The item the start-providing figures ask provider 0 for. It exists on disk, as the
  // placeholder or stand-in of an item a consumer opens does.
  std::string item() const { return storage(0) + "/" + kItem; }

  // Starts the daemon and waits until it answers a wake-up; returns the time from spawning
  // it to that answer, or nullopt with `error_` set.
  std::optional<Clock::duration> startAndTimeFirstWakeUp() {
    const auto start = Clock::now();
    std::string error;
    const bool debug = std::getenv(kLogDirectoryVariable) != nullptr;
    if (!fixture_.start(debug ? kDebugLogLevels : kDaemonLogLevels, &error)) {
      error_ = "cannot start daskeld: " + error;
      return std::nullopt;
    }
    // The socket appears when the listener is made; early connections then wait in the
    // backlog until the providers are registered and the listener resumes. So: connect as
    // soon as the socket is there, then wait for the one answer.
    const auto deadline = start + kServingDeadline;
    while (Clock::now() < deadline) {
      auto client = DKDaemonClient::connect();
      if (!client) {
        std::this_thread::sleep_for(500us);
        continue;
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (!(*client)->wakeUpSync(std::max(left, 1ms))) {
        return Clock::now() - start;
      }
    }
    error_ = "daskeld answered no wake-up within " +
             std::to_string(std::chrono::seconds(kServingDeadline).count()) + " s; its log:\n" +
             fixture_.log();
    return std::nullopt;
  }

 private:
  static std::string group(int index) {
    return "group.com.example.bench.provider" + std::to_string(index);
  }

  std::string layOut(int providers) {
    if (!fixture_.ready()) {
      return fixture_.setUpError();
    }
    std::string error;
    for (int i = 0; i < providers; ++i) {
      ScriptedExtensionBundle bundle;
      bundle.name = "Provider" + std::to_string(i);
      bundle.identifier = "com.example.bench.provider" + std::to_string(i);
      bundle.group = group(i);
      // The scripted extension records no calls here: the figures are of the daemon, the SDK
      // and an extension that answers at once, not of a test helper's own call log.
      bundle.script = "calls off\n";
      if (fixture_.installExtension(bundle, &error).empty()) {
        return error;
      }
    }
    std::error_code ec;
    if (providers > 0) {
      fs::create_directories(fs::path(item()).parent_path(), ec);
      std::ofstream out(item(), std::ios::binary | std::ios::trunc);
      out << "bench item\n";
      if (ec || !out.good()) {
        return "cannot write " + item();
      }
    }
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    if (ec) {
      return "cannot read /proc/self/exe: " + ec.message();
    }
    const Value manifest(Value::Dictionary{
        {"BundleIdentifier", Value(kBenchApplication)},
        {"Executables",
         Value(Value::Array{Value(self.string()), Value(DASKEL_DAEMON_BENCH_CLIENT)})},
        {"Entitlements",
         Value(Value::Dictionary{{kReadKey, Value(true)}, {kWriteKey, Value(true)}})},
    });
    const std::string path = fixture_.applicationsDirectory() + "/bench.plist";
    {
      std::ofstream out(path, std::ios::binary | std::ios::trunc);
      out << platform::serializeXmlPropertyList(manifest);
      if (!out.good()) {
        return "cannot write " + path;
      }
    }
    if (::chmod(path.c_str(), 0644) != 0) {
      return "cannot chmod " + path;
    }
    return {};
  }

  DaemonFixture fixture_;
  ScopedEnvironment runtime_;
  ScopedEnvironment home_;
  const std::string label_;
  std::string error_;
};

// The whole frame of a request with the raw peers' id, and of its reply.
std::vector<std::uint8_t> requestFrame(const std::string& selector, Value::Array arguments) {
  return *platform::encodeFrame(
      *platform::encodeRequest(platform::Request{selector, std::move(arguments), kRawReplyId}));
}

std::vector<std::uint8_t> replyFrame(Value::Array values) {
  return *platform::encodeFrame(
      *platform::encodeReply(platform::Reply{kRawReplyId, std::move(values)}));
}

// A raw ping-pong server answering with `reply`; killed and reaped when it goes.
std::optional<ChildProcess> startPingPong(const std::string& socketPath,
                                          const std::vector<std::uint8_t>& reply,
                                          std::string& error) {
  auto child = ChildProcess::start(DASKEL_IPC_BENCH_RAW_SERVER,
                                   {"pingpong", socketPath, toHex(reply)}, {}, &error);
  if (!child) {
    return std::nullopt;
  }
  auto line = child->readLine(kHelperDeadline);
  if (line != "ready") {
    error = "the ping-pong server did not get ready: " + line.value_or("(no output)");
    return std::nullopt;
  }
  return child;
}

// Samples of one operation three ways (and optionally of a related one), interleaved in
// chunks so that whatever else the machine does affects all of them alike.
struct RoundTrips {
  std::vector<double> library;    // DKDaemonClient to daskeld
  std::vector<double> raw;        // raw frames to the ping-pong server
  std::vector<double> rawDaemon;  // raw frames to daskeld
  std::vector<double> other;      // the related operation, when one was given
  bool correct = true;
};

RoundTrips measureRoundTrips(const std::function<bool()>& library,
                             RawPeer& raw,
                             RawPeer& rawDaemon,
                             int warmup,
                             int samples,
                             const std::function<bool()>& other = nullptr) {
  RoundTrips result;
  for (int i = 0; i < warmup && result.correct; ++i) {
    result.correct = library() && raw.roundTrip() && rawDaemon.roundTrip() && (!other || other());
  }
  auto chunk = [&](std::vector<double>& into, const std::function<bool()>& roundTrip) {
    for (int i = 0; i < kChunk && result.correct; ++i) {
      const auto start = Clock::now();
      result.correct = roundTrip();
      into.push_back(microseconds(Clock::now() - start));
    }
  };
  result.library.reserve(samples);
  result.raw.reserve(samples);
  result.rawDaemon.reserve(samples);
  while (result.correct && static_cast<int>(result.library.size()) < samples) {
    chunk(result.library, library);
    chunk(result.raw, [&] { return raw.roundTrip(); });
    chunk(result.rawDaemon, [&] { return rawDaemon.roundTrip(); });
    if (other) {
      chunk(result.other, other);
    }
  }
  return result;
}

void recordRoundTrips(const std::string& prefix, const RoundTrips& trips, benchmark::State& state) {
  const double p50 = percentile(trips.library, 50);
  const double p99 = percentile(trips.library, 99);
  const double rawP50 = percentile(trips.raw, 50);
  const double rawP99 = percentile(trips.raw, 99);
  record(prefix + ".p50_us", p50);
  record(prefix + ".p99_us", p99);
  record(prefix + ".raw.p50_us", rawP50);
  record(prefix + ".raw.p99_us", rawP99);
  record(prefix + ".p50_ratio", p50 / rawP50);
  record(prefix + ".p99_ratio", p99 / rawP99);
  record(prefix + ".raw_client.p50_us", percentile(trips.rawDaemon, 50));
  record(prefix + ".raw_client.p99_us", percentile(trips.rawDaemon, 99));
  record(prefix + ".samples", static_cast<double>(trips.library.size()));
  state.counters[prefix + ".p50_us"] = p50;
  state.counters[prefix + ".p50_ratio"] = p50 / rawP50;
}

// ---- round trips ----

void BM_DaemonRoundTrip(benchmark::State& state) {
  quietLogs();
  for (auto _ : state) {
    BenchInstallation installation(1, "roundtrip");
    if (!installation.error().empty() || !installation.startAndTimeFirstWakeUp()) {
      state.SkipWithError(installation.error().c_str());
      return;
    }
    auto client = DKDaemonClient::connect();
    if (!client) {
      state.SkipWithError(client.error()->description().c_str());
      return;
    }
    DKDaemonClient& daemon = **client;
    const std::string socket =
        installation.fixture().runtimeDirectory() + "/" + kDKDaemonServiceName;

    // wakeUpCompletion:
    const auto wakeUpRequest = requestFrame(S::kWakeUp, {});
    const auto wakeUpReply = replyFrame({});
    std::string error;
    auto wakeUpServer = startPingPong(installation.path("wakeup.sock"), wakeUpReply, error);
    if (!wakeUpServer) {
      state.SkipWithError(error.c_str());
      return;
    }
    RawPeer wakeUpRaw(installation.path("wakeup.sock"), wakeUpRequest, wakeUpReply);
    RawPeer wakeUpRawDaemon(socket, wakeUpRequest, wakeUpReply);
    if (!wakeUpRaw.ok() || !wakeUpRawDaemon.ok()) {
      state.SkipWithError("cannot connect raw peers for the wake-up");
      return;
    }
    const RoundTrips wakeUps =
        measureRoundTrips([&] { return daemon.wakeUpSync() == nullptr; }, wakeUpRaw,
                          wakeUpRawDaemon, kWakeUpWarmup, kWakeUpSamples);
    if (!wakeUps.correct) {
      state.SkipWithError("a wake-up reply was missing or wrong");
      return;
    }
    recordRoundTrips("daemon.wakeup", wakeUps, state);

    // startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:, for an item
    // granted to the consumer first.
    const platform::Url item =
        *platform::Url::fileUrlWithPath(installation.item(), false);
    const auto granted = daemon.extendSandboxForFileURLSync(item, kProvider, kConsumer, 30s);
    if (granted.error) {
      error = "extendSandbox failed: " + granted.error->description();
      state.SkipWithError(error.c_str());
      return;
    }
    const auto startRequest =
        requestFrame(S::kStartProviding, {Value(item), Value(kProvider), Value(kConsumer)});
    const auto startReply = replyFrame({Value()});
    auto startServer = startPingPong(installation.path("start.sock"), startReply, error);
    if (!startServer) {
      state.SkipWithError(error.c_str());
      return;
    }
    RawPeer startRaw(installation.path("start.sock"), startRequest, startReply);
    RawPeer startRawDaemon(socket, startRequest, startReply);
    if (!startRaw.ok() || !startRawDaemon.ok()) {
      state.SkipWithError("cannot connect raw peers for start-providing");
      return;
    }
    // The same request naming a provider that is not installed passes the entitlement check
    // and is answered not-found by the daemon alone: the difference is what the two requests
    // to the extension (identifier look-up, then startProviding) cost.
    const std::string unknownProvider = "com.example.bench.not-installed";
    const RoundTrips starts = measureRoundTrips(
        [&] { return daemon.startProvidingItemAtURLSync(item, kProvider, kConsumer) == nullptr; },
        startRaw, startRawDaemon, kStartProvidingWarmup, kStartProvidingSamples,
        [&] {
          const auto error = daemon.startProvidingItemAtURLSync(item, unknownProvider, kConsumer);
          return error && error->domain == "com.orvane.Daskel" && error->code == 3;
        });
    if (!starts.correct) {
      const auto outcome = daemon.startProvidingItemAtURLSync(item, kProvider, kConsumer, 10s);
      error = "a start-providing reply was missing or wrong" +
              (outcome ? ": " + outcome->description() : std::string());
      state.SkipWithError(error.c_str());
      return;
    }
    recordRoundTrips("daemon.start_providing", starts, state);
    record("daemon.start_providing.not_found.p50_us", percentile(starts.other, 50));
    record("daemon.start_providing.not_found.p99_us", percentile(starts.other, 99));
  }
}
BENCHMARK(BM_DaemonRoundTrip)->Iterations(1)->Unit(benchmark::kMillisecond);

// ---- requests per second ----

void BM_DaemonThroughput(benchmark::State& state) {
  quietLogs();
  const int clients = static_cast<int>(state.range(0));
  for (auto _ : state) {
    BenchInstallation installation(1, "rps-" + std::to_string(clients));
    if (!installation.error().empty() || !installation.startAndTimeFirstWakeUp()) {
      state.SkipWithError(installation.error().c_str());
      return;
    }
    // The item the start-providing clients ask for, granted once.
    const std::string item = installation.item();
    {
      auto client = DKDaemonClient::connect();
      const auto granted =
          client ? (*client)->extendSandboxForFileURLSync(
                       *platform::Url::fileUrlWithPath(item, false), kProvider, kConsumer, 30s)
                 : DKDaemonClient::SandboxExtension{.error = client.error()};
      if (granted.error) {
        const std::string error = "extendSandbox failed: " + granted.error->description();
        state.SkipWithError(error.c_str());
        return;
      }
    }
    const std::string runLength = std::to_string(kThroughputRun.count());
    double wakeUpRps = 0;
    double startRps = 0;
    for (int round = 0; round < kThroughputRounds; ++round) {
      // Alternating which goes first, so neither always meets a warmer or colder machine.
      for (int turn = 0; turn < 2; ++turn) {
        const bool wakeUpTurn = (round + turn) % 2 == 0;
        const std::vector<std::string> arguments =
            wakeUpTurn ? std::vector<std::string>{"wakeup", runLength}
                       : std::vector<std::string>{"start-providing", item, kProvider, kConsumer,
                                                  runLength};
        const Load load = runClosedLoopClients(DASKEL_DAEMON_BENCH_CLIENT, arguments, {}, clients,
                                               kThroughputRun);
        if (!load.error.empty()) {
          state.SkipWithError(load.error.c_str());
          return;
        }
        (wakeUpTurn ? wakeUpRps : startRps) += load.rps / kThroughputRounds;
      }
    }
    const std::string prefix = "daemon.rps." + std::to_string(clients);
    record(prefix, wakeUpRps);
    record(prefix + ".start_providing", startRps);
    state.counters["wakeup_rps"] = wakeUpRps;
    state.counters["start_providing_rps"] = startRps;
  }
}
BENCHMARK(BM_DaemonThroughput)->Arg(8)->Arg(64)->Iterations(1)->Unit(benchmark::kMillisecond);

// ---- start-up ----

// Where a debug-level daemon log says start-up time went, as the mean per registered
// provider: from the start of a registration to the extension's launch (spawn), from the
// launch to its ready packet, and from there to the end of its set-up round trip.
struct RegistrationPhases {
  double launchMs = 0;
  double readyMs = 0;
  double setUpMs = 0;
  int providers = 0;
};

// Milliseconds since midnight of a log line's "YYYY-MM-DD HH:MM:SS.ffffff" time stamp.
std::optional<double> logTime(const std::string& line) {
  int hours = 0;
  int minutes = 0;
  double seconds = 0;
  if (line.size() < 26 ||
      std::sscanf(line.c_str() + 11, "%d:%d:%lf", &hours, &minutes, &seconds) != 3) {
    return std::nullopt;
  }
  return ((hours * 60.0 + minutes) * 60.0 + seconds) * 1000.0;
}

// The text between `before` and the next space, or "" when `line` does not hold `before`.
std::string wordAfter(const std::string& line, const std::string& before) {
  const auto at = line.find(before);
  if (at == std::string::npos) {
    return {};
  }
  const auto start = at + before.size();
  return line.substr(start, line.find(' ', start) - start);
}

// Registrations run one after another, so the n-th registration's start belongs to the n-th
// launch.
RegistrationPhases registrationPhases(const std::string& log) {
  std::vector<double> begins;
  std::map<std::string, std::array<std::optional<double>, 3>> byProvider;  // launch, ready, done
  std::vector<std::string> launchOrder;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    const auto time = logTime(line);
    if (!time || line.find(" daskeld[") == std::string::npos) {
      continue;
    }
    if (line.find("-[DKExtensionProvider registerWithFileCoordinatorRetryCount:") !=
        std::string::npos) {
      begins.push_back(*time);
    } else if (auto id = wordAfter(line, "Launched extension "); !id.empty()) {
      byProvider[id][0] = *time;
      launchOrder.push_back(id);
    } else if (auto id = wordAfter(line, ": Extension ");
               !id.empty() && line.ends_with(") is ready")) {
      byProvider[id][1] = *time;
    } else if (auto id = wordAfter(line, "Registered daskel extension "); !id.empty()) {
      byProvider[id][2] = *time;
    }
  }
  RegistrationPhases phases;
  for (std::size_t i = 0; i < launchOrder.size() && i < begins.size(); ++i) {
    const auto& [launch, ready, done] = byProvider[launchOrder[i]];
    if (!launch || !ready || !done) {
      continue;
    }
    phases.launchMs += *launch - begins[i];
    phases.readyMs += *ready - *launch;
    phases.setUpMs += *done - *ready;
    ++phases.providers;
  }
  if (phases.providers > 0) {
    phases.launchMs /= phases.providers;
    phases.readyMs /= phases.providers;
    phases.setUpMs /= phases.providers;
  }
  return phases;
}

// The machine's 1-minute load average, to read the start-up figures by: on a shared machine
// they move with it far more than the round-trip ratios do. -1 when it cannot be read.
double loadAverage() {
  std::ifstream in("/proc/loadavg");
  double load = -1;
  in >> load;
  return in ? load : -1;
}

void BM_DaemonStartup(benchmark::State& state) {
  quietLogs();
  const int providers = static_cast<int>(state.range(0));
  const bool debugLogs = std::getenv(kLogDirectoryVariable) != nullptr;
  // Medians by number of providers, for the cost of one more provider.
  static std::map<int, double> medians;
  for (auto _ : state) {
    std::vector<double> runs;
    std::vector<double> launch, ready, setUp;
    for (int run = 0; run < kStartupRuns; ++run) {
      BenchInstallation installation(providers, "startup-" + std::to_string(providers));
      const auto took =
          installation.error().empty() ? installation.startAndTimeFirstWakeUp() : std::nullopt;
      if (!took) {
        state.SkipWithError(installation.error().c_str());
        return;
      }
      runs.push_back(milliseconds(*took));
      if (debugLogs) {
        const RegistrationPhases phases = registrationPhases(installation.fixture().log());
        if (phases.providers == providers) {
          launch.push_back(phases.launchMs);
          ready.push_back(phases.readyMs);
          setUp.push_back(phases.setUpMs);
        }
      }
    }
    const double median = percentile(runs, 50);
    const std::string name = "daemon.startup_ms." + std::to_string(providers);
    record(name, median);
    record(name + ".loadavg", loadAverage());
    record(name + ".min", *std::min_element(runs.begin(), runs.end()));
    record(name + ".max", *std::max_element(runs.begin(), runs.end()));
    state.counters["median_ms"] = median;
    medians[providers] = median;
    if (providers > 1 && medians.contains(1)) {
      record(name + ".per_provider", (median - medians[1]) / (providers - 1));
    }
    if (!launch.empty()) {
      const std::string prefix = "daemon.startup_debug." + std::to_string(providers);
      record(prefix + ".launch_ms_per_provider", percentile(launch, 50));
      record(prefix + ".ready_ms_per_provider", percentile(ready, 50));
      record(prefix + ".setup_ms_per_provider", percentile(setUp, 50));
    }
  }
}
BENCHMARK(BM_DaemonStartup)
    ->Arg(1)
    ->Arg(20)
    ->Arg(100)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace daskel::bench

int main(int argc, char** argv) {
  return daskel::bench::runBenchmarks(argc, argv);
}
