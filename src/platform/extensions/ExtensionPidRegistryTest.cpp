#include "platform/extensions/ExtensionPidRegistry.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/extensions/ExtensionSupervisor.h"
#include "platform/extensions/SupervisorTestSupport.h"
#include "platform/log/CapturingLogSink.h"
#include "platform/testing/ManualScheduler.h"

namespace daskel::platform {
namespace {

using namespace extension_test;
using namespace std::chrono_literals;

TEST(ExtensionPidRegistry, ListsAPidFromAddingUntilRemovingIt) {
  ExtensionPidRegistry registry;
  EXPECT_FALSE(registry.contains(4242));
  registry.add(4242);
  registry.add(4243);
  EXPECT_TRUE(registry.contains(4242));
  registry.remove(4242);
  EXPECT_FALSE(registry.contains(4242));
  EXPECT_TRUE(registry.contains(4243));
}

TEST(ExtensionPidRegistry, AnExtensionProcessIsListedWhileItRunsAndNotAfterItIsReaped) {
  TemporaryTree tree;
  BundleContent content;
  const std::string bundlePath =
      testExtensionBundle(tree, tree.directory("extensions"), "Test.dkext", content, "serve");
  auto bundle = ExtensionBundle::read(bundlePath);
  ASSERT_TRUE(bundle.has_value());
  auto record = std::make_shared<const PluginRecord>(*bundle, tree.directory("groups"));
  // Never destroyed: the reaped process may still schedule a timer on it.
  static ManualScheduler& scheduler = *new ManualScheduler();
  CapturingLogSink::Scope log;
  auto supervisor = ExtensionSupervisor::create(
      record, {.contextClass = testContextClass(),
               .idleTime = 30s,
               .timing = {.readyTimeout = 10s, .stopGrace = 5s, .scheduler = &scheduler}});

  const BeginOutcome begun = beginAndWait(*supervisor);
  ASSERT_EQ(begun.error, nullptr);
  const pid_t pid = supervisor->processIdentifier();
  ASSERT_GT(pid, 0);
  EXPECT_TRUE(ExtensionPidRegistry::shared().contains(pid));
  EXPECT_FALSE(ExtensionPidRegistry::shared().contains(::getpid()));

  // Idle: stopped and reaped, and from then on no longer listed.
  supervisor->cancelRequest(begun.uuid);
  scheduler.advance(30s);
  ASSERT_TRUE(waitUntil([&] { return processIsGone(pid); }));
  EXPECT_TRUE(waitUntil([&] { return !ExtensionPidRegistry::shared().contains(pid); }));
}

}  // namespace
}  // namespace daskel::platform
