// Extension request figures, between real processes, each next to a baseline measured in the
// same run:
// - forwarded operation: itemIDForURL:completionHandler: of a DKExtensionProvider on a running
//   scripted extension (the request begins, the proxy call goes out, the reply comes back, the
//   request ends), against a blocking ping-pong of the same request frame with
//   ipc_bench_raw_server, interleaved in chunks so both meet the same machine;
// - cold request: the same operation on an extension that is not running, its launch and
//   ready handshake included. The supervisor's idle time is tiny, so the process stops after
//   every sample; the next sample starts once the old process has been reaped.
// The parts of the forwarded operation are measured alone too (a request begun and cancelled;
// the vendor message on a request already open, with and without the SDK's path resolution),
// to tell where its time goes. The ping-pong moves the forwarded operation's very request and
// reply frames.
// The scripted extension writes its call log to /dev/null here, so no file grows and the
// forwarded figure carries only the cost of one open/write/close per call.
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchSummary.h"
#include "ScriptedExtensionBundle.h"
#include "helpers/ChildProcess.h"
#include "helpers/RawPingPong.h"
#include "platform/coordination/FileCoordinator.h"
#include "platform/extensions/ExtensionSupervisor.h"
#include "platform/extensions/PluginRecord.h"
#include "platform/ipc/Frame.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/Message.h"
#include "platform/log/Log.h"
#include "provider/DKExtensionHostContext.h"
#include "provider/DKExtensionProvider.h"
#include "provider/protocol/DKVendorProtocol.h"

