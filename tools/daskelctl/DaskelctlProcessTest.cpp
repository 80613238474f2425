// The daskelctl program run as a real process against a fake daemon (FakeDKDaemon on a real
// listener in this test process) in a temporary runtime directory: the exit status for
// success, an operation error, a daemon that is not running, one that never answers, one
// that hangs up, and a usage error; the JSON output parses; the local commands act on the
// temporary runtime and state directories.
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "client/testing/FakeDKDaemon.h"
#include "daemon/protocol/DKDaemon.h"
#include "platform/errors/DKErrors.h"
#include "platform/ipc/IpcListener.h"
#include "platform/sandbox/KeyFileSandboxTokenIssuer.h"
#include "platform/sandbox/SandboxToken.h"
#include "tools/daskelctl/ExitStatus.h"
#include "tools/daskelctl/testing/CtlProcess.h"

namespace daskel::ctl {
namespace {

namespace fs = std::filesystem;
namespace S = DKDaemonSelector;
using daskel::testing::FakeDKDaemon;
using nlohmann::json;
using platform::Url;
using platform::Value;
using testing::CtlRun;

Value data(const std::string& text) {
  return Value(Value::Data(text.begin(), text.end()));
}
Value url(const char* text) {
  return Value(*Url::fromString(text));
}

constexpr char kToken[] = "v1;read-write;2f732f612e747874;1700000000;00;aa";
constexpr char kPlaceholderToken[] = "v1;read-write;2f732f2e612e747874;1700000000;01;bb";

class DaskelctlProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/daskel-ctl-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
    ::setenv("DASKEL_RUNTIME_DIR", (root_ / "run").c_str(), 1);
    ::setenv("DASKEL_STATE_DIR", (root_ / "state").c_str(), 1);
    fs::create_directories(root_ / "run");
  }
  void TearDown() override {
    listener_.reset();
    ::unsetenv("DASKEL_RUNTIME_DIR");
    ::unsetenv("DASKEL_STATE_DIR");
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }

  std::shared_ptr<FakeDKDaemon> startDaemon() {
    auto daemon = std::make_shared<FakeDKDaemon>(DKDaemonInterface());
    auto listener = platform::IpcListener::create(kDKDaemonServiceName);
    EXPECT_TRUE(listener) << listener.error()->description();
    if (listener) {
      listener_ = *listener;
      listener_->setDelegate(daemon);
      listener_->resume();
    }
    daemon_ = daemon;
    return daemon;
  }

  static void answerEverything(FakeDKDaemon& daemon) {
    daemon.answer(S::kWakeUp, {});
    daemon.answer(S::kExtendSandbox,
                  {Value(), data(kToken), url("file:///s/.a.txt"), data(kPlaceholderToken)});
    daemon.answer(S::kProvidePlaceholder, {Value()});
    daemon.answer(S::kStartProviding, {Value()});
    daemon.answer(S::kStopProviding, {Value()});
    daemon.answer(
        S::kProviders,
        {Value(),
         Value(Value::Dictionary{
             {"com.example.provider",
              Value(Value::Dictionary{{"providerIdentifier", Value("com.example.provider")},
                                      {"documentStorageURL", url("file:///s/")}})}})});
    daemon.answer(S::kBookmarkableString, {Value("daskel:com.example.provider/a"), Value()});
    daemon.answer(S::kDocumentURL, {url("file:///s/a.txt"), data(kToken), url("file:///s/.a.txt"),
                                    Value(), Value()});
  }

  static CtlRun ctl(const std::vector<std::string>& arguments) {
    CtlRun run = testing::runProgram(DASKELCTL_PROGRAM, arguments);
    EXPECT_TRUE(run.finished) << "daskelctl did not end: " << run.standardError;
    return run;
  }

  static json parseJson(const CtlRun& run) {
    EXPECT_TRUE(json::accept(run.standardOutput)) << run.standardOutput;
    return json::parse(run.standardOutput, nullptr, /*allow_exceptions=*/false);
  }

  fs::path root_;
  std::shared_ptr<platform::IpcListener> listener_;
  std::shared_ptr<FakeDKDaemon> daemon_;
};

const std::vector<std::vector<std::string>> kDaemonCommands = {
    {"wake-up"},
    {"extend-sandbox", "/s/a.txt", "--provider", "com.example.provider", "--consumer", "c"},
    {"provide-placeholder", "/s/a.txt", "--provider", "com.example.provider", "--consumer", "c"},
    {"start-providing", "/s/a.txt", "--provider", "com.example.provider", "--consumer", "c"},
    {"stop-providing", "/s/a.txt", "--provider", "com.example.provider", "--consumer", "c"},
    {"providers"},
    {"bookmarkable-string", "/s/a.txt"},
    {"document-url", "daskel:com.example.provider/a"},
};

