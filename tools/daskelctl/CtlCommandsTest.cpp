// CtlCommands in this process against a fake daemon: what each command sends, how reply
// values land in the outcome, and which exit status each kind of error leads to.
#include "tools/daskelctl/CtlCommands.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "client/testing/FakeDKDaemon.h"
#include "daemon/protocol/DKDaemon.h"
#include "platform/errors/DKErrors.h"
#include "platform/ipc/IpcListener.h"

namespace daskel::ctl {
namespace {

namespace fs = std::filesystem;
namespace S = DKDaemonSelector;
using daskel::testing::FakeDKDaemon;
using platform::ErrorPtr;
using platform::Url;
using platform::Value;

class CtlCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/daskel-ctlcommands-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
    ::setenv("DASKEL_RUNTIME_DIR", root_.c_str(), 1);
    daemon_ = std::make_shared<FakeDKDaemon>(DKDaemonInterface());
    auto listener = platform::IpcListener::create(kDKDaemonServiceName);
    ASSERT_TRUE(listener) << listener.error()->description();
    listener_ = *listener;
    listener_->setDelegate(daemon_);
    listener_->resume();
  }
  void TearDown() override {
    listener_.reset();
    ::unsetenv("DASKEL_RUNTIME_DIR");
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }

  CommandOutcome run(Invocation invocation) {
    CtlCommands::Services services = CtlCommands::Services::live();
    services.workingDirectory = "/home/u";
    return CtlCommands(services).run(invocation);
  }

  static Invocation item(Command command, std::string target) {
    Invocation invocation;
    invocation.command = command;
    invocation.target = std::move(target);
    invocation.providerID = "com.example.provider";
    invocation.consumerID = "com.example.editor";
    return invocation;
  }

  fs::path root_;
  std::shared_ptr<FakeDKDaemon> daemon_;
  std::shared_ptr<platform::IpcListener> listener_;
};

TEST_F(CtlCommandsTest, ItemCommandsSendTheFileUrlOfARelativePathAndBothIdentifiers) {
  daemon_->answer(S::kProvidePlaceholder, {Value()});
  daemon_->answer(S::kStartProviding, {Value()});
  daemon_->answer(S::kStopProviding, {Value()});
  const std::vector<std::pair<Command, const char*>> commands = {
      {Command::ProvidePlaceholder, S::kProvidePlaceholder},
      {Command::StartProviding, S::kStartProviding},
      {Command::StopProviding, S::kStopProviding}};
  for (const auto& [command, selector] : commands) {
    const CommandOutcome outcome = run(item(command, "Docs/My Report.txt"));
    EXPECT_TRUE(outcome.succeeded()) << outcome.error->description();
    EXPECT_FALSE(outcome.summary.empty());
  }
  ASSERT_TRUE(daemon_->requests.waitForCount(3));
  const auto requests = daemon_->requests.items();
  for (std::size_t i = 0; i < commands.size(); ++i) {
    EXPECT_EQ(requests[i].selector, commands[i].second);
    EXPECT_EQ(requests[i].arguments,
              (Value::Array{Value(*Url::fromString("file:///home/u/Docs/My%20Report.txt")),
                            Value("com.example.provider"), Value("com.example.editor")}));
  }
}

TEST_F(CtlCommandsTest, TokensInRepliesBecomeTheirTextAndNilStaysNil) {
  const std::string token = "v1;read-write;2f;1;00;ff";
  daemon_->answer(S::kDocumentURL,
                  {Value(*Url::fromString("file:///s/a")),
                   Value(Value::Data(token.begin(), token.end())), Value(), Value(), Value()});
  Invocation invocation;
  invocation.command = Command::DocumentURL;
  invocation.text = "daskel:P/a";
  const CommandOutcome outcome = run(invocation);
  ASSERT_TRUE(outcome.succeeded());
  ASSERT_EQ(outcome.fields.size(), 4u);
  EXPECT_EQ(outcome.fields[0],
            (CommandOutcome::Field{"documentURL", Value(*Url::fromString("file:///s/a"))}));
  EXPECT_EQ(outcome.fields[1], (CommandOutcome::Field{"token", Value(token)}));
  EXPECT_EQ(outcome.fields[2], (CommandOutcome::Field{"placeholderURL", Value()}));
  EXPECT_EQ(outcome.fields[3], (CommandOutcome::Field{"placeholderToken", Value()}));
  ASSERT_TRUE(daemon_->requests.waitForCount(1));
  EXPECT_EQ(daemon_->requests.items()[0].arguments, (Value::Array{Value("daskel:P/a")}));
}

TEST_F(CtlCommandsTest, ABookmarkableStringReplyWithNeitherStringNorErrorIsASuccessWithNil) {
  daemon_->answer(S::kBookmarkableString, {Value(), Value()});
  const CommandOutcome outcome = run(item(Command::BookmarkableString, "/elsewhere"));
  EXPECT_TRUE(outcome.succeeded());
  ASSERT_EQ(outcome.fields.size(), 1u);
  EXPECT_TRUE(outcome.fields[0].second.isNull());
}

TEST_F(CtlCommandsTest, AnErrorFromTheDaemonIsAnOperationErrorCarriedUnchanged) {
  const ErrorPtr error = DKInvalidParameterError("consumerID");
  daemon_->answer(S::kProviders, {Value(error), Value()});
  Invocation invocation;
  invocation.command = Command::Providers;
  const CommandOutcome outcome = run(invocation);
  EXPECT_EQ(outcome.status, ExitStatus::OperationError);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(*outcome.error, *error);
}

TEST_F(CtlCommandsTest, AnUnusableUrlArgumentIsAUsageErrorAndNothingIsSent) {
  daemon_->answer(S::kStartProviding, {Value()});
  const CommandOutcome outcome = run(item(Command::StartProviding, ""));
  EXPECT_EQ(outcome.status, ExitStatus::UsageError);
  ASSERT_TRUE(outcome.error);
  EXPECT_TRUE(daemon_->connections.items().empty());
}

TEST_F(CtlCommandsTest, ErrorsMapToTheirExitStatuses) {
  EXPECT_EQ(CtlCommands::statusForReplyError(nullptr), ExitStatus::Success);
  EXPECT_EQ(CtlCommands::statusForReplyError(DKNotPermittedError()), ExitStatus::OperationError);
  EXPECT_EQ(CtlCommands::statusForReplyError(IpcError(IpcErrorCode::ConnectionInterrupted, "gone")),
            ExitStatus::ConnectionLost);
  EXPECT_EQ(CtlCommands::statusForReplyError(IpcError(IpcErrorCode::MessageRefused, "no")),
            ExitStatus::ConnectionLost);
  EXPECT_EQ(CtlCommands::statusForReplyError(platform::makeError(
                kDaskelClientErrorDomain,
                static_cast<std::int64_t>(DaskelClientErrorCode::TimedOut), "late")),
            ExitStatus::TimedOut);
  // An extension's own error in another domain is still the operation's error.
  EXPECT_EQ(CtlCommands::statusForReplyError(platform::makeError("com.example", 1, "x")),
            ExitStatus::OperationError);
}

}  // namespace
}  // namespace daskel::ctl
