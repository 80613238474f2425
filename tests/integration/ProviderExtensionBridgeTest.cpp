// DKExtensionProvider with real extension processes. An ExtensionHost matches bundles of the
// scripted test extension laid out in a temporary directory; a provider is made from what it
// reports, with the real supervisor behind it, so every request launches, reaches and ends in
// a real process. What the provider's unit tests check against a fake extension is taken as
// known here: these tests are about the pieces together (retry delays in real time, crashes,
// launch failures, idle stops, replaced bundles, errors crossing the process boundary).
//
// Observation points: the supervisor's open-request count, the extension's call log, the
// captured log lines, and a pass-through AppExtension that notes which requests the provider
// ended (RecordingExtension): it forwards every call to the real supervisor unchanged.
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ScriptedExtensionBundle.h"
#include "platform/coordination/FileCoordinator.h"
#include "platform/errors/DKErrors.h"
#include "platform/extensions/ExtensionHost.h"
#include "platform/filesystem/FileSystem.h"
#include "platform/ipc/IpcTestSupport.h"
#include "platform/log/CapturingLogSink.h"
#include "platform/plist/PropertyList.h"
#include "provider/DKExtensionHostContext.h"
#include "provider/DKExtensionProvider.h"

namespace daskel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using platform::AppExtension;
using platform::CapturingLogSink;
using platform::ErrorPtr;
using platform::ExtensionSupervisor;
using platform::kLogDebug;
using platform::kLogError;
using platform::kLogInfo;
using platform::kLogNotice;
using platform::Url;
using platform::Value;
using platform::testing::Inbox;
using testing::ScriptedExtensionBundle;

// Only reached when something is lost; generous for a loaded machine under sanitizers.
constexpr auto kDeadline = 30s;
constexpr char kProviderPoint[] = "com.orvane.daskel-nonui";

// One temporary root for the whole test program, set up before any test starts a thread:
// extension processes inherit the environment, and find their group containers through it.
class ScratchEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "daskel-provider-ext-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    root_ = fs::canonical(pattern).string();
    fs::create_directories(groups());
    ::setenv("DASKEL_GROUP_CONTAINERS_DIR", groups().c_str(), 1);
    for (const char* name : {"DASKEL_RUNTIME_DIR", "DASKEL_STATE_DIR", "DASKEL_EXTENSIONS_PATH",
                             "DASKEL_APPLICATIONS_PATH"}) {
      const std::string directory = root_ + "/" + name;
      fs::create_directories(directory);
      ::setenv(name, directory.c_str(), 1);
    }
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }

  static const std::string& root() { return root_; }
  static std::string groups() { return root_ + "/groups"; }

 private:
  static inline std::string root_;
};

[[maybe_unused]] ::testing::Environment* const kScratch =
    ::testing::AddGlobalTestEnvironment(new ScratchEnvironment);

bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = kDeadline) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline)
      return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

// True once `pid` is neither running nor a zombie: it has been reaped.
bool processIsGone(pid_t pid) {
  return !fs::exists("/proc/" + std::to_string(pid));
}

// Forwards every call to the real supervisor and notes the UUIDs (or errors) that began
// requests reported and every request the provider ended.
class RecordingExtension final : public AppExtension {
 public:
  struct Journal {
    std::mutex mutex;
    std::vector<std::string> begun;
    std::vector<ErrorPtr> beginErrors;
    std::vector<std::string> ended;
  };

  explicit RecordingExtension(std::shared_ptr<ExtensionSupervisor> real) : real_(std::move(real)) {}

  std::string identifier() const override { return real_->identifier(); }
  std::string description() const override { return real_->description(); }
  bool isEqual(const AppExtension& other) const override { return real_->isEqual(other); }
  void beginRequest(BeginRequestCompletion completion) override {
    real_->beginRequest([journal = journal_, completion = std::move(completion)](
                            const std::string& uuid, const ErrorPtr& error) {
      {
        std::lock_guard lock(journal->mutex);
        if (error)
          journal->beginErrors.push_back(error);
        else
          journal->begun.push_back(uuid);
      }
      completion(uuid, error);
    });
  }
  void cancelRequest(const std::string& requestUuid) override {
    {
      std::lock_guard lock(journal_->mutex);
      journal_->ended.push_back(requestUuid);
    }
    real_->cancelRequest(requestUuid);
  }
  std::shared_ptr<platform::ExtensionContext> contextForRequest(
      const std::string& requestUuid) override {
    return real_->contextForRequest(requestUuid);
  }

