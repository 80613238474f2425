#include "tools/daskelctl/CommandLine.h"

#include <cmath>
#include <optional>
#include <sstream>

#include <CLI/CLI.hpp>

namespace daskel::ctl {
namespace {

constexpr char kDescription[] =
    "daskelctl: the administrator's tool for the Daskel daemon. Each command calls one "
    "operation of the daemon (service com.orvane.Daskel in $DASKEL_RUNTIME_DIR; read, "
    "coordinate-read and wrote call its file-coordination service com.orvane.FileCoordination), "
    "or works locally on notifications and sandbox tokens.";

constexpr char kFooter[] =
    "Paths are turned into absolute file URLs; URLs (text with a scheme, such as file:///x) are\n"
    "passed as given. Write ./name for a relative path that contains a colon.\n"
    "\n"
    "Exit status:\n"
    "  0  success\n"
    "  1  the operation answered with an error (the daemon's, or a local check's)\n"
    "  2  usage error: unknown command, missing or malformed argument\n"
    "  3  the daemon is not running (its service cannot be reached)\n"
    "  4  no answer within --timeout\n"
    "  5  the connection to the daemon was lost before the answer came\n"
    "Errors go to standard error with their domain, code, description and userInfo.";

constexpr char kGlobalOptions[] =
    "\nOptions of every command: --json (one JSON document on standard output), "
    "--timeout SECONDS (give up waiting for the daemon; exit status 4).";

struct ItemCommand {
  Command command;
  const char* description;
};

// The first word that stands where a command should and names none; CLI11 only says that a
// command is missing.
std::optional<std::string> unknownCommand(
    const std::vector<std::string>& arguments,
    const std::vector<std::pair<CLI::App*, Command>>& commands) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--timeout") {
      ++i;  // its value
      continue;
    }
    if (argument.starts_with("-")) {
      continue;
    }
    for (const auto& [sub, command] : commands) {
      if (sub->get_name() == argument) {
        return std::nullopt;
      }
    }
    return argument;
  }
  return std::nullopt;
}

std::string footer(const std::string& example) {
  return "Example:\n  " + example + "\n" + kGlobalOptions;
}

}  // namespace

CommandLine::Parsed CommandLine::parse(int argc, const char* const* argv) {
  std::vector<std::string> arguments;
  for (int i = 1; i < argc; ++i) {
    arguments.emplace_back(argv[i]);
  }
  return parse(arguments);
}

