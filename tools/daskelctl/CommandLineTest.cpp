// daskelctl's argument parsing: every subcommand reaches its Command with its arguments, the
// global options work on either side of the subcommand, and malformed lines are usage errors
// while --help is not.
#include "tools/daskelctl/CommandLine.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace daskel::ctl {
namespace {

using namespace std::chrono_literals;
using Arguments = std::vector<std::string>;

Invocation parsed(const Arguments& arguments) {
  auto result = CommandLine::parse(arguments);
  if (auto* stop = std::get_if<CommandLine::Stop>(&result)) {
    ADD_FAILURE() << "refused: " << stop->standardError;
    return {};
  }
  return std::get<Invocation>(result);
}

CommandLine::Stop stopped(const Arguments& arguments) {
  auto result = CommandLine::parse(arguments);
  if (auto* stop = std::get_if<CommandLine::Stop>(&result)) {
    return *stop;
  }
  ADD_FAILURE() << "accepted";
  return {};
}

TEST(CommandLine, EachSubcommandReachesItsCommandWithItsArguments) {
  const std::vector<std::pair<Arguments, Command>> cases = {
      {{"wake-up"}, Command::WakeUp},
      {{"extend-sandbox", "/f", "--provider", "P", "--consumer", "C"}, Command::ExtendSandbox},
      {{"provide-placeholder", "/f", "--provider", "P", "--consumer", "C"},
       Command::ProvidePlaceholder},
      {{"start-providing", "--consumer", "C", "/f", "--provider", "P"}, Command::StartProviding},
      {{"stop-providing", "/f", "--provider=P", "--consumer=C"}, Command::StopProviding},
      {{"providers"}, Command::Providers},
      {{"bookmarkable-string", "/f"}, Command::BookmarkableString},
      {{"document-url", "daskel:P/item"}, Command::DocumentURL},
      {{"post-notification", "com.orvane.first-unlock"}, Command::PostNotification},
      {{"verify-token", "v1;x"}, Command::VerifyToken},
  };
  for (const auto& [arguments, command] : cases) {
    const Invocation invocation = parsed(arguments);
    EXPECT_EQ(invocation.command, command) << arguments.front();
    EXPECT_EQ(commandName(command), arguments.front());
    EXPECT_FALSE(invocation.json);
    EXPECT_FALSE(invocation.timeout);
  }
  const Invocation item = parsed(cases[3].first);
  EXPECT_EQ(item.target, "/f");
  EXPECT_EQ(item.providerID, "P");
  EXPECT_EQ(item.consumerID, "C");
  EXPECT_EQ(parsed({"document-url", "daskel:P/a/b"}).text, "daskel:P/a/b");
  EXPECT_EQ(parsed({"verify-token", "v1;x;y"}).text, "v1;x;y");
}

TEST(CommandLine, JsonAndTimeoutMayStandBeforeOrAfterTheSubcommand) {
  for (const Arguments& arguments : {Arguments{"--json", "--timeout", "2.5", "providers"},
                                     Arguments{"providers", "--json", "--timeout", "2.5"},
                                     Arguments{"--timeout=2.5", "providers", "--json"}}) {
    const Invocation invocation = parsed(arguments);
    EXPECT_EQ(invocation.command, Command::Providers);
    EXPECT_TRUE(invocation.json);
    EXPECT_EQ(invocation.timeout, 2500ms);
  }
  EXPECT_EQ(parsed({"wake-up", "--timeout", "0.0015"}).timeout, 2ms);
}

TEST(CommandLine, MalformedLinesAreUsageErrorsThatSayWhatIsWrong) {
  const std::vector<std::pair<Arguments, std::string>> cases = {
      {{}, "subcommand"},
      {{"no-such-command"}, "no-such-command"},
      {{"extend-sandbox", "/f", "--consumer", "C"}, "--provider"},
      {{"start-providing", "--provider", "P", "--consumer", "C"}, "URL-or-PATH"},
      {{"document-url"}, "STRING"},
      {{"verify-token"}, "TOKEN"},
      {{"wake-up", "--timeout", "0"}, "--timeout"},
      {{"wake-up", "--timeout", "0.0001"}, "--timeout"},
      {{"wake-up", "--timeout", "-1"}, "--timeout"},
      {{"wake-up", "--timeout", "soon"}, "--timeout"},
      {{"providers", "extra"}, "extra"},
      {{"providers", "--verbose"}, "--verbose"},
  };
  for (const auto& [arguments, mention] : cases) {
    const CommandLine::Stop stop = stopped(arguments);
    EXPECT_EQ(stop.status, ExitStatus::UsageError) << testing::PrintToString(arguments);
    EXPECT_EQ(stop.standardOutput, "");
    EXPECT_NE(stop.standardError.find(mention), std::string::npos)
        << testing::PrintToString(arguments) << ": " << stop.standardError;
  }
}

TEST(CommandLine, HelpSucceedsAndListsTheExitStatuses) {
  const CommandLine::Stop stop = stopped({"--help"});
  EXPECT_EQ(stop.status, ExitStatus::Success);
  for (const char* line : {"0  success", "2  usage error", "3  the daemon is not running",
                           "4  no answer within --timeout", "5  the connection"}) {
    EXPECT_NE(stop.standardOutput.find(line), std::string::npos) << line;
  }
  for (const char* command :
       {"wake-up", "extend-sandbox", "provide-placeholder", "start-providing", "stop-providing",
        "providers", "bookmarkable-string", "document-url", "post-notification", "verify-token"}) {
    EXPECT_NE(stop.standardOutput.find(command), std::string::npos) << command;
  }
}

TEST(CommandLine, EverySubcommandHasHelpWithAnExampleOfItself) {
  for (const char* command :
       {"wake-up", "extend-sandbox", "provide-placeholder", "start-providing", "stop-providing",
        "providers", "bookmarkable-string", "document-url", "post-notification", "verify-token"}) {
    const CommandLine::Stop stop = stopped({command, "--help"});
    EXPECT_EQ(stop.status, ExitStatus::Success) << command;
    EXPECT_NE(stop.standardOutput.find("Example:\n  daskelctl " + std::string(command)),
              std::string::npos)
        << stop.standardOutput;
    EXPECT_NE(stop.standardOutput.find("--timeout"), std::string::npos) << command;
  }
}

}  // namespace
}  // namespace daskel::ctl
