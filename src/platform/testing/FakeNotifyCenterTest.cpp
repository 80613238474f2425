#include "platform/testing/FakeNotifyCenter.h"

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/value/Error.h"

namespace daskel::platform {
namespace {

TEST(FakeNotifyCenter, PostCallsObserversOfThatNameBeforeReturningOnTheCallersThread) {
  FakeNotifyCenter center;
  std::vector<std::string> calls;
  std::thread::id callingThread;
  center.addObserver(kFirstUnlockNotification, [&](const std::string& name) {
    calls.push_back(name);
    callingThread = std::this_thread::get_id();
  });
  center.addObserver("other", [&](const std::string& name) { calls.push_back(name); });

  ASSERT_TRUE(center.post(kFirstUnlockNotification).has_value());
  EXPECT_EQ(calls, std::vector<std::string>{kFirstUnlockNotification});
  EXPECT_EQ(callingThread, std::this_thread::get_id());
  EXPECT_EQ(center.postCount(), 1u);
  EXPECT_EQ(center.postCount(kFirstUnlockNotification), 1u);
  EXPECT_EQ(center.postCount("other"), 0u);
  EXPECT_EQ(center.observerCount(kFirstUnlockNotification), 1u);
}

TEST(FakeNotifyCenter, AFailingPostDeliversNothingAndIsNotCounted) {
  FakeNotifyCenter center;
  int calls = 0;
  center.addObserver("note", [&](const std::string&) { ++calls; });
  center.setPostError(makeError("posix", EACCES, "Permission denied"));
  auto posted = center.post("note");
  ASSERT_FALSE(posted.has_value());
  EXPECT_EQ(posted.error()->code, EACCES);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(center.postCount(), 0u);

  center.setPostError(nullptr);
  EXPECT_TRUE(center.post("note").has_value());
  EXPECT_EQ(calls, 1);
}

TEST(FakeNotifyCenter, RefusesTheNamesTheLiveCenterRefuses) {
  FakeNotifyCenter center;
  for (const char* name : {"", ".", "..", "a/b"}) {
    auto posted = center.post(name);
    ASSERT_FALSE(posted.has_value()) << name;
    EXPECT_EQ(posted.error()->code, EINVAL);
  }
  EXPECT_EQ(center.postCount(), 0u);
}

TEST(FakeNotifyCenter, ObserversMayPostFromTheirCallback) {
  FakeNotifyCenter center;
  int seconds = 0;
  center.addObserver("first", [&](const std::string&) { ASSERT_TRUE(center.post("second")); });
  center.addObserver("second", [&](const std::string&) { ++seconds; });
  center.deliver("first");
  EXPECT_EQ(seconds, 1);
  // deliver() stands for another process's post: only the nested post is counted.
  EXPECT_EQ(center.postCount(), 1u);
  EXPECT_EQ(center.postCount("first"), 0u);
}

}  // namespace
}  // namespace daskel::platform