  std::vector<std::string> begun() const {
    std::lock_guard lock(journal_->mutex);
    return journal_->begun;
  }
  std::vector<ErrorPtr> beginErrors() const {
    std::lock_guard lock(journal_->mutex);
    return journal_->beginErrors;
  }
  std::vector<std::string> ended() const {
    std::lock_guard lock(journal_->mutex);
    return journal_->ended;
  }

 private:
  const std::shared_ptr<ExtensionSupervisor> real_;
  const std::shared_ptr<Journal> journal_ = std::make_shared<Journal>();
};

struct Outcome {
  ErrorPtr error;
  Value value;
};

DKExtensionProvider::ErrorCompletion into(const std::shared_ptr<Inbox<Outcome>>& inbox) {
  return [inbox](const ErrorPtr& error) { inbox->push({error, Value()}); };
}

DKExtensionProvider::ItemIDCompletion valuesInto(const std::shared_ptr<Inbox<Outcome>>& inbox) {
  return [inbox](const ErrorPtr& error, const Value& value) { inbox->push({error, value}); };
}

// The error that `error` (a DKPluginOperationFailedError) wraps, or null when it is not one.
ErrorPtr unwrapped(const ErrorPtr& error) {
  if (!error || error->domain != kDKErrorDomain ||
      error->code != static_cast<std::int64_t>(DKErrorCode::PluginOperationFailed))
    return nullptr;
  auto underlying = error->userInfo.find(kDKUnderlyingErrorKey);
  return underlying == error->userInfo.end() ? nullptr : underlying->second.error();
}

// Writes `bytes` beside `path` and renames the file over it, the way installers replace files.
void replaceFile(const std::string& path, const std::string& bytes, mode_t mode) {
  const std::string fresh = path + ".new";
  {
    std::ofstream out(fresh, std::ios::binary | std::ios::trunc);
    out << bytes;
    ASSERT_TRUE(out.good()) << fresh;
  }
  ASSERT_EQ(::chmod(fresh.c_str(), mode), 0) << fresh;
  ASSERT_EQ(::rename(fresh.c_str(), path.c_str()), 0) << path;
}

// A provider made from one reported extension, with what observes it.
struct Bridge {
  std::shared_ptr<ExtensionSupervisor> supervisor;
  std::shared_ptr<RecordingExtension> recording;
  std::shared_ptr<DKExtensionProvider> provider;

  std::string identifier() const { return provider->identifier(); }
  Url item(const std::string& name) const {
    return *provider->providedItemsURL()->appendingPathComponent(name, false);
  }
};

class ProviderExtensionBridgeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // One identifier and app group per test, so tests share no container.
    std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    bundle_.identifier = "com.example." + name;
    bundle_.group = "group.com.example." + name;
    directory_ = ScratchEnvironment::root() + "/" + name;
    fs::remove_all(directory_);  // left by an earlier repetition
    fs::remove_all(ScratchEnvironment::groups() + "/" + bundle_.group);
    fs::create_directories(directory_ + "/extensions");
  }

  // Everything the test started is released, and every process it saw is stopped and reaped.
  void TearDown() override {
    for (const Bridge& bridge : bridges_)
      coordinator_.removeProvider(bridge.provider);
    bridges_.clear();
    host_.reset();
    {
      std::lock_guard lock(reports_->mutex);
      reports_->latest.clear();
    }
    for (pid_t pid : pids_) {
      if (!waitUntil([pid] { return processIsGone(pid); })) {
        ADD_FAILURE() << "pid " << pid << " outlived its supervisor";
        ::kill(pid, SIGKILL);
      }
    }
  }

  // Writes the bundle with `script`; returns its path.
  std::string layOut(const std::string& script) {
    bundle_.script = script;
    std::string error;
    bundlePath_ = bundle_.layOut(directory_ + "/extensions", &error);
    EXPECT_FALSE(bundlePath_.empty()) << error;
    return bundlePath_;
  }

  // Starts matching the bundles of this test with `idleTime` for their processes.
  void startHost(std::chrono::milliseconds idleTime = 30s) {
    host_ = std::make_shared<platform::ExtensionHost>(platform::ExtensionHostOptions{
        .directories = std::vector<std::string>{directory_ + "/extensions"},
        .groupContainersDirectory = ScratchEnvironment::groups(),
        .supervisor = {.contextClass = DKExtensionHostContext::contextClass(),
                       .idleTime = idleTime},
        .settleTime = 10ms,
        .maximumDelay = 100ms});
    auto reports = reports_;
    ASSERT_EQ(host_->beginMatching(
                  kProviderPoint,
                  [reports](std::vector<std::shared_ptr<AppExtension>> list, const ErrorPtr&) {
                    std::lock_guard lock(reports->mutex);
                    reports->latest = std::move(list);
                    reports->changed.notify_all();
                  }),
              nullptr);
  }

  // Waits for the host to report this test's extension as something other than `previous`.
  std::shared_ptr<ExtensionSupervisor> waitForExtension(
      const std::shared_ptr<AppExtension>& previous = nullptr) {
    std::unique_lock lock(reports_->mutex);
    std::shared_ptr<ExtensionSupervisor> found;
    reports_->changed.wait_for(lock, kDeadline, [&] {
      for (const auto& extension : reports_->latest) {
        if (extension->identifier() == bundle_.identifier && extension != previous)
          found = std::dynamic_pointer_cast<ExtensionSupervisor>(extension);
      }
      return found != nullptr;
    });
    return found;
  }

  // A provider on `supervisor`, as the registry makes one, with this test's file coordinator.
  Bridge& makeBridge(std::shared_ptr<ExtensionSupervisor> supervisor) {
    auto recording = std::make_shared<RecordingExtension>(supervisor);
    DKProviderPlatform platform = DKProviderPlatform::live(host_, nullptr);
    platform.fileCoordinator = &coordinator_;
    auto provider = DKExtensionProvider::initWithExtension(recording, std::move(platform));
    bridges_.push_back({std::move(supervisor), std::move(recording), std::move(provider)});
    EXPECT_TRUE(bridges_.back().provider->providedItemsURL().has_value());
    return bridges_.back();
  }

  // Lays out, matches and makes the provider in one go.
  Bridge& start(const std::string& script, std::chrono::milliseconds idleTime = 30s) {
    layOut(script);
    startHost(idleTime);
    auto supervisor = waitForExtension();
    EXPECT_NE(supervisor, nullptr) << "the host never reported " << bundle_.identifier;
    return makeBridge(std::move(supervisor));
  }

  pid_t remember(pid_t pid) {
    if (pid > 0)
      pids_.push_back(pid);
    return pid;
  }

  // Asks for the identifier of `url` and waits for the answer; launches the extension if
  // need be and remembers its pid.
  Outcome lookUp(Bridge& bridge, const Url& url) {
    auto inbox = std::make_shared<Inbox<Outcome>>();
    bridge.provider->itemIDForURL(url, valuesInto(inbox));
    EXPECT_TRUE(inbox->waitForCount(1, kDeadline));
    remember(bridge.supervisor->processIdentifier());
    return inbox->size() ? inbox->items()[0] : Outcome{};
  }

  std::vector<std::string> calls() const { return ScriptedExtensionBundle::calls(bundlePath_); }
  std::size_t countCalls(const std::string& line) const {
    const auto all = calls();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), line));
  }

  struct Reports {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::shared_ptr<AppExtension>> latest;
  };

  ScriptedExtensionBundle bundle_;
  std::string directory_;
  std::string bundlePath_;
  platform::FileCoordinator coordinator_;
  CapturingLogSink::Scope log_;
  std::shared_ptr<Reports> reports_ = std::make_shared<Reports>();
  std::shared_ptr<platform::ExtensionHost> host_;
  std::list<Bridge> bridges_;  // a list: tests hold references to its elements
  std::vector<pid_t> pids_;
};

