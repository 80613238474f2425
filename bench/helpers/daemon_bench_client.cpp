// daemon_bench_client MODE ... MILLISECONDS: one closed-loop client of the daemon benchmark's
// throughput runs. Connects to daskeld (the service in DASKEL_RUNTIME_DIR) through
// DKDaemonClient, prints "ready", waits for SIGUSR1, then sends one request at a time for
// MILLISECONDS, each after the previous reply, and prints "done <replies> <nanoseconds>".
//   wakeup MILLISECONDS
//       wakeUpCompletion:, which every client may send.
//   start-providing URL PROVIDER CONSUMER MILLISECONDS
//       startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:; the program
//       must be named by a manifest with the read entitlement and the item granted.
// A failed request prints "error <what>" and exits 1.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "client/DKDaemonClient.h"
#include "helpers/HelperProcess.h"
#include "platform/log/Log.h"

namespace {

using Clock = std::chrono::steady_clock;
using daskel::DKDaemonClient;
using daskel::platform::ErrorPtr;

int fail(const std::string& what) {
  daskel::bench::say("error " + what);
  return 1;
}

void waitForStart() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  int signal = 0;
  sigwait(&set, &signal);
}

int runLoop(DKDaemonClient& client,
            const std::function<ErrorPtr(DKDaemonClient&)>& request,
            Clock::duration duration) {
  daskel::bench::say("ready");
  waitForStart();
  long replies = 0;
  const auto start = Clock::now();
  const auto end = start + duration;
  Clock::time_point now = start;
  while (now < end) {
    if (const ErrorPtr error = request(client)) {
      return fail("request " + std::to_string(replies) + ": " + error->description());
    }
    ++replies;
    now = Clock::now();
  }
  daskel::bench::say("done " + std::to_string(replies) + " " +
                     std::to_string(std::chrono::nanoseconds(now - start).count()));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  daskel::bench::prepareHelperProcess();
  // Blocked before any thread starts and before "ready", so the start signal is never lost.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  daskel::platform::setLogLevels(
      {daskel::platform::kLogError, daskel::platform::kLogError, daskel::platform::kLogError});

  const std::string mode = argc > 1 ? argv[1] : "";
  const bool wakeUp = mode == "wakeup" && argc == 3;
  const bool startProviding = mode == "start-providing" && argc == 6;
  if (!wakeUp && !startProviding) {
    std::fprintf(stderr,
                 "usage: daemon_bench_client wakeup MILLISECONDS\n"
                 "       daemon_bench_client start-providing URL PROVIDER CONSUMER MILLISECONDS\n");
    return 2;
  }
  const auto duration = std::chrono::milliseconds(std::atol(argv[argc - 1]));
  auto client = DKDaemonClient::connect();
  if (!client) {
    return fail(client.error()->description());
  }
  if (wakeUp) {
    return runLoop(
        **client, [](DKDaemonClient& c) { return c.wakeUpSync(); }, duration);
  }
  auto url = daskel::platform::Url::fileUrlWithPath(argv[2], false);
  if (!url) {
    return fail(std::string("not a path: ") + argv[2]);
  }
  const std::string provider = argv[3];
  const std::string consumer = argv[4];
  return runLoop(
      **client,
      [&](DKDaemonClient& c) { return c.startProvidingItemAtURLSync(*url, provider, consumer); },
      duration);
}
