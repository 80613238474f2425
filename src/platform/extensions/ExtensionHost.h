// ExtensionHost: the platform's extension machinery for one extension point on Linux
// (AppExtensionMatching). It matches bundles with an ExtensionMatcher and reports each
// matched plug-in record as an ExtensionSupervisor. A record equal to one of the previous
// report is reported as the same supervisor object, so its running process and open
// requests survive changes to other bundles; a changed record (new Info.plist, replaced
// executable, moved bundle) gets a new supervisor, which compares unequal to the old one.
// Supervisors no longer reported are released; one that nobody else holds stops its process.
//
// Ownership: the caller owns the host; the host owns its matcher and shares its supervisors
// with whoever received them.
// THREADING NOTES: every member may be called from any thread. The matching handler runs on
// the host's own serial queue, one call at a time, in order.
// Failure: beginMatching() returns the matcher's start error (POSIX domain), or an
// IPC-domain error when matching has begun already.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/extensions/AppExtension.h"
#include "platform/extensions/ExtensionMatcher.h"
#include "platform/extensions/ExtensionSupervisor.h"

namespace daskel::platform {

struct ExtensionHostOptions {
  // The search directories; DASKEL_EXTENSIONS_PATH when not given.
  std::optional<std::vector<std::string>> directories;
  // Where group containers live; DASKEL_GROUP_CONTAINERS_DIR when not given.
  std::optional<std::string> groupContainersDirectory;
  // How the supervisors run their processes (context class, idle time, timing).
  ExtensionSupervisorOptions supervisor;
  // Debouncing of the matcher (see ExtensionMatchingOptions).
  std::chrono::milliseconds settleTime{75};
  std::chrono::milliseconds maximumDelay{1000};
};

class ExtensionHost final : public AppExtensionMatching {
 public:
  explicit ExtensionHost(ExtensionHostOptions options);
  ~ExtensionHost() override;
  ExtensionHost(const ExtensionHost&) = delete;
  ExtensionHost& operator=(const ExtensionHost&) = delete;

  ErrorPtr beginMatching(const std::string& extensionPointIdentifier, Handler handler) override;
  std::shared_ptr<const PluginRecord> recordForIdentifier(
      const std::string& identifier) const override;

 private:
  // What the matcher's deliveries update; shared with them so a late delivery is harmless.
  struct State {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<ExtensionSupervisor>> supervisors;  // by identifier
  };

  const ExtensionHostOptions options_;
  const std::shared_ptr<State> state_ = std::make_shared<State>();
  std::mutex matcherMutex_;
  std::unique_ptr<ExtensionMatcher> matcher_;
};

}  // namespace daskel::platform