TEST_F(ProviderExtensionBridgeTest, ASetUpThatFailsTwiceIsTriedAgainInRealTimeAndThenRegisters) {
  Bridge& bridge =
      start("performInitialSetup fail-first 2 com.example.setup 7 Storage is not mounted yet\n");
  const std::string id = bridge.identifier();
  auto outcomes = std::make_shared<Inbox<Outcome>>();
  const auto started = std::chrono::steady_clock::now();
  bridge.provider->registerWithFileCoordinatorRetryCount(DKExtensionProvider::kRegistrationTries,
                                                         into(outcomes));
  ASSERT_TRUE(outcomes->waitForCount(1, 60s));
  RecordProperty("registration_ms",
                 std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(
                                    std::chrono::steady_clock::now() - started)
                                    .count()));
  remember(bridge.supervisor->processIdentifier());
  EXPECT_EQ(outcomes->items()[0].error, nullptr);
  EXPECT_TRUE(coordinator_.isRegistered(*bridge.provider));

  // The error crossed the process boundary whole, and the lines came in this order.
  const std::string failed =
      "Daskel extension " + id + " failed to initialize. Error: " +
      platform::makeError("com.example.setup", 7, "Storage is not mounted yet")->description() +
      ".";
  const std::string twoLeft = "Trying to register daskel extension " + id + " again. Tries left: 2";
  const std::string oneLeft = "Trying to register daskel extension " + id + " again. Tries left: 1";
  const std::string registered = "Registered daskel extension " + id + " for path " +
                                 bridge.provider->providedItemsURL()->absoluteString();
  std::vector<CapturingLogSink::Line> seen;
  for (const auto& line : log_->lines()) {
    if (line.message == failed || line.message == twoLeft || line.message == oneLeft ||
        line.message == registered || line.message.starts_with("Error registering daskel"))
      seen.push_back(line);
  }
  EXPECT_EQ(seen, (std::vector<CapturingLogSink::Line>{{kLogError, failed},
                                                       {kLogNotice, twoLeft},
                                                       {kLogError, failed},
                                                       {kLogNotice, oneLeft},
                                                       {kLogInfo, registered}}));
  EXPECT_EQ(log_->count(kLogDebug,
                        "-[DKExtensionProvider registerWithFileCoordinatorRetryCount:completion:]"),
            3u);
  EXPECT_EQ(calls(), std::vector<std::string>(3, "performInitialSetup"));
  // Each try was a request of its own, ended after the set-up replied, failed or not.
  EXPECT_TRUE(waitUntil([&] { return bridge.supervisor->openRequestCount() == 0; }));
  EXPECT_EQ(bridge.recording->begun().size(), 3u);
  EXPECT_EQ(bridge.recording->ended(), bridge.recording->begun());
}

TEST_F(ProviderExtensionBridgeTest, ACrashMidRequestFailsTheCallerOnceAndTheNextRequestRelaunches) {
  Bridge& bridge = start("startProviding crash\n");
  const Url url = bridge.item("Crash.txt");
  // A request that works first, to know the process that will crash.
  const Outcome lookedUp = lookUp(bridge, url);
  ASSERT_EQ(lookedUp.error, nullptr) << lookedUp.error->description();
  EXPECT_EQ(lookedUp.value, Value("Crash.txt"));
  const pid_t crashed = bridge.supervisor->processIdentifier();
  ASSERT_GT(crashed, 0);

  auto outcomes = std::make_shared<Inbox<Outcome>>();
  bridge.provider->startProvidingItemAtURL(url, into(outcomes));
  ASSERT_TRUE(outcomes->waitForCount(1, kDeadline));
  const ErrorPtr error = outcomes->items()[0].error;
  const ErrorPtr underlying = unwrapped(error);
  ASSERT_NE(underlying, nullptr) << (error ? error->description() : "no error");
  EXPECT_EQ(underlying->domain, kIpcErrorDomain);
  EXPECT_EQ(underlying->code, static_cast<std::int64_t>(IpcErrorCode::ConnectionInterrupted));
  EXPECT_EQ(log_->count(kLogError, "Cannot provide item at URL " + url.absoluteString() +
                                       " for extension " + bridge.identifier() +
                                       ". Error: " + underlying->description()),
            1u);
  EXPECT_EQ(countCalls("startProviding " + url.absoluteString()), 1u);
  ASSERT_TRUE(waitUntil([&] { return processIsGone(crashed); }));
  ASSERT_TRUE(waitUntil([&] {
    return bridge.supervisor->processIdentifier() == 0 &&
           bridge.supervisor->openRequestCount() == 0;
  }));
  // The provider ended the look-up's request but left the crashed one to the supervisor.
  ASSERT_EQ(bridge.recording->begun().size(), 2u);
  EXPECT_EQ(bridge.recording->ended(), std::vector<std::string>{bridge.recording->begun().front()});

  // The next request relaunches; the new process reads the script again, now empty.
  ASSERT_TRUE(ScriptedExtensionBundle::writeScript(bundlePath_, ""));
  auto again = std::make_shared<Inbox<Outcome>>();
  bridge.provider->startProvidingItemAtURL(url, into(again));
  ASSERT_TRUE(again->waitForCount(1, kDeadline));
  EXPECT_EQ(again->items()[0].error, nullptr);
  const pid_t relaunched = remember(bridge.supervisor->processIdentifier());
  EXPECT_GT(relaunched, 0);
  EXPECT_NE(relaunched, crashed);
  EXPECT_EQ(countCalls("startProviding " + url.absoluteString()), 2u);
  // The crashed call's completion ran once, and only once, by now.
  EXPECT_EQ(outcomes->size(), 1u);
}