TEST_F(DaskelctlProcessTest, AnsweredOperationsExitZeroAndPrintTheReplyWithTokensAsText) {
  answerEverything(*startDaemon());
  CtlRun run = ctl({"extend-sandbox", "/s/a.txt", "--provider", "com.example.provider",
                    "--consumer", "com.example.editor"});
  EXPECT_EQ(run.exitStatus, 0) << run.standardError;
  EXPECT_EQ(run.standardOutput, std::string("token: ") + kToken +
                                    "\nplaceholderURL: file:///s/.a.txt\nplaceholderToken: " +
                                    kPlaceholderToken + "\n");
  EXPECT_EQ(run.standardError, "");

  ASSERT_TRUE(daemon_->requests.waitForCount(1));
  const auto request = daemon_->requests.items().front();
  EXPECT_EQ(request.selector, S::kExtendSandbox);
  EXPECT_EQ(request.arguments, (Value::Array{url("file:///s/a.txt"), Value("com.example.provider"),
                                             Value("com.example.editor")}));
}

TEST_F(DaskelctlProcessTest, EveryDaemonCommandPrintsOneParsableJsonDocument) {
  answerEverything(*startDaemon());
  for (auto arguments : kDaemonCommands) {
    arguments.push_back("--json");
    CtlRun run = ctl(arguments);
    EXPECT_EQ(run.exitStatus, 0) << arguments.front() << ": " << run.standardError;
    const json document = parseJson(run);
    EXPECT_EQ(document["command"], arguments.front());
    EXPECT_EQ(document["ok"], true);
  }
  ASSERT_TRUE(daemon_->requests.waitForCount(kDaemonCommands.size()));

  const json document = parseJson(ctl({"--json", "document-url", "daskel:com.example.provider/a"}));
  EXPECT_EQ(document["result"]["documentURL"], "file:///s/a.txt");
  EXPECT_EQ(document["result"]["token"], kToken);
  EXPECT_TRUE(document["result"]["placeholderToken"].is_null());
  const json providers = parseJson(ctl({"providers", "--json"}));
  EXPECT_EQ(providers["result"]["providers"]["com.example.provider"]["documentStorageURL"],
            "file:///s/");
}

TEST_F(DaskelctlProcessTest, AnErrorReplyExitsOneWithTheErrorOnStandardErrorAndInTheJson) {
  auto daemon = startDaemon();
  daemon->answer(S::kStartProviding,
                 {Value(DKPluginOperationFailedError(DKProxyNotFoundError(
                     "com.example.provider", DKNotFoundError("com.example.provider"))))});
  const std::vector<std::string> arguments = {"start-providing",      "/s/a.txt",   "--provider",
                                              "com.example.provider", "--consumer", "c"};
  CtlRun run = ctl(arguments);
  EXPECT_EQ(run.exitStatus, exitCode(ExitStatus::OperationError));
  EXPECT_EQ(run.standardOutput, "");
  EXPECT_EQ(run.standardError.rfind("daskelctl: start-providing: ", 0), 0u) << run.standardError;
  for (const char* line :
       {"\n  domain: com.orvane.Daskel\n  code: 8\n", "\n    code: 7\n", "\n      code: 3\n",
        "\n      providerIdentifier: com.example.provider\n"}) {
    EXPECT_NE(run.standardError.find(line), std::string::npos) << line << run.standardError;
  }

  auto withJson = arguments;
  withJson.push_back("--json");
  CtlRun jsonRun = ctl(withJson);
  EXPECT_EQ(jsonRun.exitStatus, exitCode(ExitStatus::OperationError));
  const json document = parseJson(jsonRun);
  EXPECT_EQ(document["ok"], false);
  EXPECT_EQ(document["exitStatus"], 1);
  EXPECT_EQ(document["error"]["code"], 8);
  EXPECT_EQ(document["error"]["userInfo"]["underlyingError"]["userInfo"]["underlyingError"]["code"],
            3);
  EXPECT_EQ(jsonRun.standardError, run.standardError);
}

TEST_F(DaskelctlProcessTest, WithoutADaemonEveryDaemonCommandExitsThreeAndSaysSo) {
  for (const auto& arguments : kDaemonCommands) {
    CtlRun run = ctl(arguments);
    EXPECT_EQ(run.exitStatus, exitCode(ExitStatus::DaemonNotRunning)) << arguments.front();
    EXPECT_NE(run.standardError.find("not running"), std::string::npos) << run.standardError;
    EXPECT_NE(run.standardError.find("domain: com.orvane.ipc"), std::string::npos);
  }
}

