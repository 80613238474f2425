#include "helpers/DaemonFixture.h"

#include <dirent.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "ScriptedExtensionBundle.h"
#include "platform/extensions/ExtensionBundle.h"
#include "platform/plist/PropertyList.h"
#include "platform/url/Url.h"

namespace daskel::testing {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// The client programs' own log lines would only clutter their standard error.
constexpr char kClientLogLevels[] = "global=3 console=3 file=3";

bool writeFile(const std::string& path, const std::string& bytes, mode_t mode) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    if (!out.good()) {
      return false;
    }
  }
  return ::chmod(path.c_str(), mode) == 0;
}

// The parent pid from /proc/<pid>/stat ("pid (comm) state ppid ..."; comm may hold spaces
// and parentheses, so the fields are counted after its last ')').
pid_t parentOf(pid_t pid) {
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  const auto close = stat.rfind(')');
  if (close == std::string::npos) {
    return -1;
  }
  std::istringstream fields(stat.substr(close + 1));
  std::string state;
  pid_t parent = -1;
  fields >> state >> parent;
  return parent;
}

}  // namespace

DaemonFixture::DaemonFixture() {
  // Extension processes outlive a daemon killed under them for a moment; as their subreaper
  // this process can reap them instead of leaving zombies to init.
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  char pattern[] = "/tmp/daskel-e2e-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) {
    setUpError_ = std::string("mkdtemp: ") + std::strerror(errno);
    return;
  }
  root_ = pattern;
  ::chmod(root_.c_str(), 0755);
  for (const char* directory :
       {"run", "extensions", "applications", "group-containers", "state", "home", "clients",
        "staging", "removed", "output", "xdg-run", "xdg-data", "xdg-state", "xdg-config"}) {
    const std::string path = root_ + "/" + directory;
    if (::mkdir(path.c_str(), 0755) != 0) {
      setUpError_ = "mkdir " + path + ": " + std::strerror(errno);
      return;
    }
  }
  ::chmod(runtimeDirectory().c_str(), 0700);
  ::chmod((root_ + "/state").c_str(), 0700);
}

DaemonFixture::~DaemonFixture() {
  stop();
  if (!root_.empty()) {
    std::error_code ec;
    fs::remove_all(root_, ec);
  }
}

std::string DaemonFixture::storageDirectory(const std::string& group) const {
  return root_ + "/group-containers/" + group + "/Daskel Storage";
}

std::vector<std::string> DaemonFixture::environment(const std::string& logLevels) const {
  std::vector<std::string> env = {
      "PATH=/usr/bin:/bin",
      "HOME=" + homeDirectory(),
      "DASKEL_RUNTIME_DIR=" + runtimeDirectory(),
      "DASKEL_EXTENSIONS_PATH=" + extensionsDirectory(),
      "DASKEL_APPLICATIONS_PATH=" + applicationsDirectory(),
      "DASKEL_GROUP_CONTAINERS_DIR=" + root_ + "/group-containers",
      "DASKEL_STATE_DIR=" + root_ + "/state",
      "XDG_RUNTIME_DIR=" + root_ + "/xdg-run",
      "XDG_DATA_HOME=" + root_ + "/xdg-data",
      "XDG_STATE_HOME=" + root_ + "/xdg-state",
      "XDG_CONFIG_HOME=" + root_ + "/xdg-config",
      "DASKEL_LOG=" + logLevels,
  };
  // Sanitizer settings of the test run apply to the processes it starts.
  for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
    if (const char* value = std::getenv(name)) {
      env.push_back(std::string(name) + "=" + value);
    }
  }
  return env;
}

std::string DaemonFixture::installExtension(const ScriptedExtensionBundle& bundle,
                                            std::string* error) {
  const std::string staging = root_ + "/staging/" + std::to_string(++staged_);
  if (::mkdir(staging.c_str(), 0755) != 0) {
    if (error)
      *error = "mkdir " + staging + ": " + std::strerror(errno);
    return {};
  }
  const std::string staged = bundle.layOut(staging, error);
  if (staged.empty()) {
    return {};
  }
  const std::string target = extensionsDirectory() + "/" + bundle.name + ".dkext";
  if (::rename(staged.c_str(), target.c_str()) != 0) {
    if (error)
      *error = "rename " + staged + " to " + target + ": " + std::strerror(errno);
    return {};
  }
  return target;
}