TEST_F(ProviderExtensionBridgeTest, EveryRequestIsEndedOnceItsReplyArrivesAndNotBefore) {
  const std::string gate = directory_ + "/go";
  Bridge& bridge = start("identifierForItem wait-for " + gate + "\n");
  const Url url = bridge.item("Done.txt");
  // While the extension holds the reply, the request stays open and nobody ended it.
  auto held = std::make_shared<Inbox<Outcome>>();
  bridge.provider->itemIDForURL(url, valuesInto(held));
  ASSERT_TRUE(
      waitUntil([&] { return countCalls("identifierForItem " + url.absoluteString()) == 1; }));
  remember(bridge.supervisor->processIdentifier());
  EXPECT_EQ(bridge.supervisor->openRequestCount(), 1u);
  EXPECT_TRUE(bridge.recording->ended().empty());
  EXPECT_EQ(held->size(), 0u);
  { std::ofstream(gate) << "go\n"; }
  ASSERT_TRUE(held->waitForCount(1, kDeadline));
  EXPECT_EQ(held->items()[0].error, nullptr);
  EXPECT_TRUE(waitUntil([&] { return bridge.supervisor->openRequestCount() == 0; }));
  EXPECT_EQ(bridge.recording->ended(), bridge.recording->begun());

  // The other five, one after the other on the same process; itemChanged has no completion,
  // so its end is what shows that it was answered.
  auto outcomes = std::make_shared<Inbox<Outcome>>();
  bridge.provider->providePlaceholderForItemAtURL(url, into(outcomes));
  bridge.provider->startProvidingItemAtURL(url, into(outcomes));
  bridge.provider->stopProvidingItemAtURL(url, into(outcomes));
  bridge.provider->URLForItemID("Done.txt", valuesInto(outcomes));
  bridge.provider->itemChangedAtURL(url);
  ASSERT_TRUE(outcomes->waitForCount(4, kDeadline));
  for (const Outcome& outcome : outcomes->items())
    EXPECT_EQ(outcome.error, nullptr) << outcome.error->description();
  ASSERT_TRUE(waitUntil([&] { return bridge.recording->ended().size() == 6; }));
  EXPECT_TRUE(waitUntil([&] { return bridge.supervisor->openRequestCount() == 0; }));
  std::vector<std::string> begun = bridge.recording->begun();
  std::vector<std::string> ended = bridge.recording->ended();
  std::sort(begun.begin(), begun.end());
  std::sort(ended.begin(), ended.end());
  EXPECT_EQ(ended, begun);
  EXPECT_EQ(countCalls("itemChanged " + url.absoluteString()), 1u);
  EXPECT_EQ(bridge.supervisor->processIdentifier(), pids_.front());
}

