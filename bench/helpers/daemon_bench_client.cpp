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
#include <optional>
#include <string>

#include "client/DKDaemonClient.h"
#include "helpers/HelperProcess.h"
#include "platform/log/Log.h"

namespace {

using Clock = std::chrono::steady_clock;
using daskel::DKDaemonClient;
using daskel::platform::ErrorPtr;

int runLoop(DKDaemonClient& client,
            const std::function<ErrorPtr(DKDaemonClient&)>& request,
            Clock::duration duration) {
  return daskel::bench::runClosedLoop(duration, [&](long) -> std::optional<std::string> {
    if (const ErrorPtr error = request(client)) {
      return error->description();
    }
    return std::nullopt;
  });
}

}  // namespace

int main(int argc, char** argv) {
  daskel::bench::prepareHelperProcess();
  daskel::bench::blockStartSignal();
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
    return daskel::bench::fail(client.error()->description());
  }
  if (wakeUp) {
    return runLoop(
        **client, [](DKDaemonClient& c) { return c.wakeUpSync(); }, duration);
  }
  auto url = daskel::platform::Url::fileUrlWithPath(argv[2], false);
  if (!url) {
    return daskel::bench::fail(std::string("not a path: ") + argv[2]);
  }
  const std::string provider = argv[3];
  const std::string consumer = argv[4];
  return runLoop(
      **client,
      [&](DKDaemonClient& c) { return c.startProvidingItemAtURLSync(*url, provider, consumer); },
      duration);
}