bool DaemonFixture::replaceInfoPlist(const std::string& bundlePath,
                                     const platform::Value& info,
                                     std::string* error) {
  const std::string path = bundlePath + "/" + platform::kInfoPlistFileName;
  auto written = platform::writePropertyListAtomically(info, path);
  if (!written) {
    if (error)
      *error = written.error()->description();
    return false;
  }
  if (::chmod(path.c_str(), 0644) != 0) {
    if (error)
      *error = "chmod " + path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

bool DaemonFixture::removeExtension(const std::string& bundlePath, std::string* error) {
  const std::string away = root_ + "/removed/" + std::to_string(++staged_);
  if (::rename(bundlePath.c_str(), away.c_str()) != 0) {
    if (error)
      *error = "rename " + bundlePath + ": " + std::strerror(errno);
    return false;
  }
  std::error_code ec;
  fs::remove_all(away, ec);
  return true;
}

std::string DaemonFixture::addClient(const std::string& name,
                                     const std::optional<std::string>& bundleIdentifier,
                                     const platform::Value::Dictionary& entitlements,
                                     const std::string& program,
                                     std::string* error) {
  const std::string directory = root_ + "/clients/" + name;
  const std::string copy = directory + "/" + fs::path(program).filename().string();
  std::error_code ec;
  fs::create_directories(directory, ec);
  if (!ec) {
    // A copy, not a link: the daemon knows a process by the file /proc/<pid>/exe names.
    fs::copy_file(program, copy, fs::copy_options::overwrite_existing, ec);
  }
  if (ec || ::chmod(copy.c_str(), 0755) != 0) {
    if (error)
      *error = "cannot copy " + program + " to " + copy + ": " + ec.message();
    return {};
  }
  if (bundleIdentifier) {
    using platform::Value;
    const Value manifest(Value::Dictionary{
        {"BundleIdentifier", Value(*bundleIdentifier)},
        {"Executables", Value(Value::Array{Value(copy)})},
        {"Entitlements", Value(entitlements)},
    });
    const std::string path = applicationsDirectory() + "/" + name + ".plist";
    if (!writeFile(path, platform::serializeXmlPropertyList(manifest), 0644)) {
      if (error)
        *error = "cannot write " + path + ": " + std::strerror(errno);
      return {};
    }
  }
  return copy;
}

bool DaemonFixture::start(const std::string& logLevels, std::string* error) {
  if (daemon_) {
    if (error)
      *error = "the daemon is already running";
    return false;
  }
  logPath_ = root_ + "/daskeld-" + std::to_string(++starts_) + ".log";
  SpawnedProcess::Options options;
  options.program = kDaskeld;
  options.environment = environment(logLevels);
  options.standardOutputPath = logPath_;
  options.standardErrorPath = logPath_;
  daemon_ = SpawnedProcess::start(options, error);
  return daemon_.has_value();
}

bool DaemonFixture::waitUntilServing(std::chrono::milliseconds timeout, std::string* error) {
  const auto deadline = Clock::now() + timeout;
  ClientResult last;
  while (Clock::now() < deadline) {
    if (!daemon_ || daemon_->waitFor(0ms)) {
      if (error)
        *error = "the daemon is not running; its log:\n" + log();
      return false;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    const double seconds = std::max(0.05, static_cast<double>(left.count()) / 1000.0);
    last = run(kDaskelctl, {"--timeout", std::to_string(seconds), "wake-up"}, left + 5s);
    if (last.exitStatus == 0) {
      return true;
    }
    // Status 3: the socket is not there yet. Try again shortly.
    std::this_thread::sleep_for(20ms);
  }
  if (error) {
    *error = "no answer to wake-up in time (last status " + std::to_string(last.exitStatus) + ": " +
             last.standardError + "); the daemon's log:\n" + log();
  }
  return false;
}

bool DaemonFixture::startServing(const std::string& logLevels, std::string* error) {
  return start(logLevels, error) && waitUntilServing(60s, error);
}

std::vector<pid_t> DaemonFixture::daemonChildren() const {
  std::vector<pid_t> children;
  if (!daemon_) {
    return children;
  }
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr) {
    return children;
  }
  while (dirent* entry = ::readdir(proc)) {
    char* end = nullptr;
    const long pid = std::strtol(entry->d_name, &end, 10);
    if (pid > 0 && *end == '\0' && parentOf(static_cast<pid_t>(pid)) == daemon_->pid()) {
      children.push_back(static_cast<pid_t>(pid));
    }
  }
  ::closedir(proc);
  return children;
}

void DaemonFixture::reapExtensions(const std::vector<pid_t>& pids) {
  // They see their control socket close and exit; as their subreaper this process reaps
  // them. One that is still our child after the deadline is killed.
  const auto deadline = Clock::now() + 15s;
  std::vector<pid_t> left = pids;
  while (!left.empty()) {
    std::erase_if(left, [](pid_t pid) {
      int status = 0;
      const pid_t done = ::waitpid(pid, &status, WNOHANG);
      // ECHILD: not (or no longer) ours; it is gone or someone else reaps it.
      return done == pid || (done < 0 && errno == ECHILD);
    });
    if (left.empty()) {
      break;
    }
    if (Clock::now() >= deadline) {
      for (pid_t pid : left) {
        ADD_FAILURE() << "extension process " << pid << " did not end with its daemon";
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
      }
      break;
    }
    std::this_thread::sleep_for(5ms);
  }
}

void DaemonFixture::stop() {
  if (!daemon_) {
    return;
  }
  const std::vector<pid_t> extensions = daemonChildren();
  daemon_->kill(SIGTERM);
  if (!daemon_->waitFor(10s)) {
    ADD_FAILURE() << "daskeld did not end on SIGTERM";
    daemon_->kill(SIGKILL);
    daemon_->waitFor(10s);
  }
  daemon_.reset();
  reapExtensions(extensions);
  checkForSanitizerReports();
}

bool DaemonFixture::holdsSanitizerReport(const std::string& text) {
  for (const char* marker : {"WARNING: ThreadSanitizer", "ERROR: AddressSanitizer",
                             "ERROR: LeakSanitizer", "runtime error:"}) {
    if (text.find(marker) != std::string::npos) {
      return true;
    }
  }
  return false;
}

void DaemonFixture::checkForSanitizerReports() const {
  const std::string text = log();
  if (holdsSanitizerReport(text)) {
    ADD_FAILURE() << "sanitizer report in " << logPath_ << ":\n" << text;
  }
}

std::string DaemonFixture::log() const {
  return logPath_.empty() ? std::string() : readFile(logPath_);
}

std::string DaemonFixture::logSince(std::size_t offset) const {
  const std::string text = log();
  return offset < text.size() ? text.substr(offset) : std::string();
}

bool DaemonFixture::waitForLog(const std::string& text,
                               std::size_t offset,
                               std::chrono::milliseconds timeout) const {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    if (logSince(offset).find(text) != std::string::npos) {
      return true;
    }
    if (Clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(10ms);
  }
}

std::optional<SpawnedProcess> DaemonFixture::launch(const std::string& program,
                                                    const std::vector<std::string>& arguments,
                                                    std::string* outputBase,
                                                    std::string* error) {
  *outputBase = root_ + "/output/" + std::to_string(++clientRuns_);
  SpawnedProcess::Options options;
  options.program = program;
  options.arguments = arguments;
  options.environment = environment(kClientLogLevels);
  options.standardOutputPath = *outputBase + ".out";
  options.standardErrorPath = *outputBase + ".err";
  return SpawnedProcess::start(options, error);
}

ClientResult DaemonFixture::finish(SpawnedProcess& process,
                                   const std::string& outputBase,
                                   std::chrono::milliseconds timeout) {
  ClientResult result;
  result.pid = process.pid();
  const auto status = process.waitFor(timeout);
  if (!status) {
    process.kill(SIGKILL);
    process.waitFor(10s);
  } else if (WIFEXITED(*status)) {
    result.exitStatus = WEXITSTATUS(*status);
  }
  result.standardOutput = readFile(outputBase + ".out");
  result.standardError = readFile(outputBase + ".err");
  if (holdsSanitizerReport(result.standardError)) {
    ADD_FAILURE() << "sanitizer report from client " << process.pid() << ":\n"
                  << result.standardError;
  }
  result.json = nlohmann::json::parse(result.standardOutput, nullptr, /*allow_exceptions=*/false);
  if (result.json.is_discarded()) {
    result.json = nullptr;
  }
  return result;
}

ClientResult DaemonFixture::run(const std::string& program,
                                const std::vector<std::string>& arguments,
                                std::chrono::milliseconds timeout) {
  std::string outputBase;
  std::string error;
  auto process = launch(program, arguments, &outputBase, &error);
  if (!process) {
    ClientResult result;
    result.standardError = error;
    return result;
  }
  return finish(*process, outputBase, timeout);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string fileUrl(const std::string& path) {
  return platform::Url::fileUrlWithPath(path, false)->absoluteString();
}

std::string directoryUrl(const std::string& path) {
  return platform::Url::fileUrlWithPath(path, true)->absoluteString();
}

}  // namespace daskel::testing
