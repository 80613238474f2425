// Test support for the tests that run real extension processes: bundles whose executable is
// the scriptable test extension (testing/main.cpp), what it reports in its "events" file,
// the test vendor interface, and waiting with a deadline.
//
// THREADING NOTES: used from the test's own thread; beginAndWait() waits for a completion
// that runs on a queue.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "platform/extensions/AppExtension.h"
#include "platform/extensions/ExtensionTestSupport.h"
#include "platform/ipc/IpcInterface.h"

namespace daskel::platform::extension_test {

// Long enough for a loaded machine under sanitizers; only reached when something is lost.
inline constexpr std::chrono::seconds kProcessDeadline{20};

inline const IpcInterface& testVendorInterface() {
  static const IpcInterface interface =
      IpcInterface::Builder("TestVendor")
          .operation("echo:completion:", {Value::Type::String}, {Value::Type::String})
          .build();
  return interface;
}

inline const IpcInterface& testHostInterface() {
  static const IpcInterface interface("TestHost");
  return interface;
}

inline ExtensionContextClass testContextClass() {
  return {.hostInterface = testHostInterface, .vendorInterface = testVendorInterface};
}

// A bundle whose executable runs the test extension with `behaviour` (see testing/main.cpp).
inline std::string testExtensionBundle(const TemporaryTree& tree,
                                       const std::string& directory,
                                       const std::string& name,
                                       const BundleContent& content,
                                       const std::string& behaviour = "serve") {
  const std::string bundle = tree.bundle(directory, name, content, /*withExecutable=*/false);
  writeFile(bundle + "/" + content.executable,
            std::string("#!/bin/sh\nexec '") + DASKEL_TEST_EXTENSION_PATH + "'\n", 0755);
  writeFile(bundle + "/behaviour", behaviour + "\n");
  return bundle;
}

// The lines the test extensions of `bundle` have written so far.
inline std::vector<std::string> events(const std::string& bundle) {
  std::vector<std::string> lines;
  std::ifstream in(bundle + "/events");
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

inline std::size_t countEvents(const std::string& bundle, const std::string& prefix) {
  std::size_t count = 0;
  for (const std::string& line : events(bundle))
    count += line.rfind(prefix, 0) == 0 ? 1 : 0;
  return count;
}

// Polls `condition` until it holds or the deadline passes; `step` (if any) runs between
// polls, to move a manual scheduler on.
inline bool waitUntil(const std::function<bool()>& condition,
                      const std::function<void()>& step = {}) {
  const auto deadline = std::chrono::steady_clock::now() + kProcessDeadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline)
      return false;
    if (step)
      step();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// True once `pid` is neither running nor a zombie: it has been reaped.
inline bool processIsGone(pid_t pid) {
  return !std::filesystem::exists("/proc/" + std::to_string(pid));
}

struct BeginOutcome {
  std::string uuid;
  ErrorPtr error;
  bool completed = false;
};

inline BeginOutcome beginAndWait(AppExtension& extension) {
  auto promise = std::make_shared<std::promise<BeginOutcome>>();
  auto future = promise->get_future();
  extension.beginRequest([promise](const std::string& uuid, const ErrorPtr& error) {
    promise->set_value({uuid, error, true});
  });
  if (future.wait_for(kProcessDeadline) != std::future_status::ready)
    return {};
  return future.get();
}

}  // namespace daskel::platform::extension_test