// A begin that fails: a missing executable, then one that exits before it is ready.
TEST_F(ProviderExtensionBridgeTest,
       ARequestThatCannotBeginFailsWithTheBeginErrorAndOnlyItemChangedEndsIt) {
  layOut("start exit 3\n");
  struct Case {
    const char* what;
    std::function<void()> prepare;
    std::string domain;
    std::int64_t code;
  };
  const std::string executable = bundlePath_ + "/" + bundle_.executableName;
  fs::remove(executable);
  startHost();
  Bridge& bridge = makeBridge(waitForExtension());
  const Url url = bridge.item("Never.txt");
  const std::vector<Case> cases = {
      {"missing executable", [] {}, platform::kPosixErrorDomain, ENOENT},
      {"exit before ready",
       [&] { ASSERT_EQ(::symlink(bundle_.executable.c_str(), executable.c_str()), 0); },
       kIpcErrorDomain, static_cast<std::int64_t>(IpcErrorCode::ConnectionInterrupted)}};

  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    c.prepare();
    const std::size_t failuresBefore = bridge.recording->beginErrors().size();
    auto outcomes = std::make_shared<Inbox<Outcome>>();
    bridge.provider->providePlaceholderForItemAtURL(url, into(outcomes));
    bridge.provider->startProvidingItemAtURL(url, into(outcomes));
    bridge.provider->stopProvidingItemAtURL(url, into(outcomes));
    bridge.provider->itemIDForURL(url, valuesInto(outcomes));
    bridge.provider->URLForItemID("Never.txt", valuesInto(outcomes));
    ASSERT_TRUE(outcomes->waitForCount(5, kDeadline));
    ASSERT_TRUE(
        waitUntil([&] { return bridge.recording->beginErrors().size() == failuresBefore + 5; }));
    const ErrorPtr beginError = bridge.recording->beginErrors().back();
    EXPECT_EQ(beginError->domain, c.domain);
    EXPECT_EQ(beginError->code, c.code) << beginError->description();
    for (const Outcome& outcome : outcomes->items()) {
      const ErrorPtr underlying = unwrapped(outcome.error);
      ASSERT_NE(underlying, nullptr);
      EXPECT_EQ(underlying->domain, c.domain);
      EXPECT_EQ(underlying->code, c.code);
      EXPECT_TRUE(outcome.value.isNull());
    }
    // None of the five ended a request; itemChanged ends its own even on this path.
    EXPECT_TRUE(bridge.recording->ended().empty());
    bridge.provider->itemChangedAtURL(url);
    ASSERT_TRUE(waitUntil([&] { return bridge.recording->ended().size() == 1; }));
    EXPECT_EQ(bridge.recording->ended(), std::vector<std::string>{""});
    EXPECT_TRUE(log_->waitFor("Cannot tell extension " + bridge.identifier() +
                                  " that item at URL " + url.absoluteString() + " has changed.",
                              kDeadline));
    EXPECT_TRUE(bridge.recording->begun().empty());
    EXPECT_EQ(bridge.supervisor->openRequestCount(), 0u);
    // Ready for the next case.
    bridge.recording = std::make_shared<RecordingExtension>(bridge.supervisor);
    bridge.provider = DKExtensionProvider::initWithExtension(
        bridge.recording, DKProviderPlatform::live(host_, nullptr));
    log_->clear();
  }
  EXPECT_TRUE(calls().empty());
}

TEST_F(ProviderExtensionBridgeTest, ItemChangedEndsItsRequestAfterACrashAndAfterAnErrorReply) {
  Bridge& bridge = start("itemChanged crash\n");
  const Url url = bridge.item("Changed.txt");
  const std::string id = bridge.identifier();
  // The crash comes after the notice went out: the request block runs a second time, with
  // the connection's error, and ends the request on that path too.
  bridge.provider->itemChangedAtURL(url);
  ASSERT_TRUE(waitUntil([&] { return bridge.recording->ended().size() == 1; }));
  ASSERT_EQ(bridge.recording->begun().size(), 1u);
  EXPECT_EQ(bridge.recording->ended(), bridge.recording->begun());
  EXPECT_EQ(log_->count(kLogError, "Cannot tell extension " + id + " that item at URL " +
                                       url.absoluteString() + " has changed."),
            1u);
  ASSERT_TRUE(waitUntil([&] {
    return bridge.supervisor->processIdentifier() == 0 &&
           bridge.supervisor->openRequestCount() == 0;
  }));

  // The relaunched process reads the new script and answers with an error.
  ASSERT_TRUE(ScriptedExtensionBundle::writeScript(
      bundlePath_, "itemChanged error com.example.change 5 Cannot note the change\n"));
  bridge.provider->itemChangedAtURL(url);
  ASSERT_TRUE(waitUntil([&] { return bridge.recording->ended().size() == 2; }));
  remember(bridge.supervisor->processIdentifier());
  ASSERT_EQ(bridge.recording->begun().size(), 2u);
  EXPECT_EQ(bridge.recording->ended(), bridge.recording->begun());
  EXPECT_TRUE(waitUntil([&] { return bridge.supervisor->openRequestCount() == 0; }));
  EXPECT_EQ(log_->count(kLogError,
                        "Could not tell extension " + id + " that item at URL " +
                            url.absoluteString() + " has changed. Error: " +
                            platform::makeError("com.example.change", 5, "Cannot note the change")
                                ->description()),
            1u);
  EXPECT_EQ(countCalls("itemChanged " + url.absoluteString()), 2u);
}

