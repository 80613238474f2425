// Cooperative file coordination: what a coordinated read costs a program that cooperates. The
// real daskeld runs on a temporary installation (DaemonFixture) with one scripted extension
// that answers every start providing at once; the item is a small file already present in its
// storage directory. One sample is a coordinated read through the service (the client
// library's blocking call, which the owning provider answers after its item-identifier look-up
// and its start providing) followed by open + read + close of the file; the baseline, measured
// in the same run and interleaved with it, is the open + read + close alone.
//
//   coord.cooperative_read.p50_us / .p99_us                 coordinated read + open/read
//   coord.cooperative_baseline_open_read.p50_us / .p99_us   open/read of the same file
//   coord.cooperative_read.samples
//
// The daemon logs at its default level (info), so the provider's info line per read is part
// of the cost, as it is in a real installation.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchSummary.h"
#include "ScriptedExtensionBundle.h"
#include "client/FileCoordinationClient.h"
#include "helpers/DaemonFixture.h"
#include "platform/log/Log.h"
#include "platform/url/Url.h"

namespace daskel::bench {
namespace {

using Clock = std::chrono::steady_clock;
using testing::DaemonFixture;
using testing::ScriptedExtensionBundle;

constexpr int kWarmup = 50;
constexpr int kSamples = 2000;
constexpr char kContents[] = "A small item, already present in the storage directory.\n";

double microseconds(Clock::duration d) {
  return std::chrono::duration<double, std::micro>(d).count();
}

// open + read + close; the number of bytes read, -1 on failure.
long openAndRead(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return -1;
  }
  char buffer[4096];
  long total = 0;
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) {
    total += n;
  }
  ::close(fd);
  return total;
}

void BM_CooperativeRead(benchmark::State& state) {
  platform::setLogLevels({platform::kLogError, platform::kLogError, platform::kLogError});
  for (auto _ : state) {
    DaemonFixture fixture;
    if (!fixture.ready()) {
      state.SkipWithError(fixture.setUpError().c_str());
      return;
    }
    ScriptedExtensionBundle bundle;
    bundle.identifier = "com.example.bench.cooperative";
    bundle.group = "group.com.example.bench.cooperative";
    std::string error;
    if (fixture.installExtension(bundle, &error).empty() ||
        !fixture.startServing("global=6 console=6 file=6", &error)) {
      state.SkipWithError(error.c_str());
      return;
    }
    const std::string item = fixture.storageDirectory(bundle.group) + "/small.txt";
    std::ofstream(item) << kContents;
    const long expected = static_cast<long>(sizeof kContents - 1);
    if (openAndRead(item) != expected) {
      state.SkipWithError("cannot write the item");
      return;
    }

    // The client library finds the service through the runtime directory.
    ::setenv("DASKEL_RUNTIME_DIR", fixture.runtimeDirectory().c_str(), 1);
    auto client = FileCoordinationClient::connect();
    ::unsetenv("DASKEL_RUNTIME_DIR");
    if (!client) {
      state.SkipWithError(client.error()->description().c_str());
      return;
    }
    const platform::Url url = *platform::Url::fileUrlWithPath(item, false);

    std::vector<double> cooperative;
    std::vector<double> baseline;
    cooperative.reserve(kSamples);
    baseline.reserve(kSamples);
    for (int i = 0; i < kWarmup + kSamples; ++i) {
      const auto start = Clock::now();
      const auto coordinationError = (*client)->coordinateReadingItemAtURLSync(url, std::chrono::seconds(30));
      const long read = openAndRead(item);
      const auto middle = Clock::now();
      const long plainRead = openAndRead(item);
      const auto end = Clock::now();
      if (coordinationError || read != expected || plainRead != expected) {
        state.SkipWithError(coordinationError ? coordinationError->description().c_str()
                                              : "a read came back short");
        return;
      }
      if (i >= kWarmup) {
        cooperative.push_back(microseconds(middle - start));
        baseline.push_back(microseconds(end - middle));
      }
    }
    const double p50 = percentile(cooperative, 50);
    record("coord.cooperative_read.p50_us", p50);
    record("coord.cooperative_read.p99_us", percentile(cooperative, 99));
    record("coord.cooperative_read.samples", static_cast<double>(cooperative.size()));
    record("coord.cooperative_baseline_open_read.p50_us", percentile(baseline, 50));
    record("coord.cooperative_baseline_open_read.p99_us", percentile(baseline, 99));
    state.counters["p50_us"] = p50;
    state.counters["baseline_p50_us"] = percentile(baseline, 50);
  }
}
BENCHMARK(BM_CooperativeRead)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace daskel::bench

int main(int argc, char** argv) {
  return daskel::bench::runBenchmarks(argc, argv);
}
