#include "platform/extensions/ExtensionSupervisor.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "platform/errors/DKErrors.h"
#include "platform/extensions/ExtensionControlChannel.h"
#include "platform/extensions/SupervisorTestSupport.h"
#include "platform/filesystem/FileSystem.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/log/CapturingLogSink.h"
#include "platform/testing/ManualScheduler.h"

namespace daskel::platform {
namespace {

using namespace extension_test;
using namespace std::chrono_literals;

class ExtensionSupervisorTest : public ::testing::Test {
 protected:
  std::shared_ptr<ExtensionSupervisor> supervisorFor(const std::string& behaviour,
                                                     bool withExecutable = true) {
    bundle_ = withExecutable
                  ? testExtensionBundle(tree_, tree_.directory("extensions"), "Test.dkext",
                                        content_, behaviour)
                  : tree_.bundle(tree_.directory("extensions"), "Test.dkext", content_, false);
    auto bundle = ExtensionBundle::read(bundle_);
    EXPECT_TRUE(bundle.has_value());
    auto record = std::make_shared<const PluginRecord>(*bundle, tree_.directory("groups"));
    ExtensionSupervisorOptions options{.contextClass = testContextClass(),
                                       .idleTime = 30s,
                                       .timing = {.readyTimeout = 10s,
                                                  .stopGrace = 5s,
                                                  .scheduler = &scheduler_,
                                                  .clock = clock_}};
    return ExtensionSupervisor::create(record, options);
  }

  // Calls echo:completion: on the request's connection; the reply (or "error: <code>").
  std::string echo(ExtensionSupervisor& supervisor, const std::string& uuid,
                   const std::string& text) {
    auto context = supervisor.contextForRequest(uuid);
    if (!context)
      return "no context";
    auto promise = std::make_shared<std::promise<std::string>>();
    auto proxy = context->auxiliaryConnection()->remoteObjectProxyWithErrorHandler(
        [promise](const ErrorPtr& error) {
          promise->set_value("error: " + std::to_string(error->code));
        });
    proxy->call("echo:completion:", {Value(text)}, [promise](Value::Array values) {
      promise->set_value(values.at(0).string() ? *values.at(0).string() : "nil");
    });
    auto future = promise->get_future();
    if (future.wait_for(kProcessDeadline) != std::future_status::ready)
      return "no answer";
    return future.get();
  }

  // The UUIDs of `count` requests begun at once from as many threads, in no particular order;
  // a request that fails is a test failure and has no UUID in the list.
  std::vector<std::string> beginConcurrently(ExtensionSupervisor& supervisor, int count) {
    std::vector<std::future<BeginOutcome>> outcomes;
    for (int i = 0; i < count; ++i)
      outcomes.push_back(std::async(std::launch::async, [&] { return beginAndWait(supervisor); }));
    std::vector<std::string> uuids;
    for (auto& outcome : outcomes) {
      BeginOutcome begun = outcome.get();
      EXPECT_EQ(begun.error, nullptr) << (begun.error ? begun.error->description() : "");
      if (!begun.error)
        uuids.push_back(begun.uuid);
    }
    return uuids;
  }

  // Steps the scheduler one second per poll until `condition` holds.
  bool stepUntil(const std::function<bool()>& condition) {
    return waitUntil(condition, [] { scheduler_.advance(1s); });
  }

  // Every process a test starts is gone by its end: its supervisor, released at the end of
  // the test body, closed its control socket, so it exits and is reaped.
  void TearDown() override {
    for (pid_t pid : started_) {
      if (!waitUntil([pid] { return processIsGone(pid); })) {
        ADD_FAILURE() << "pid " << pid << " outlived its supervisor";
        ::kill(pid, SIGKILL);
      }
    }
  }

  pid_t remember(pid_t pid) {
    started_.push_back(pid);
    return pid;
  }