TEST_F(ProviderExtensionBridgeTest, ErrorsTheExtensionRepliesWithKeepDomainCodeAndDescription) {
  // One error per operation, each with its own code; texts with spaces, punctuation, non-ASCII.
  Bridge& bridge = start(
      "providePlaceholder error org.example.storage 101 Placeholder for “Report.txt” failed: "
      "quota\n"
      "startProviding error org.example.storage 102 Download of Report.txt stopped (network)\n"
      "stopProviding error org.example.storage 103 Still uploading Report.txt\n"
      "identifierForItem error org.example.storage 104 Unknown item: Report.txt\n"
      "urlForItemIdentifier error org.example.storage 105 No item named Report.txt\n"
      "performInitialSetup error org.example.account -3 Sign-in required — open Settings\n");
  const Url url = bridge.item("Report.txt");
  auto placeholder = std::make_shared<Inbox<Outcome>>();
  auto start = std::make_shared<Inbox<Outcome>>();
  auto stop = std::make_shared<Inbox<Outcome>>();
  auto itemID = std::make_shared<Inbox<Outcome>>();
  auto itemURL = std::make_shared<Inbox<Outcome>>();
  auto setup = std::make_shared<Inbox<Outcome>>();
  bridge.provider->providePlaceholderForItemAtURL(url, into(placeholder));
  bridge.provider->startProvidingItemAtURL(url, into(start));
  bridge.provider->stopProvidingItemAtURL(url, into(stop));
  bridge.provider->itemIDForURL(url, valuesInto(itemID));
  bridge.provider->URLForItemID("Report.txt", valuesInto(itemURL));
  bridge.provider->registerWithFileCoordinatorCompletion(into(setup));

  struct Expected {
    std::shared_ptr<Inbox<Outcome>> inbox;
    std::int64_t code;
    std::string description;
  };
  const std::vector<Expected> wrapped = {
      {placeholder, 101, "Placeholder for “Report.txt” failed: quota"},
      {start, 102, "Download of Report.txt stopped (network)"},
      {stop, 103, "Still uploading Report.txt"},
      {itemID, 104, "Unknown item: Report.txt"},
      {itemURL, 105, "No item named Report.txt"}};
  for (const Expected& expected : wrapped) {
    SCOPED_TRACE(expected.code);
    ASSERT_TRUE(expected.inbox->waitForCount(1, kDeadline));
    const Outcome outcome = expected.inbox->items()[0];
    const ErrorPtr underlying = unwrapped(outcome.error);
    ASSERT_NE(underlying, nullptr) << (outcome.error ? outcome.error->description() : "nil");
    EXPECT_EQ(underlying->domain, "org.example.storage");
    EXPECT_EQ(underlying->code, expected.code);
    EXPECT_EQ(underlying->localizedDescription(), expected.description);
    // Wrapped exactly once.
    EXPECT_EQ(underlying->userInfo.count(kDKUnderlyingErrorKey), 0u);
    EXPECT_EQ(outcome.error->localizedDescription(),
              "The provider extension's operation failed: " + expected.description);
    EXPECT_TRUE(outcome.value.isNull());
  }
  EXPECT_EQ(log_->count(kLogError, "Proxy failed to get item ID for URL " + url.absoluteString() +
                                       " for extension " + bridge.identifier() + ". Error: " +
                                       unwrapped(itemID->items()[0].error)->description()),
            1u);
  // Registration hands its last try's error on as it came, not wrapped.
  ASSERT_TRUE(setup->waitForCount(1, kDeadline));
  const ErrorPtr setupError = setup->items()[0].error;
  ASSERT_NE(setupError, nullptr);
  EXPECT_EQ(setupError->domain, "org.example.account");
  EXPECT_EQ(setupError->code, -3);
  EXPECT_EQ(setupError->localizedDescription(), "Sign-in required — open Settings");
  EXPECT_FALSE(coordinator_.isRegistered(*bridge.provider));
  remember(bridge.supervisor->processIdentifier());
  EXPECT_TRUE(waitUntil([&] { return bridge.supervisor->openRequestCount() == 0; }));
}