CommandLine::Parsed CommandLine::parse(const std::vector<std::string>& arguments) {
  Invocation invocation;
  double timeoutSeconds = 0;

  CLI::App app(kDescription, "daskelctl");
  app.footer(kFooter);
  app.require_subcommand(1);
  // Subcommands inherit this: options they do not know are tried on daskelctl itself, so
  // --json and --timeout may follow the subcommand.
  app.fallthrough();
  app.add_flag("--json", invocation.json, "Print one JSON document on standard output");
  CLI::Option* timeout =
      app.add_option("--timeout", timeoutSeconds,
                     "Give up waiting for the daemon's answer after SECONDS (exit status 4)")
          ->type_name("SECONDS")
          ->check(CLI::Range(0.001, 31536000.0));

  std::vector<std::pair<CLI::App*, Command>> commands;
  auto add = [&](Command command, const std::string& description, const std::string& example) {
    CLI::App* sub = app.add_subcommand(std::string(commandName(command)), description);
    sub->footer(footer(example));
    commands.emplace_back(sub, command);
    return sub;
  };
  auto addTarget = [&](CLI::App* sub) {
    sub->add_option("URL-or-PATH", invocation.target, "The item: a file URL or a path")->required();
  };
  auto addProviderAndConsumer = [&](CLI::App* sub) {
    sub->add_option("--provider", invocation.providerID, "The provider's identifier")
        ->type_name("ID")
        ->required();
    sub->add_option("--consumer", invocation.consumerID, "The consumer's bundle identifier")
        ->type_name("ID")
        ->required();
  };

  add(Command::WakeUp, "Asks the daemon to answer: shows that it runs and serves requests",
      "daskelctl wake-up --timeout 5");

  CLI::App* extend = add(Command::ExtendSandbox,
                         "Grants a consumer read-write access to a provided file; prints the "
                         "file's token, its placeholder's URL and the placeholder's token",
                         "daskelctl extend-sandbox ~/Storage/Report.txt --provider "
                         "com.example.provider --consumer com.example.editor");
  addTarget(extend);
  addProviderAndConsumer(extend);

  const ItemCommand itemCommands[] = {
      {Command::ProvidePlaceholder, "Has the provider create the placeholder of an item"},
      {Command::StartProviding, "Has the provider make an item's contents present"},
      {Command::StopProviding, "Tells the provider that an item's contents are no longer needed"},
  };
  for (const auto& item : itemCommands) {
    CLI::App* sub = add(item.command, item.description,
                        "daskelctl " + std::string(commandName(item.command)) +
                            " ~/Storage/Report.txt --provider com.example.provider "
                            "--consumer com.example.editor");
    addTarget(sub);
    addProviderAndConsumer(sub);
  }

  add(Command::Providers, "Lists the provider extensions the daemon knows",
      "daskelctl providers --json");

  CLI::App* bookmark =
      add(Command::BookmarkableString, "Prints the bookmarkable string of a provided document",
          "daskelctl bookmarkable-string ~/Storage/Report.txt");
  addTarget(bookmark);

  CLI::App* document = add(Command::DocumentURL,
                           "Turns a bookmarkable string back into the document's URL, with "
                           "fresh tokens for this process",
                           "daskelctl document-url daskel:com.example.provider/item-17");
  document->add_option("STRING", invocation.text, "The bookmarkable string")->required();

  CLI::App* post = add(Command::PostNotification,
                       "Posts a system notification (creates or touches "
                       "$DASKEL_RUNTIME_DIR/notifications/NAME)",
                       "daskelctl post-notification com.orvane.first-unlock");
  post->add_option("NAME", invocation.text, "The notification's name")->required();

  CLI::App* verify = add(Command::VerifyToken,
                         "Checks a sandbox token against this machine's key "
                         "($DASKEL_STATE_DIR/sandbox-token.key); prints its class and path",
                         "daskelctl verify-token 'v1;read-write;2f746d70;1700000000;...'");
  verify->add_option("TOKEN", invocation.text, "The token's text")->required();

  // The file-coordination service (com.orvane.FileCoordination).
  CLI::App* read = add(Command::Read,
                       "Makes a coordinated read of a file (its provider makes it present "
                       "first), then prints its contents",
                       "daskelctl read ~/Storage/Report.txt > Report.txt");
  addTarget(read);
  CLI::App* coordinateRead = add(Command::CoordinateRead,
                                 "Makes a coordinated read only: returns once the file's provider "
                                 "has made it present; prints nothing on success",
                                 "daskelctl coordinate-read ~/Storage/Report.txt && cat "
                                 "~/Storage/Report.txt");
  addTarget(coordinateRead);
  CLI::App* wrote = add(Command::Wrote,
                        "Tells the file's provider that a write of it has finished; prints "
                        "nothing on success",
                        "daskelctl wrote ~/Storage/Report.txt");
  addTarget(wrote);

  std::vector<const char*> argv{"daskelctl"};
  for (const auto& argument : arguments) {
    argv.push_back(argument.c_str());
  }
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
  } catch (const CLI::ParseError& error) {
    std::ostringstream out;
    std::ostringstream err;
    app.exit(error, out, err);
    const bool help = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success);
    std::string message = err.str();
    if (!help) {
      if (auto unknown = unknownCommand(arguments, commands)) {
        message = "Unknown command \"" + *unknown + "\".\n" + message;
      }
    }
    return Stop{help ? ExitStatus::Success : ExitStatus::UsageError, out.str(), message};
  }

  for (const auto& [sub, command] : commands) {
    if (sub->parsed()) {
      invocation.command = command;
    }
  }
  if (timeout->count() > 0) {
    invocation.timeout =
        std::chrono::milliseconds(static_cast<std::int64_t>(std::ceil(timeoutSeconds * 1000.0)));
  }
  return invocation;
}

}  // namespace daskel::ctl
