// Transparent file coordination figures, through the real daskeld on a whole installation in a
// temporary directory (DaemonFixture), with a real extension process (the scripted test
// extension, answering every operation at once):
// - coord.plain_open_read: open + read + close of a small present file beside the storage
//   directory (not watched), from this process;
// - coord.transparent_open_read: the same of a small present item inside the watched storage
//   directory, whose open waits for the daemon to ask the provider (identifier look-up and
//   start providing in the extension process) before it is allowed.
// The two are measured interleaved in the same run, p50 and p99 in microseconds. Needs
// CAP_SYS_ADMIN (fanotify permission events); without it nothing is recorded.
#include <fcntl.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchSummary.h"
#include "ScriptedExtensionBundle.h"
#include "helpers/DaemonFixture.h"
#include "platform/testing/MountTable.h"

namespace daskel::bench {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using daskel::testing::DaemonFixture;
using daskel::testing::ScriptedExtensionBundle;

constexpr int kWarmUp = 200;
constexpr int kSamples = 3000;
constexpr std::size_t kFileSize = 4096;

bool fanotifyPermissionEventsAvailable() {
  const int fd = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
  if (fd < 0)
    return false;
  ::close(fd);
  return true;
}

bool isMounted(const std::string& path) {
  return platform::testing::mountsAt(path) > 0;
}

// One open + read to the end + close; microseconds. Aborts the run on a failed open.
double openReadClose(const std::string& path, char* buffer, std::size_t size) {
  const auto start = Clock::now();
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    std::perror(path.c_str());
    std::abort();
  }
  while (::read(fd, buffer, size) > 0) {
  }
  ::close(fd);
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

void BM_OpenRead(benchmark::State& state) {
  if (!fanotifyPermissionEventsAvailable()) {
    state.SkipWithError("fanotify permission events need CAP_SYS_ADMIN");
    for (auto _ : state) {
    }
    return;
  }
  DaemonFixture installation;
  if (!installation.ready()) {
    state.SkipWithError(installation.setUpError().c_str());
    return;
  }
  ScriptedExtensionBundle bundle;
  bundle.name = "Bench";
  bundle.identifier = "com.example.bench.transparent";
  bundle.group = "group.com.example.bench.transparent";
  std::string error;
  const std::string bundlePath = installation.installExtension(bundle, &error);
  const std::string storage = installation.storageDirectory(bundle.group);
  const std::string inside = storage + "/small.txt";
  const std::string outside = installation.root() + "/outside/small.txt";
  fs::create_directories(storage);
  fs::create_directories(installation.root() + "/outside");
  const std::string bytes(kFileSize, 'x');
  std::ofstream(inside, std::ios::binary) << bytes;
  std::ofstream(outside, std::ios::binary) << bytes;
  if (bundlePath.empty() || !installation.start("global=5 console=5 file=5", &error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  // Watched once its mount is there (the mark follows at once; the warm-up covers it).
  const auto deadline = Clock::now() + 60s;
  while (!isMounted(storage) && Clock::now() < deadline)
    std::this_thread::sleep_for(10ms);
  if (!isMounted(storage)) {
    state.SkipWithError("the storage directory was never watched");
    return;
  }

  std::vector<char> buffer(64 * 1024);
  std::vector<double> plain;
  std::vector<double> transparent;
  for (auto _ : state) {
    for (int i = 0; i < kWarmUp; ++i) {
      openReadClose(outside, buffer.data(), buffer.size());
      openReadClose(inside, buffer.data(), buffer.size());
    }
    const std::size_t callsBefore = ScriptedExtensionBundle::calls(bundlePath).size();
    for (int i = 0; i < kSamples; ++i) {
      plain.push_back(openReadClose(outside, buffer.data(), buffer.size()));
      transparent.push_back(openReadClose(inside, buffer.data(), buffer.size()));
    }
    // Every measured open of the item reached the extension (a look-up and a start each).
    const std::size_t calls = ScriptedExtensionBundle::calls(bundlePath).size() - callsBefore;
    if (calls < 2 * static_cast<std::size_t>(kSamples)) {
      state.SkipWithError("the item's opens did not all go through the provider");
      return;
    }
  }
  record("coord.plain_open_read.p50_us", percentile(plain, 50));
  record("coord.plain_open_read.p99_us", percentile(plain, 99));
  record("coord.transparent_open_read.p50_us", percentile(transparent, 50));
  record("coord.transparent_open_read.p99_us", percentile(transparent, 99));
  state.counters["plain_p50_us"] = percentile(plain, 50);
  state.counters["transparent_p50_us"] = percentile(transparent, 50);
  installation.stop();
}
BENCHMARK(BM_OpenRead)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace daskel::bench

int main(int argc, char** argv) {
  return daskel::bench::runBenchmarks(argc, argv);
}