  TemporaryTree tree_;
  BundleContent content_;
  std::string bundle_;
  // Shared by all tests and never destroyed: a process reaped at the very end of a test may
  // still schedule a timer on it from the watcher thread.
  static inline ManualScheduler& scheduler_ = *new ManualScheduler();
  // The scheduler's virtual time, so that supervisors time idleness with one timer at a time.
  std::function<std::chrono::steady_clock::time_point()> clock_ = [] {
    return std::chrono::steady_clock::time_point(scheduler_.now());
  };
  CapturingLogSink::Scope log_;
  std::vector<pid_t> started_;
};

TEST_F(ExtensionSupervisorTest, ARequestRoundTripsAndLaterRequestsShareTheRunningProcess) {
  auto supervisor = supervisorFor("serve");
  BeginOutcome first = beginAndWait(*supervisor);
  ASSERT_TRUE(first.completed);
  ASSERT_EQ(first.error, nullptr) << first.error->description();
  EXPECT_TRUE(ExtensionControlChannel::isWellFormedUuid(first.uuid));
  const pid_t pid = remember(supervisor->processIdentifier());
  ASSERT_GT(pid, 0);

  EXPECT_EQ(echo(*supervisor, first.uuid, "hello"), "hello");
  // Started with the documented environment and working directory.
  EXPECT_EQ(events(bundle_).front(), "started " + std::to_string(pid) + " " +
                                         content_.identifier + " 3 " + bundle_);

  BeginOutcome second = beginAndWait(*supervisor);
  ASSERT_EQ(second.error, nullptr);
  EXPECT_NE(second.uuid, first.uuid);
  EXPECT_EQ(supervisor->processIdentifier(), pid);
  EXPECT_EQ(echo(*supervisor, second.uuid, "again"), "again");
  EXPECT_EQ(countEvents(bundle_, "started"), 1u);
  EXPECT_EQ(supervisor->openRequestCount(), 2u);
  EXPECT_EQ(log_->count(kLogInfo, "Launched extension " + content_.identifier + " (" + bundle_ +
                                      "/provider) as pid " + std::to_string(pid)),
            1u);
}

TEST_F(ExtensionSupervisorTest, CancellingTellsTheExtensionAndClosesTheRequestOnBothSides) {
  auto supervisor = supervisorFor("serve");
  BeginOutcome begun = beginAndWait(*supervisor);
  ASSERT_EQ(begun.error, nullptr);
  remember(supervisor->processIdentifier());
  auto connection = supervisor->contextForRequest(begun.uuid)->auxiliaryConnection();

  supervisor->cancelRequest(begun.uuid);
  EXPECT_EQ(supervisor->contextForRequest(begun.uuid), nullptr);
  EXPECT_FALSE(connection->isValid());
  // The extension reads the cancel packet on its control socket and sees the request's socket
  // close: two sockets, so the two are seen in either order.
  ASSERT_TRUE(waitUntil([&] {
    return countEvents(bundle_, "closed " + begun.uuid) == 1 &&
           countEvents(bundle_, "cancel " + begun.uuid) == 1;
  }));
  // A second cancel and an unknown one are ignored: nothing is sent for them. The extension
  // reads its control packets in order, so once it has seen a begin sent after them, it has
  // seen anything sent before it. The later request is the one handed over after the first
  // began; taking it up hands over a third, whose begin follows the cancels.
  supervisor->cancelRequest(begun.uuid);
  supervisor->cancelRequest(ExtensionControlChannel::makeRequestUuid());
  BeginOutcome later = beginAndWait(*supervisor);
  ASSERT_EQ(later.error, nullptr);
  ASSERT_TRUE(waitUntil([&] { return countEvents(bundle_, "begin ") == 3; }));
  EXPECT_EQ(countEvents(bundle_, "cancel"), 1u);
}

// The request after one that began on a running process is handed over while the extension
// works: the next beginRequest() takes it up without a begin packet on its way.
TEST_F(ExtensionSupervisorTest,
       TheNextRequestIsHandedOverAheadOfNeedAndCancelledWhenTheProcessStops) {
  auto supervisor = supervisorFor("serve");
  BeginOutcome first = beginAndWait(*supervisor);
  ASSERT_EQ(first.error, nullptr);
  const pid_t pid = remember(supervisor->processIdentifier());
  ASSERT_TRUE(waitUntil([&] { return countEvents(bundle_, "begin ") == 2; }));
  // The UUID of the latest request the extension saw begin.
  auto latestBegun = [&] {
    const auto lines = events(bundle_);
    auto it = std::find_if(lines.rbegin(), lines.rend(),
                           [](const std::string& line) { return line.starts_with("begin "); });
    return it == lines.rend() ? std::string() : it->substr(std::string("begin ").size());
  };
  const std::string handedOver = latestBegun();
  ASSERT_NE(handedOver, first.uuid);
  // Not an open request until it is taken: it neither counts nor keeps the process busy.
  EXPECT_EQ(supervisor->openRequestCount(), 1u);
  EXPECT_EQ(supervisor->contextForRequest(handedOver), nullptr);

  BeginOutcome second = beginAndWait(*supervisor);
  ASSERT_EQ(second.error, nullptr);
  EXPECT_EQ(second.uuid, handedOver);
  EXPECT_EQ(echo(*supervisor, second.uuid, "taken up"), "taken up");
  EXPECT_EQ(echo(*supervisor, first.uuid, "still open"), "still open");
  EXPECT_EQ(supervisor->openRequestCount(), 2u);
  ASSERT_TRUE(waitUntil([&] { return countEvents(bundle_, "begin ") == 3; }));
  const std::string third = latestBegun();

  // Idle with one handed over: the idle stop cancels it before closing the control socket.
  supervisor->cancelRequest(first.uuid);
  supervisor->cancelRequest(second.uuid);
  EXPECT_EQ(supervisor->openRequestCount(), 0u);
  scheduler_.advance(30s);
  ASSERT_TRUE(waitUntil([&] { return processIsGone(pid); }));
  EXPECT_EQ(countEvents(bundle_, "cancel " + third), 1u);
  EXPECT_EQ(countEvents(bundle_, "begin "), 3u);

  // The next request goes to a new process, which has nothing handed over yet.
  BeginOutcome relaunched = beginAndWait(*supervisor);
  ASSERT_EQ(relaunched.error, nullptr);
  EXPECT_NE(remember(supervisor->processIdentifier()), pid);
  EXPECT_NE(relaunched.uuid, third);
  EXPECT_EQ(echo(*supervisor, relaunched.uuid, "new process"), "new process");
}

TEST_F(ExtensionSupervisorTest, ARequestTheExtensionClosesIsForgottenAndCancelledWithoutHelp) {
  auto supervisor = supervisorFor("serve");
  BeginOutcome begun = beginAndWait(*supervisor);
  ASSERT_EQ(begun.error, nullptr);
  remember(supervisor->processIdentifier());
  EXPECT_EQ(echo(*supervisor, begun.uuid, "hang up"), "hang up");
  ASSERT_TRUE(waitUntil([&] { return supervisor->openRequestCount() == 0; }));
  EXPECT_EQ(supervisor->contextForRequest(begun.uuid), nullptr);
  EXPECT_TRUE(waitUntil([&] { return countEvents(bundle_, "cancel " + begun.uuid) == 1; }));
  // With nothing open the idle time runs again.
  scheduler_.advance(30s);
  EXPECT_TRUE(waitUntil([&] { return supervisor->processIdentifier() == 0; }));
}

TEST_F(ExtensionSupervisorTest, ACrashFailsTheCallOnceForgetsItsRequestsAndTheNextRequestRelaunches) {
  auto supervisor = supervisorFor("serve");
  BeginOutcome begun = beginAndWait(*supervisor);
  ASSERT_EQ(begun.error, nullptr);
  const pid_t crashed = remember(supervisor->processIdentifier());

  std::atomic<int> errors{0};
  std::atomic<std::int64_t> code{0};
  auto proxy = supervisor->contextForRequest(begun.uuid)
                   ->auxiliaryConnection()
                   ->remoteObjectProxyWithErrorHandler([&](const ErrorPtr& error) {
                     code = error->code;
                     ++errors;
                   });
  proxy->call("echo:completion:", {Value("crash")}, [](Value::Array) {
    ADD_FAILURE() << "a crashed extension answered";
  });
  ASSERT_TRUE(waitUntil([&] { return errors == 1; }));
  EXPECT_EQ(code, static_cast<std::int64_t>(IpcErrorCode::ConnectionInterrupted));
  ASSERT_TRUE(waitUntil([&] { return processIsGone(crashed); }));
  ASSERT_TRUE(waitUntil([&] { return supervisor->openRequestCount() == 0; }));
  EXPECT_EQ(supervisor->contextForRequest(begun.uuid), nullptr);
  EXPECT_EQ(supervisor->processIdentifier(), 0);
  {
    const std::string line = "Extension " + content_.identifier + " (pid " +
                                      std::to_string(crashed) + ") was killed by SIGABRT";
    EXPECT_TRUE(log_->waitFor(line, kProcessDeadline)) << line;
    EXPECT_EQ(log_->count(kLogError, line), 1u);
  }

  BeginOutcome next = beginAndWait(*supervisor);
  ASSERT_EQ(next.error, nullptr);
  const pid_t relaunched = remember(supervisor->processIdentifier());
  EXPECT_NE(relaunched, crashed);
  EXPECT_EQ(echo(*supervisor, next.uuid, "still here"), "still here");
  EXPECT_EQ(errors, 1);
}

TEST_F(ExtensionSupervisorTest, ARequestFailsWithTheReasonWhenTheExecutableCannotBeStarted) {
  {
    auto supervisor = supervisorFor("serve", /*withExecutable=*/false);
    BeginOutcome missing = beginAndWait(*supervisor);
    ASSERT_NE(missing.error, nullptr);
    EXPECT_TRUE(missing.uuid.empty());
    EXPECT_EQ(missing.error->domain, kPosixErrorDomain);
    EXPECT_EQ(missing.error->code, ENOENT);
    EXPECT_NE(missing.error->localizedDescription().find(bundle_ + "/provider"), std::string::npos)
        << missing.error->description();
    EXPECT_EQ(supervisor->processIdentifier(), 0);
  }
  auto supervisor = supervisorFor("serve");
  writeFile(bundle_ + "/provider", "#!/bin/sh\n", 0644);
  BeginOutcome notExecutable = beginAndWait(*supervisor);
  ASSERT_NE(notExecutable.error, nullptr);
  EXPECT_EQ(notExecutable.error->code, EACCES);
  EXPECT_NE(notExecutable.error->localizedDescription().find("Permission denied"),
            std::string::npos);
}

TEST_F(ExtensionSupervisorTest, AnExtensionThatExitsBeforeItIsReadyFailsEveryWaitingRequest) {
  auto supervisor = supervisorFor("exit 7");
  BeginOutcome failed = beginAndWait(*supervisor);
  ASSERT_NE(failed.error, nullptr);
  EXPECT_EQ(failed.error->domain, kIpcErrorDomain);
  EXPECT_EQ(failed.error->code, static_cast<std::int64_t>(IpcErrorCode::ConnectionInterrupted));
  EXPECT_NE(failed.error->localizedDescription().find("exited with status 7 before it was ready"),
            std::string::npos)
      << failed.error->description();
  // The next request tries again rather than reusing the failure.
  EXPECT_NE(beginAndWait(*supervisor).error, nullptr);
  EXPECT_EQ(countEvents(bundle_, "started"), 2u);
}

TEST_F(ExtensionSupervisorTest, AnExtensionThatNeverBecomesReadyIsKilledAfterTheReadyTime) {
  auto supervisor = supervisorFor("never-ready");
  auto outcome = std::async(std::launch::async, [&] { return beginAndWait(*supervisor); });
  ASSERT_TRUE(waitUntil([&] { return countEvents(bundle_, "started") == 1; }));
  const pid_t pid = remember(supervisor->processIdentifier());
  scheduler_.advance(10s);
  BeginOutcome failed = outcome.get();
  ASSERT_NE(failed.error, nullptr);
  EXPECT_NE(failed.error->localizedDescription().find(
                "was killed by SIGKILL: it did not report ready within 10 s"),
            std::string::npos)
      << failed.error->description();
  EXPECT_TRUE(waitUntil([&] { return processIsGone(pid); }));
}

TEST_F(ExtensionSupervisorTest, AnIdleExtensionIsStoppedReapedAndStartedAgainOnDemand) {
  auto supervisor = supervisorFor("serve");
  BeginOutcome begun = beginAndWait(*supervisor);
  ASSERT_EQ(begun.error, nullptr);
  const pid_t pid = remember(supervisor->processIdentifier());
  scheduler_.advance(60s);  // an open request keeps it running however long
  EXPECT_EQ(countEvents(bundle_, "control closed"), 0u);

  supervisor->cancelRequest(begun.uuid);
  scheduler_.advance(29s);
  EXPECT_EQ(supervisor->processIdentifier(), pid);
  scheduler_.advance(1s);
  ASSERT_TRUE(waitUntil([&] { return processIsGone(pid); }));
  EXPECT_EQ(countEvents(bundle_, "control closed"), 1u);
  EXPECT_EQ(supervisor->processIdentifier(), 0);
  {
    const std::string line = "Extension " + content_.identifier + " (pid " +
                                     std::to_string(pid) + ") exited with status 0";
    EXPECT_TRUE(log_->waitFor(line, kProcessDeadline)) << line;
    EXPECT_EQ(log_->count(kLogInfo, line), 1u);
  }

  BeginOutcome again = beginAndWait(*supervisor);
  ASSERT_EQ(again.error, nullptr);
  EXPECT_NE(remember(supervisor->processIdentifier()), pid);
}

TEST_F(ExtensionSupervisorTest, AnExtensionBusyAgainWithinTheIdleTimeIsStoppedTheIdleTimeAfterItsLastRequest) {
  auto supervisor = supervisorFor("serve");
  BeginOutcome first = beginAndWait(*supervisor);
  ASSERT_EQ(first.error, nullptr);
  const pid_t pid = remember(supervisor->processIdentifier());
  supervisor->cancelRequest(first.uuid);  // idle from virtual time 0
  scheduler_.advance(20s);
  BeginOutcome second = beginAndWait(*supervisor);
  ASSERT_EQ(second.error, nullptr);
  EXPECT_EQ(supervisor->processIdentifier(), pid);
  supervisor->cancelRequest(second.uuid);  // idle again from 20 s
  // 30 s after the first idle period began, but only 10 s into the second one. The timer
  // runs its block on a queue: give a wrong stop the time to show in the log.
  auto stopLogged = [](const std::vector<CapturingLogSink::Line>& lines) {
    for (const auto& line : lines) {
      if (line.message.find("has had no request") != std::string::npos)
        return true;
    }
    return false;
  };
  scheduler_.advance(10s);
  EXPECT_FALSE(log_->waitFor(stopLogged, std::chrono::steady_clock::now() + 300ms));
  // 49 s: the second idle period is one second short of the idle time.
  scheduler_.advance(19s);
  EXPECT_FALSE(log_->waitFor(stopLogged, std::chrono::steady_clock::now() + 300ms));
  EXPECT_EQ(supervisor->processIdentifier(), pid);
  EXPECT_EQ(countEvents(bundle_, "control closed"), 0u);
  scheduler_.advance(1s);
  ASSERT_TRUE(waitUntil([&] { return processIsGone(pid); }));
  EXPECT_EQ(countEvents(bundle_, "control closed"), 1u);
  EXPECT_EQ(supervisor->processIdentifier(), 0);
}

TEST_F(ExtensionSupervisorTest, ASchedulerWithoutAKnownTimeStillStopsAnIdleExtension) {
  clock_ = nullptr;  // every idle period gets a timer of its own
  auto supervisor = supervisorFor("serve");
  BeginOutcome first = beginAndWait(*supervisor);
  ASSERT_EQ(first.error, nullptr);
  const pid_t pid = remember(supervisor->processIdentifier());
  supervisor->cancelRequest(first.uuid);
  scheduler_.advance(20s);
  BeginOutcome second = beginAndWait(*supervisor);
  ASSERT_EQ(second.error, nullptr);
  supervisor->cancelRequest(second.uuid);
  scheduler_.advance(29s);
  EXPECT_EQ(supervisor->processIdentifier(), pid);
  scheduler_.advance(1s);
  ASSERT_TRUE(waitUntil([&] { return processIsGone(pid); }));
  EXPECT_EQ(supervisor->processIdentifier(), 0);
}

TEST_F(ExtensionSupervisorTest, AnIdleExtensionThatIgnoresTheClosedControlSocketIsKilled) {
  auto supervisor = supervisorFor("linger");
  BeginOutcome begun = beginAndWait(*supervisor);
  ASSERT_EQ(begun.error, nullptr);
  const pid_t pid = remember(supervisor->processIdentifier());
  supervisor->cancelRequest(begun.uuid);
  scheduler_.advance(30s);
  ASSERT_TRUE(waitUntil([&] { return countEvents(bundle_, "control closed") == 1; }));
  EXPECT_FALSE(processIsGone(pid));
  ASSERT_TRUE(stepUntil([&] { return processIsGone(pid); }));
  {
    const std::string line = "Extension " + content_.identifier + " (pid " + std::to_string(pid) +
                           ") was killed by SIGKILL: it did not exit within 5 s of its control "
                           "socket closing";
    EXPECT_TRUE(log_->waitFor(line, kProcessDeadline)) << line;
    EXPECT_EQ(log_->count(kLogError, line), 1u);
  }
}

TEST_F(ExtensionSupervisorTest, ConcurrentRequestsOnAColdExtensionShareOneLaunch) {
  auto supervisor = supervisorFor("serve");
  constexpr int kRequests = 8;
  const std::vector<std::string> begun = beginConcurrently(*supervisor, kRequests);
  remember(supervisor->processIdentifier());
  const std::set<std::string> uuids(begun.begin(), begun.end());
  EXPECT_EQ(uuids.size(), static_cast<std::size_t>(kRequests));
  EXPECT_EQ(countEvents(bundle_, "started"), 1u);
  EXPECT_EQ(supervisor->openRequestCount(), static_cast<std::size_t>(kRequests));
}

TEST_F(ExtensionSupervisorTest, ConcurrentRequestsOnARunningExtensionEachGetTheirOwnConnection) {
  // Socket pairs are made ahead of the request that uses them: each must go to one request.
  auto supervisor = supervisorFor("serve");
  ASSERT_EQ(beginAndWait(*supervisor).error, nullptr);
  remember(supervisor->processIdentifier());
  constexpr int kRequests = 8;
  const std::vector<std::string> uuids = beginConcurrently(*supervisor, kRequests);
  ASSERT_EQ(uuids.size(), static_cast<std::size_t>(kRequests));
  std::vector<std::future<std::string>> echoes;
  for (int i = 0; i < kRequests; ++i) {
    echoes.push_back(std::async(std::launch::async, [&, i] {
      return echo(*supervisor, uuids[i], "request " + std::to_string(i));
    }));
  }
  for (int i = 0; i < kRequests; ++i)
    EXPECT_EQ(echoes[i].get(), "request " + std::to_string(i));
  EXPECT_EQ(supervisor->openRequestCount(), static_cast<std::size_t>(kRequests + 1));
}

TEST_F(ExtensionSupervisorTest, ReleasingTheSupervisorStopsItsProcessAndClosesItsRequests) {
  auto supervisor = supervisorFor("serve");
  BeginOutcome begun = beginAndWait(*supervisor);
  ASSERT_EQ(begun.error, nullptr);
  const pid_t pid = remember(supervisor->processIdentifier());
  auto connection = supervisor->contextForRequest(begun.uuid)->auxiliaryConnection();
  // The last reference may be dropped a moment later by a callback still returning.
  supervisor.reset();
  EXPECT_TRUE(waitUntil([&] { return !connection->isValid(); }));
  EXPECT_TRUE(waitUntil([&] { return processIsGone(pid); }));
  EXPECT_EQ(countEvents(bundle_, "control closed"), 1u);
}

}  // namespace
}  // namespace daskel::platform
