// The SDK's run() in real extension processes: the scripted test extension, started as the
// daemon starts extensions, with this test holding the daemon's end of every socket.
#include <sys/socket.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "ScriptedExtensionBundle.h"
#include "platform/extensions/ExtensionTestSupport.h"
#include "platform/errors/DKErrors.h"
#include "provider/protocol/DKVendorProtocol.h"
#include "sdk/testing/SdkTestSupport.h"
#include "sdk/testing/ExtensionHarness.h"
#include "sdk/testing/SpawnedExtension.h"

namespace daskel::sdk {
namespace {

using daskel::testing::ScriptedExtensionBundle;
using platform::ControlMessage;
using platform::Value;
using testing::ExtensionHarness;
using testing::SpawnedExtension;
namespace S = DKVendorSelector;

class ScriptedExtensionTest : public ::testing::Test {
 protected:
  // Lays out the bundle with `script` (once per test; relaunches reuse it).
  void layOut(const std::string& script) {
    ScriptedExtensionBundle bundle;
    bundle.script = script;
    std::string error;
    bundlePath = bundle.layOut(tree.directory("extensions"), &error);
    ASSERT_FALSE(bundlePath.empty()) << error;
  }

  std::optional<SpawnedExtension> launch(bool withControlSocket = true) {
    std::string error;
    auto process = SpawnedExtension::start(
        bundlePath + "/scripted-extension", bundlePath, "com.example.scripted",
        {"DASKEL_GROUP_CONTAINERS_DIR=" + tree.path("containers")}, stderrPath(),
        withControlSocket, &error);
    EXPECT_TRUE(process) << error;
    return process;
  }

  // Receives the extension's ready packet.
  static bool receivesReady(SpawnedExtension& process) {
    auto packet = process.control()->receive();
    return packet && *packet && (*packet)->kind == ControlMessage::Kind::Ready;
  }

  Value item(const std::string& name) const {
    return Value(*Url::fileUrlWithPath(
        tree.path("containers/group.com.example.scripted/Daskel Storage/" + name), false));
  }

