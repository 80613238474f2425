// DaemonFixture: a whole Daskel installation in a temporary directory, and the real daskeld
// running on it, for end-to-end tests with real extension and client processes.
//
//   <root>/run                runtime directory (the service socket, notifications)
//   <root>/extensions         extension bundles (installExtension)
//   <root>/applications       application manifests (addClient)
//   <root>/group-containers   app-group containers, so storage directories are
//                             <root>/group-containers/<group>/Daskel Storage
//   <root>/state              the sandbox-token key
//   <root>/home               HOME: the access-control file is
//   home/Library/Daskel/AccessControl.plist <root>/clients/<name>/    copies of client programs,
//   one per registered application <root>/daskeld-<n>.log    standard output and error of the n-th
//   start of the daemon, which
//                             the extension processes it starts inherit
//
// Every process it starts gets only the environment built here (every DASKEL_* location, HOME
// and the XDG directories inside <root>), so nothing reaches the machine's /run, /etc or home.
// The test process becomes a child subreaper, so extension processes that outlive a stopped
// daemon are reaped here too. stop() (and the destructor) end the daemon with SIGTERM, then
// SIGKILL if it lingers, wait for its extension processes, and fail the running test if the
// log holds a sanitizer report (as finish() does for a client's standard error). The
// destructor removes <root>.
//
// Not thread safe: one test thread owns a fixture. Failures of the set-up are reported through
// the return values (with an `error` text) so a test can ASSERT on them.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "helpers/SpawnedProcess.h"
#include "platform/value/Value.h"

namespace daskel::testing {

struct ScriptedExtensionBundle;

// What a client program did: how it ended, what it printed.
struct ClientResult {
  pid_t pid = -1;
  // The exit status; -1 when the process was killed by a signal or did not end in time.
  int exitStatus = -1;
  std::string standardOutput;
  std::string standardError;
  // Standard output parsed as JSON; null when it is not a JSON document.
  nlohmann::json json;
};

class DaemonFixture {
 public:
  using Clock = std::chrono::steady_clock;

  DaemonFixture();
  ~DaemonFixture();
  DaemonFixture(const DaemonFixture&) = delete;
  DaemonFixture& operator=(const DaemonFixture&) = delete;

  // False when the temporary installation could not be laid out; see setUpError().
  bool ready() const { return setUpError_.empty(); }
  const std::string& setUpError() const { return setUpError_; }

  const std::string& root() const { return root_; }
  std::string runtimeDirectory() const { return root_ + "/run"; }
  std::string extensionsDirectory() const { return root_ + "/extensions"; }
  std::string applicationsDirectory() const { return root_ + "/applications"; }
  std::string homeDirectory() const { return root_ + "/home"; }
  std::string accessControlFile() const {
    return homeDirectory() + "/Library/Daskel/AccessControl.plist";
  }
  // The storage directory of the extensions of app group `group`.
  std::string storageDirectory(const std::string& group) const;

  // Lays `bundle` out in a staging directory and renames it into the extensions directory, so
  // the daemon never sees a half-written bundle. Returns the bundle's path, "" on failure.
  std::string installExtension(const ScriptedExtensionBundle& bundle, std::string* error = nullptr);
  // Replaces the Info.plist of an installed bundle atomically.
  bool replaceInfoPlist(const std::string& bundlePath,
                        const platform::Value& info,
                        std::string* error = nullptr);
  // Moves the bundle out of the extensions directory in one rename, then deletes it.
  bool removeExtension(const std::string& bundlePath, std::string* error = nullptr);

  // Registers a client application: copies `program` to <root>/clients/<name>/ and, when
  // `bundleIdentifier` is given, writes the manifest <name>.plist naming the copy with
  // `entitlements`. Returns the copy's path, "" on failure.
  std::string addClient(const std::string& name,
                        const std::optional<std::string>& bundleIdentifier,
                        const platform::Value::Dictionary& entitlements,
                        const std::string& program = kDaskelctl,
                        std::string* error = nullptr);

  // Starts daskeld with DASKEL_LOG set to `logLevels`. Does not wait for it to serve.
  bool start(const std::string& logLevels = "global=7 console=7 file=7",
             std::string* error = nullptr);
  // Waits until a wake-up request is answered.
  bool waitUntilServing(std::chrono::milliseconds timeout, std::string* error = nullptr);
  // start() and waitUntilServing().
  bool startServing(const std::string& logLevels = "global=7 console=7 file=7",
                    std::string* error = nullptr);
  void stop();
  bool running() const { return daemon_.has_value(); }
  pid_t daemonPid() const { return daemon_ ? daemon_->pid() : -1; }

  // The log of the current (or last) start of the daemon.
  std::string log() const;
  // Where the log ends now, to look only at what comes later.
  std::size_t logSize() const { return log().size(); }
  std::string logSince(std::size_t offset) const;
  // Waits until the log after `offset` holds `text`.
  bool waitForLog(const std::string& text,
                  std::size_t offset,
                  std::chrono::milliseconds timeout) const;

  // Runs a client program with the installation's environment and waits at most `timeout`
  // for it to end (it is killed after that).
  ClientResult run(const std::string& program,
                   const std::vector<std::string>& arguments,
                   std::chrono::milliseconds timeout = std::chrono::seconds(30));
  // Starts a client program without waiting; its output goes to the files that finish()
  // reads.
  std::optional<SpawnedProcess> launch(const std::string& program,
                                       const std::vector<std::string>& arguments,
                                       std::string* outputBase,
                                       std::string* error = nullptr);
  ClientResult finish(SpawnedProcess& process,
                      const std::string& outputBase,
                      std::chrono::milliseconds timeout);

  // The environment every process started here gets; `logLevels` is its DASKEL_LOG.
  std::vector<std::string> environment(const std::string& logLevels) const;

  static constexpr char kDaskeld[] = DASKEL_E2E_DASKELD;
  static constexpr char kDaskelctl[] = DASKEL_E2E_DASKELCTL;

 private:
  std::vector<pid_t> daemonChildren() const;
  void reapExtensions(const std::vector<pid_t>& pids);
  void checkForSanitizerReports() const;
  static bool holdsSanitizerReport(const std::string& text);

  std::string root_;
  std::string setUpError_;
  std::optional<SpawnedProcess> daemon_;
  int starts_ = 0;
  int clientRuns_ = 0;
  int staged_ = 0;
  std::string logPath_;
};

// What end-to-end tests ask of files: the whole of `path` (empty when unreadable), and the
// file URL of a path (of a directory: with the trailing separator).
std::string readFile(const std::string& path);
std::string fileUrl(const std::string& path);
std::string directoryUrl(const std::string& path);

}  // namespace daskel::testing