TEST_F(ProviderExtensionBridgeTest,
       AnIdleExtensionIsStoppedAndReapedAndTheNextRequestStartsItAgain) {
  Bridge& bridge = start("", /*idleTime=*/100ms);
  const Url url = bridge.item("Idle.txt");
  ASSERT_EQ(lookUp(bridge, url).error, nullptr);
  const pid_t first = pids_.at(0);
  // The reply ended the request, so nothing keeps the process once the idle time is over.
  ASSERT_TRUE(waitUntil([&] { return processIsGone(first); }));
  EXPECT_EQ(bridge.supervisor->processIdentifier(), 0);
  const std::string exited = "Extension " + bridge.identifier() + " (pid " + std::to_string(first) +
                             ") exited with status 0";
  EXPECT_TRUE(log_->waitFor(exited, kDeadline)) << exited;
  EXPECT_EQ(log_->count(kLogInfo, exited), 1u);

  ASSERT_EQ(lookUp(bridge, url).error, nullptr);
  ASSERT_EQ(pids_.size(), 2u);
  EXPECT_NE(pids_.at(1), first);
  EXPECT_GT(pids_.at(1), 0);
  EXPECT_EQ(countCalls("identifierForItem " + url.absoluteString()), 2u);
}

TEST_F(ProviderExtensionBridgeTest,
       AnExtensionReplacedOnDiskIsReportedAsAChangedRecordOfTheSameIdentifier) {
  bundle_.copyExecutable = true;
  Bridge& original = start("");
  ASSERT_EQ(lookUp(original, original.item("Kept.txt")).error, nullptr);
  const pid_t originalPid = pids_.at(0);

  // A new Info.plist renamed over the old one: the same identifier, now with a version.
  Value::Dictionary info = *bundle_.infoDictionary().dictionary();
  info[platform::kBundleVersionKey] = Value("2.0");
  replaceFile(bundlePath_ + "/" + platform::kInfoPlistFileName,
              platform::serializeXmlPropertyList(Value(info)), 0644);
  auto second = waitForExtension(original.supervisor);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->identifier(), original.supervisor->identifier());
  EXPECT_FALSE(second->isEqual(*original.supervisor));
  EXPECT_FALSE(original.supervisor->isEqual(*second));
  EXPECT_EQ(second->record()->version(), "2.0");
  EXPECT_EQ(host_->recordForIdentifier(bundle_.identifier), second->record());

  // A new executable renamed over the old one: the same program, another file.
  {
    const std::string executable = bundlePath_ + "/" + bundle_.executableName;
    const std::string fresh = executable + ".new";
    fs::copy_file(bundle_.executable, fresh);
    ASSERT_EQ(::chmod(fresh.c_str(), 0755), 0) << fresh;
    ASSERT_EQ(::rename(fresh.c_str(), executable.c_str()), 0) << executable;
  }
  auto third = waitForExtension(second);
  ASSERT_NE(third, nullptr);
  EXPECT_EQ(third->identifier(), original.supervisor->identifier());
  EXPECT_FALSE(third->isEqual(*second));
  EXPECT_FALSE(*third->record() == *second->record());
  EXPECT_EQ(third->record()->version(), "2.0");
  EXPECT_EQ(host_->recordForIdentifier(bundle_.identifier), third->record());

  // A provider made from the newest record has the same storage directory and reaches a
  // process of its own.
  Bridge& replaced = makeBridge(third);
  EXPECT_EQ(replaced.provider->providedItemsURL(), original.provider->providedItemsURL());
  ASSERT_EQ(lookUp(replaced, replaced.item("Kept.txt")).error, nullptr);
  EXPECT_NE(replaced.supervisor->processIdentifier(), originalPid);
  // The original supervisor, no longer reported and now released, stops its process.
  second.reset();
  bridges_.erase(bridges_.begin());
  EXPECT_TRUE(waitUntil([&] { return processIsGone(originalPid); }));
}

}  // namespace
}  // namespace daskel