namespace daskel::bench {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using daskel::testing::ChildProcess;
using platform::ErrorPtr;
using platform::Value;

constexpr int kForwardWarmup = 300;
constexpr int kForwardSamples = 5000;
constexpr int kForwardChunk = 100;  // samples of one kind before switching to the other
constexpr int kColdWarmup = 2;
constexpr int kColdSamples = 30;
constexpr auto kDeadline = 30s;
constexpr char kItemName[] = "Quarterly Report.txt";

double microseconds(Clock::duration d) {
  return std::chrono::duration<double, std::micro>(d).count();
}

// A directory of its own for the bundle, the group containers and the sockets, removed at the
// end. Extension processes inherit the environment and find their group container through it.
class Scratch {
 public:
  Scratch() {
    char pattern[] = "/tmp/daskel-ext-bench-XXXXXX";
    if (::mkdtemp(pattern)) {
      root_ = pattern;
      fs::create_directories(root_ / "groups");
      fs::create_directories(root_ / "extensions");
      ::setenv("DASKEL_GROUP_CONTAINERS_DIR", (root_ / "groups").c_str(), 1);
      ::setenv("DASKEL_RUNTIME_DIR", root_.c_str(), 1);
    }
  }
  ~Scratch() {
    ::unsetenv("DASKEL_GROUP_CONTAINERS_DIR");
    ::unsetenv("DASKEL_RUNTIME_DIR");
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  bool ok() const { return !root_.empty(); }
  std::string path(const std::string& name) const { return (root_ / name).string(); }

 private:
  fs::path root_;
};

// One scripted extension behind a supervisor and a provider, as the daemon has them.
struct Extension {
  std::shared_ptr<platform::ExtensionSupervisor> supervisor;
  std::shared_ptr<DKExtensionProvider> provider;
  std::optional<platform::Url> item;
  std::string expectedItemID;
};

std::optional<Extension> makeExtension(const Scratch& scratch,
                                       const std::string& name,
                                       std::chrono::steady_clock::duration idleTime,
                                       platform::FileCoordinator& coordinator,
                                       std::string& error) {
  testing::ScriptedExtensionBundle bundle;
  bundle.name = name;
  bundle.identifier = "com.example.bench." + name;
  bundle.group = "group.com.example.bench." + name;
  bundle.script = "calls /dev/null\n";
  const std::string path = bundle.layOut(scratch.path("extensions"), &error);
  if (path.empty())
    return std::nullopt;
  auto record = platform::PluginRecord::read(path);
  if (!record) {
    error = "cannot read " + path + ": " + record.error()->description();
    return std::nullopt;
  }
  auto shared = std::make_shared<const platform::PluginRecord>(std::move(*record));
  Extension extension;
  extension.supervisor = platform::ExtensionSupervisor::create(
      shared, {.contextClass = DKExtensionHostContext::contextClass(), .idleTime = idleTime});
  DKProviderPlatform platform;
  platform.recordForIdentifier = [shared](const std::string&) { return shared; };
  platform.fileCoordinator = &coordinator;
  platform.scheduler = &platform::Scheduler::real();
  extension.provider = DKExtensionProvider::initWithExtension(extension.supervisor, platform);
  auto storage = extension.provider->providedItemsURL();
  if (!storage) {
    error = "no provided-items directory for " + bundle.identifier;
    return std::nullopt;
  }
  extension.item = storage->appendingPathComponent(kItemName, false);
  extension.expectedItemID = kItemName;
  return extension;
}

// One forwarded itemIDForURL:completionHandler:, waited for; false unless the extension
// answered with the item's identifier in time. `servedBy`, when given, receives the pid of
// the process that answered (read before the request ends, which may stop it).
bool forward(const Extension& extension, pid_t* servedBy = nullptr) {
  struct Answer {
    std::mutex mutex;
    std::condition_variable arrived;
    int state = 0;  // 0 waiting, 1 right, 2 wrong
    pid_t pid = 0;
  };
  auto answer = std::make_shared<Answer>();
  const std::string expected = extension.expectedItemID;
  const bool wantsPid = servedBy != nullptr;
  extension.provider->itemIDForURL(
      *extension.item, [answer, expected, wantsPid, supervisor = extension.supervisor](
                           const ErrorPtr& error, const Value& itemID) {
        const bool right = !error && itemID.string() && *itemID.string() == expected;
        const pid_t pid = wantsPid ? supervisor->processIdentifier() : 0;
        std::lock_guard lock(answer->mutex);
        answer->pid = pid;
        answer->state = right ? 1 : 2;
        answer->arrived.notify_one();
      });
  std::unique_lock lock(answer->mutex);
  answer->arrived.wait_for(lock, kDeadline, [&] { return answer->state != 0; });
  if (servedBy)
    *servedBy = answer->pid;
  return answer->state == 1;
}

// A value that another thread hands over once; waited for with the deadline.
template <typename T>
class HandOver {
 public:
  void put(T value) {
    std::lock_guard lock(mutex_);
    value_ = std::move(value);
    arrived_.notify_one();
  }
  std::optional<T> take() {
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, kDeadline, [&] { return value_.has_value(); });
    return std::move(value_);
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::optional<T> value_;
};

// The parts of a forwarded operation, measured alone on the same extension. Begin: a request
// begins (socketpair, begin packet with the descriptor, completion on the global queue) and
// is cancelled. Call: the vendor message and its reply on a request that is already open.
bool beginAndCancel(const Extension& extension) {
  auto begun = std::make_shared<HandOver<std::string>>();
  extension.supervisor->beginRequest([begun](const std::string& uuid, const ErrorPtr& error) {
    begun->put(error ? std::string() : uuid);
  });
  auto uuid = begun->take();
  if (!uuid || uuid->empty())
    return false;
  extension.supervisor->cancelRequest(*uuid);
  return true;
}

bool callOnOpenRequest(const std::shared_ptr<platform::IpcRemoteProxy>& proxy,
                       const Extension& extension) {
  auto replied = std::make_shared<HandOver<bool>>();
  proxy->call(
      DKVendorSelector::kIdentifierForItem, {Value(*extension.item)},
      [replied, expected = extension.expectedItemID](Value::Array values) {
        replied->put(values.size() == 2 && values[1].string() && *values[1].string() == expected);
      });
  auto right = replied->take();
  return right && *right;
}

// The same on stopProviding, which the SDK answers without touching the file system: the
// difference to the call above is the SDK's resolution of the item's path.
bool stopOnOpenRequest(const std::shared_ptr<platform::IpcRemoteProxy>& proxy,
                       const Extension& extension) {
  auto replied = std::make_shared<HandOver<bool>>();
  proxy->call(
      DKVendorSelector::kStopProviding, {Value(*extension.item)},
      [replied](Value::Array values) { replied->put(values.size() == 1 && values[0].isNull()); });
  auto right = replied->take();
  return right && *right;
}

// The frames of the forwarded operation: what the provider's connection sends for
// itemIDForURL: of `item`, and what the extension answers (no error, the item identifier).
std::vector<std::uint8_t> forwardedRequestFrame(const platform::Url& item) {
  platform::Request request{DKVendorSelector::kIdentifierForItem, {Value(item)}, 1};
  return *platform::encodeFrame(*platform::encodeRequest(request));
}

std::vector<std::uint8_t> forwardedReplyFrame(const std::string& itemID) {
  platform::Reply reply{1, {Value(), Value(itemID)}};
  return *platform::encodeFrame(*platform::encodeReply(reply));
}

void quietLogs() {
  platform::setLogLevels({platform::kLogError, platform::kLogError, platform::kLogError});
}

bool processIsGone(pid_t pid) {
  return !fs::exists("/proc/" + std::to_string(pid));
}

// ---- forwarded operation ----

void BM_ExtensionForward(benchmark::State& state) {
  quietLogs();
  for (auto _ : state) {
    Scratch scratch;
    platform::FileCoordinator coordinator;
    std::string error;
    if (!scratch.ok()) {
      state.SkipWithError("cannot create a scratch directory");
      return;
    }
    auto extension = makeExtension(scratch, "Warm", 60s, coordinator, error);
    if (!extension) {
      state.SkipWithError(error.c_str());
      return;
    }
    // The raw server answers with the extension's very reply bytes.
    const std::vector<std::uint8_t> requestFrame = forwardedRequestFrame(*extension->item);
    const std::vector<std::uint8_t> replyFrame = forwardedReplyFrame(extension->expectedItemID);
    auto server = ChildProcess::start(
        DASKEL_IPC_BENCH_RAW_SERVER, {"pingpong", scratch.path("pingpong.sock"), toHex(replyFrame)},
        {}, &error);
    auto ready =
        server ? server->readLine(std::chrono::duration_cast<std::chrono::milliseconds>(kDeadline))
               : std::nullopt;
    if (!server || ready != "ready") {
      state.SkipWithError(("the ping-pong server did not get ready: " + error).c_str());
      return;
    }
    RawPeer pingPong(scratch.path("pingpong.sock"), requestFrame, replyFrame);
    if (!pingPong.ok()) {
      state.SkipWithError("cannot connect to the ping-pong server");
      return;
    }

    // One request held open for the call-only samples.
    auto held = std::make_shared<HandOver<std::string>>();
    extension->supervisor->beginRequest(
        [held](const std::string& uuid, const ErrorPtr& error) { held->put(error ? "" : uuid); });
    const std::string heldUuid = held->take().value_or("");
    auto context = heldUuid.empty() ? nullptr : extension->supervisor->contextForRequest(heldUuid);
    if (!context) {
      state.SkipWithError("cannot open a request");
      return;
    }
    auto proxy = context->auxiliaryConnection()->remoteObjectProxy();

    bool correct = true;
    for (int i = 0; i < kForwardWarmup && correct; ++i)
      correct = forward(*extension) && pingPong.roundTrip() && beginAndCancel(*extension) &&
                callOnOpenRequest(proxy, *extension) && stopOnOpenRequest(proxy, *extension);
    std::vector<double> forwarded, raw, begins, calls, stops;
    forwarded.reserve(kForwardSamples);
    raw.reserve(kForwardSamples);
    while (correct && static_cast<int>(forwarded.size()) < kForwardSamples) {
      for (int i = 0; i < kForwardChunk && correct; ++i) {
        const auto start = Clock::now();
        correct = forward(*extension);
        forwarded.push_back(microseconds(Clock::now() - start));
      }
      for (int i = 0; i < kForwardChunk && correct; ++i) {
        const auto start = Clock::now();
        correct = pingPong.roundTrip();
        raw.push_back(microseconds(Clock::now() - start));
      }
      for (int i = 0; i < kForwardChunk / 4 && correct; ++i) {
        const auto start = Clock::now();
        correct = beginAndCancel(*extension);
        begins.push_back(microseconds(Clock::now() - start));
      }
      for (int i = 0; i < kForwardChunk / 4 && correct; ++i) {
        const auto start = Clock::now();
        correct = callOnOpenRequest(proxy, *extension);
        calls.push_back(microseconds(Clock::now() - start));
      }
      for (int i = 0; i < kForwardChunk / 4 && correct; ++i) {
        const auto start = Clock::now();
        correct = stopOnOpenRequest(proxy, *extension);
        stops.push_back(microseconds(Clock::now() - start));
      }
    }
    extension->supervisor->cancelRequest(heldUuid);
    if (!correct) {
      state.SkipWithError("a forwarded request or a ping-pong failed");
      return;
    }
    const pid_t pid = extension->supervisor->processIdentifier();
    const double p50 = percentile(forwarded, 50);
    const double p99 = percentile(forwarded, 99);
    const double rawP50 = percentile(raw, 50);
    const double rawP99 = percentile(raw, 99);
    record("ext.forward.p50_us", p50);
    record("ext.forward.p99_us", p99);
    record("ext.forward.raw.p50_us", rawP50);
    record("ext.forward.raw.p99_us", rawP99);
    record("ext.forward.p50_ratio", p50 / rawP50);
    record("ext.forward.p99_ratio", p99 / rawP99);
    record("ext.forward.samples", static_cast<double>(forwarded.size()));
    record("ext.forward.part.begin_cancel.p50_us", percentile(begins, 50));
    record("ext.forward.part.call.p50_us", percentile(calls, 50));
    record("ext.forward.part.call_without_file_system.p50_us", percentile(stops, 50));
    record("ext.forward.request_frame_bytes", static_cast<double>(requestFrame.size()));
    record("ext.forward.reply_frame_bytes", static_cast<double>(replyFrame.size()));
    state.counters["p50_us"] = p50;
    state.counters["raw_p50_us"] = rawP50;
    state.counters["p50_ratio"] = p50 / rawP50;

    // Every request was ended: the process serves nothing when the run is over.
    const auto deadline = Clock::now() + kDeadline;
    while (extension->supervisor->openRequestCount() != 0 && Clock::now() < deadline)
      std::this_thread::sleep_for(1ms);
    if (extension->supervisor->openRequestCount() != 0) {
      state.SkipWithError("requests were left open");
      return;
    }
    extension.reset();  // stops the process
    while (pid > 0 && !processIsGone(pid) && Clock::now() < deadline + kDeadline)
      std::this_thread::sleep_for(1ms);
  }
}
BENCHMARK(BM_ExtensionForward)->Iterations(1)->Unit(benchmark::kMillisecond);

// ---- cold request ----

void BM_ExtensionColdRequest(benchmark::State& state) {
  quietLogs();
  for (auto _ : state) {
    Scratch scratch;
    platform::FileCoordinator coordinator;
    std::string error;
    if (!scratch.ok()) {
      state.SkipWithError("cannot create a scratch directory");
      return;
    }
    // A tiny idle time: the process is stopped as soon as its one request has ended.
    auto extension = makeExtension(scratch, "Cold", 1ms, coordinator, error);
    if (!extension) {
      state.SkipWithError(error.c_str());
      return;
    }
    std::vector<double> cold;
    std::vector<pid_t> pids;
    for (int i = 0; i < kColdWarmup + kColdSamples; ++i) {
      pid_t pid = 0;
      const auto start = Clock::now();
      const bool correct = forward(*extension, &pid);
      const auto elapsed = Clock::now() - start;
      if (!correct || pid <= 0) {
        state.SkipWithError("a cold request failed");
        return;
      }
      // The next sample starts only once this process is stopped and reaped.
      const auto deadline = Clock::now() + kDeadline;
      while (!(processIsGone(pid) && extension->supervisor->processIdentifier() == 0)) {
        if (Clock::now() > deadline) {
          state.SkipWithError("the idle extension was not stopped");
          return;
        }
        std::this_thread::sleep_for(1ms);
      }
      for (pid_t earlier : pids) {
        if (earlier == pid) {
          state.SkipWithError("a sample did not launch a new process");
          return;
        }
      }
      pids.push_back(pid);
      if (i >= kColdWarmup)
        cold.push_back(microseconds(elapsed) / 1000.0);
    }
    const double p50 = percentile(cold, 50);
    record("ext.cold_request.p50_ms", p50);
    record("ext.cold_request.p90_ms", percentile(cold, 90));
    record("ext.cold_request.max_ms", percentile(cold, 100));
    record("ext.cold_request.samples", static_cast<double>(cold.size()));
    state.counters["p50_ms"] = p50;
  }
}
BENCHMARK(BM_ExtensionColdRequest)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace daskel::bench

int main(int argc, char** argv) {
  return daskel::bench::runBenchmarks(argc, argv);
}