TEST_F(DaskelctlProcessTest, ADaemonThatNeverAnswersMakesTimeoutExitFour) {
  auto daemon = startDaemon();  // Drops every reply block.
  CtlRun run = ctl({"wake-up", "--timeout", "0.3"});
  EXPECT_EQ(run.exitStatus, exitCode(ExitStatus::TimedOut)) << run.standardError;
  EXPECT_NE(run.standardError.find("domain: com.orvane.Daskel.client"), std::string::npos)
      << run.standardError;
  EXPECT_TRUE(daemon->requests.waitForCount(1));

  CtlRun jsonRun = ctl({"--json", "--timeout", "0.3", "providers"});
  EXPECT_EQ(jsonRun.exitStatus, exitCode(ExitStatus::TimedOut));
  EXPECT_EQ(parseJson(jsonRun)["exitStatus"], exitCode(ExitStatus::TimedOut));
}

TEST_F(DaskelctlProcessTest, ADaemonThatHangsUpBeforeAnsweringMakesItExitFive) {
  auto daemon = startDaemon();
  daemon->set(S::kWakeUp, FakeDKDaemon::Behaviour::Hold);
  // The daemon closes each connection as soon as its request has arrived.
  std::thread closer([daemon] {
    if (daemon->requests.waitForCount(1)) {
      daemon->closeConnections();
    }
  });
  CtlRun run = ctl({"wake-up"});
  closer.join();
  EXPECT_EQ(run.exitStatus, exitCode(ExitStatus::ConnectionLost)) << run.standardError;
  EXPECT_NE(run.standardError.find("domain: com.orvane.ipc"), std::string::npos);
}

TEST_F(DaskelctlProcessTest, UsageErrorsExitTwoWithNothingOnStandardOutput) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{},
        {"bogus"},
        {"extend-sandbox", "/s/a.txt"},
        {"--json", "start-providing", "", "--provider", "p", "--consumer", "c"},
        {"post-notification", "a/b"},
        {"wake-up", "--timeout", "never"}}) {
    CtlRun run = ctl(arguments);
    EXPECT_EQ(run.exitStatus, exitCode(ExitStatus::UsageError))
        << ::testing::PrintToString(arguments) << run.standardError;
    EXPECT_EQ(run.standardOutput, "");
    EXPECT_NE(run.standardError, "");
  }
  CtlRun help = ctl({"verify-token", "--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_NE(help.standardOutput.find("Example:"), std::string::npos);
}

TEST_F(DaskelctlProcessTest, PostNotificationTouchesTheNotificationFile) {
  CtlRun run = ctl({"post-notification", "com.orvane.first-unlock"});
  EXPECT_EQ(run.exitStatus, 0) << run.standardError;
  EXPECT_EQ(run.standardOutput, "Posted com.orvane.first-unlock.\n");
  EXPECT_TRUE(fs::exists(root_ / "run" / "notifications" / "com.orvane.first-unlock"));
  const json document = parseJson(ctl({"post-notification", "--json", "x.y"}));
  EXPECT_EQ(document["result"]["name"], "x.y");
  EXPECT_TRUE(fs::exists(root_ / "run" / "notifications" / "x.y"));
}

TEST_F(DaskelctlProcessTest, VerifyTokenPrintsClassAndPathOfAGoodTokenAndRefusesOthers) {
  platform::KeyFileSandboxTokenIssuer issuer((root_ / "state" / "sandbox-token.key").string());
  auto token = issuer.issueReadWriteToken("/s/Report One.txt");
  ASSERT_TRUE(token);

  CtlRun run = ctl({"verify-token", *token});
  EXPECT_EQ(run.exitStatus, 0) << run.standardError;
  EXPECT_NE(run.standardOutput.find("accessClass: read-write\npath: /s/Report One.txt\n"),
            std::string::npos)
      << run.standardOutput;
  const json document = parseJson(ctl({"verify-token", *token, "--json"}));
  EXPECT_EQ(document["result"]["path"], "/s/Report One.txt");
  EXPECT_EQ(document["result"]["accessClass"], "read-write");

  std::string altered = *token;
  altered.back() = altered.back() == '0' ? '1' : '0';
  CtlRun refused = ctl({"verify-token", altered});
  EXPECT_EQ(refused.exitStatus, exitCode(ExitStatus::OperationError));
  EXPECT_NE(refused.standardError.find(platform::kSandboxTokenErrorDomain), std::string::npos);
  EXPECT_NE(refused.standardError.find("code: 3"), std::string::npos) << refused.standardError;
}

}  // namespace
}  // namespace daskel::ctl
