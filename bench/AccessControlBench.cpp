// Access-control store figures: query latency, and grant latency next to a plain atomic write
// of the same bytes (temporary file, fsync, rename, directory fsync), measured interleaved in
// the same run so that the disk's mood affects both alike.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchSummary.h"
#include "access_control/DKAccessControlStore.h"
#include "platform/log/Log.h"
#include "platform/plist/PropertyList.h"

namespace daskel::bench {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

fs::path scratchDirectory(const std::string& name) {
  fs::path dir = fs::current_path() / "build" / "bench" / "scratch" / name;
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir;
}

std::string providerFor(long i) {
  return "com.example.provider" + std::to_string(i % 10);
}
std::string consumerFor(long i) {
  return "com.example.consumer" + std::to_string((i / 10) % 10);
}
std::string itemFor(long i) {
  return "Documents/Project " + std::to_string(i / 100) + "/Report & notes " + std::to_string(i) +
         ".txt";
}

std::shared_ptr<DKAccessControlStore> storeWithGrants(const fs::path& dir, long count) {
  auto store = DKAccessControlStore::create((dir / "AccessControl.plist").string(), nullptr);
  for (long i = 0; i < count; ++i) {
    store->allowProviderWithIdentifier(providerFor(i), itemFor(i), consumerFor(i));
  }
  return store;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void BM_Query(benchmark::State& state) {
  platform::setLogLevels({3, 3, 3});
  auto dir = scratchDirectory("query");
  auto store = storeWithGrants(dir, 1000);
  struct Triple {
    std::string provider, item, consumer;
  };
  std::vector<Triple> triples;
  for (long n = 0; n < 1000; ++n) {
    triples.push_back({providerFor(n), itemFor(n), consumerFor(n)});
  }
  constexpr int kBatch = 64;
  std::vector<double> perQueryMicros;
  std::size_t i = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    for (int k = 0; k < kBatch; ++k, ++i) {
      const Triple& t = triples[i % triples.size()];
      benchmark::DoNotOptimize(store->isProviderWithIdentifier(t.provider, t.item, t.consumer));
    }
    perQueryMicros.push_back(seconds(Clock::now() - start) * 1e6 / kBatch);
  }
  double p50 = percentile(perQueryMicros, 50);
  state.counters["p50_us"] = p50;
  record("acl.query.p50_us", p50);
}
BENCHMARK(BM_Query)->Iterations(5000)->Unit(benchmark::kMicrosecond);

void BM_Grant(benchmark::State& state) {
  platform::setLogLevels({3, 3, 3});
  const long size = state.range(0);
  auto dir = scratchDirectory("grant-" + std::to_string(size));
  auto store = storeWithGrants(dir, size);
  const fs::path file = dir / "AccessControl.plist";
  const std::string baselinePath = (dir / "Baseline.plist").string();

  std::vector<double> grantSeconds;
  std::vector<double> writeSeconds;
  long next = size;
  // The baseline writes the bytes of the previous grant's file: the same size, give or take
  // one entry. Which of the two goes first alternates, so neither always follows the other's
  // journal commit.
  std::string bytes = readFile(file);
  bool grantFirst = true;
  for (auto _ : state) {
    double grant = 0;
    double write = 0;
    auto timeGrant = [&] {
      auto start = Clock::now();
      store->allowProviderWithIdentifier(providerFor(next), itemFor(next), consumerFor(next));
      grant = seconds(Clock::now() - start);
    };
    auto timeWrite = [&] {
      auto start = Clock::now();
      auto written = platform::writeFileAtomically(baselinePath, bytes);
      write = seconds(Clock::now() - start);
      return written.has_value();
    };
    bool wrote;
    if (grantFirst) {
      timeGrant();
      wrote = timeWrite();
    } else {
      wrote = timeWrite();
      timeGrant();
    }
    grantFirst = !grantFirst;
    if (!wrote) {
      state.SkipWithError("baseline write failed");
      break;
    }
    grantSeconds.push_back(grant);
    writeSeconds.push_back(write);
    state.SetIterationTime(grant);

    bytes = readFile(file);
    store->disallowProviderWithIdentifier(providerFor(next), itemFor(next), consumerFor(next));
    ++next;
  }
  double grantP50 = percentile(grantSeconds, 50);
  double writeP50 = percentile(writeSeconds, 50);
  state.counters["grant_p50_ms"] = grantP50 * 1e3;
  state.counters["write_p50_ms"] = writeP50 * 1e3;
  state.counters["ratio"] = grantP50 / writeP50;
  std::string prefix = "acl.grant." + std::to_string(size);
  record(prefix + ".ratio", grantP50 / writeP50);
  record(prefix + ".p50_ms", grantP50 * 1e3);
  record(prefix + ".write_p50_ms", writeP50 * 1e3);
}
BENCHMARK(BM_Grant)->Arg(10)->Iterations(200)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Grant)->Arg(1000)->Iterations(100)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Grant)->Arg(10000)->Iterations(60)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace daskel::bench

int main(int argc, char** argv) {
  return daskel::bench::runBenchmarks(argc, argv);
}