  std::string stderrPath() const { return tree.path("stderr.txt"); }
  std::string stderrText() const {
    std::ifstream in(stderrPath());
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  platform::extension_test::TemporaryTree tree;
  std::string bundlePath;
};

TEST_F(ScriptedExtensionTest, RunStartedByHandExplainsThatTheDaemonStartsItAndExitsWith2) {
  layOut("");
  auto process = launch(/*withControlSocket=*/false);
  ASSERT_TRUE(process);
  auto status = process->waitForExit();
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 2) << *status;
  EXPECT_NE(stderrText().find("DASKEL_EXTENSION_CONTROL_FD is not set"), std::string::npos)
      << stderrText();
}

TEST_F(ScriptedExtensionTest, ServesRequestsAndExitsWithZeroWhenTheControlSocketCloses) {
  layOut("");
  auto process = launch();
  ASSERT_TRUE(process);
  ASSERT_TRUE(receivesReady(*process)) << stderrText();

  auto request = ExtensionHarness::beginRequestOn(process->control());
  auto setup = ExtensionHarness::call(request, S::kPerformInitialSetup, {});
  ASSERT_TRUE(setup) << stderrText();
  EXPECT_TRUE(setup->at(2).isNull());
  EXPECT_TRUE(testing::isDirectory(
      tree.path("containers/group.com.example.scripted/Daskel Storage")));
  EXPECT_EQ(ExtensionHarness::call(request, S::kIdentifierForItem, {item("a b.txt")}),
            (Value::Array{Value(), Value("a b.txt")}));

  process->closeControlSocket();
  auto status = process->waitForExit();
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
  EXPECT_EQ(ScriptedExtensionBundle::calls(bundlePath),
            (std::vector<std::string>{"performInitialSetup",
                                      "identifierForItem " + item("a b.txt").description()}));
}

TEST_F(ScriptedExtensionTest, ScriptedErrorsCrossTheProcessBoundaryIntact) {
  layOut("startProviding error com.example.Remote 7 Quota exceeded for this account\n");
  auto process = launch();
  ASSERT_TRUE(process && receivesReady(*process)) << stderrText();
  auto reply = ExtensionHarness::call(ExtensionHarness::beginRequestOn(process->control()),
                                      S::kStartProviding, {item("a")});
  ASSERT_TRUE(reply && reply->at(0).error());
  EXPECT_EQ(*reply->at(0).error(),
            *makeError("com.example.Remote", 7, "Quota exceeded for this account"));
}

TEST_F(ScriptedExtensionTest, FailFirstKeepsCountingAcrossRelaunches) {
  layOut("start record\nstartProviding fail-first 1 com.example.Flaky 3 Try again\n");
  std::vector<Value::Array> replies;
  for (int launchNumber = 0; launchNumber < 2; ++launchNumber) {
    auto process = launch();
    ASSERT_TRUE(process && receivesReady(*process)) << stderrText();
    auto reply = ExtensionHarness::call(ExtensionHarness::beginRequestOn(process->control()),
                                        S::kStartProviding, {item("a")});
    ASSERT_TRUE(reply);
    replies.push_back(*reply);
    process->closeControlSocket();
    ASSERT_TRUE(process->waitForExit());
  }
  ASSERT_TRUE(replies[0].at(0).error());
  EXPECT_EQ(replies[0].at(0).error()->code, 3);
  EXPECT_TRUE(replies[1].at(0).isNull());
  const std::string call = "startProviding " + item("a").description();
  EXPECT_EQ(ScriptedExtensionBundle::calls(bundlePath),
            (std::vector<std::string>{"launch", call, "launch", call}));
}

TEST_F(ScriptedExtensionTest, ACrashInTheMiddleOfARequestFailsItsConnection) {
  layOut("stopProviding crash\n");
  auto process = launch();
  ASSERT_TRUE(process && receivesReady(*process)) << stderrText();
  auto pending = ExtensionHarness::send(ExtensionHarness::beginRequestOn(process->control()),
                                        S::kStopProviding, {item("a")});
  EXPECT_FALSE(pending->wait());
  ASSERT_TRUE(pending->error());
  EXPECT_EQ(pending->error()->code, static_cast<std::int64_t>(IpcErrorCode::ConnectionInterrupted));
  auto status = process->waitForExit();
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGABRT) << *status;
  EXPECT_EQ(ScriptedExtensionBundle::calls(bundlePath).size(), 1u);
}

TEST_F(ScriptedExtensionTest, StartBehavioursExitAtOnceOrNeverSendReady) {
  layOut("start exit 3\n");
  {
    auto process = launch();
    ASSERT_TRUE(process);
    auto status = process->waitForExit();
    ASSERT_TRUE(status);
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 3) << *status;
    auto packet = process->control()->receive();
    EXPECT_TRUE(packet && !*packet) << "the extension sent a packet before exiting";
  }
  ASSERT_TRUE(ScriptedExtensionBundle::writeScript(bundlePath, "start no-ready\n"));
  auto process = launch();
  ASSERT_TRUE(process);
  // Half-closing lets the extension see the end while its own packets stay readable.
  ASSERT_EQ(::shutdown(process->control()->fd(), SHUT_WR), 0);
  auto status = process->waitForExit();
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
  auto packet = process->control()->receive();
  EXPECT_TRUE(packet && !*packet) << "the extension sent a packet although told not to";
}

TEST_F(ScriptedExtensionTest, AnOperationThatNeverAnswersLeavesOtherRequestsServed) {
  layOut("startProviding never-answer\n");
  auto process = launch();
  ASSERT_TRUE(process && receivesReady(*process)) << stderrText();
  auto silent = ExtensionHarness::send(ExtensionHarness::beginRequestOn(process->control()),
                                       S::kStartProviding, {item("a")});
  auto other = ExtensionHarness::call(ExtensionHarness::beginRequestOn(process->control()),
                                      S::kURLForItemIdentifier, {Value("a")});
  EXPECT_EQ(other, (Value::Array{Value(), item("a")}));
  EXPECT_FALSE(silent->isDone());
}

}  // namespace
}  // namespace daskel::sdk
