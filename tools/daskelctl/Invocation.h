// Invocation: one parsed command line of daskelctl: which command, with which arguments, and
// how to print the outcome. Built by CommandLine, carried out by CtlCommands.
//
// Plain value type.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace daskel::ctl {

enum class Command {
  // One per operation of the daemon's client protocol.
  WakeUp,
  ExtendSandbox,
  ProvidePlaceholder,
  StartProviding,
  StopProviding,
  Providers,
  BookmarkableString,
  DocumentURL,
  // Local commands.
  PostNotification,
  VerifyToken,
  // The file-coordination service's commands (service com.orvane.FileCoordination).
  Read,
  CoordinateRead,
  Wrote,
};

// The command's name on the command line ("extend-sandbox").
std::string_view commandName(Command command);

struct Invocation {
  Command command = Command::WakeUp;
  // URL-or-PATH of extend-sandbox, the item commands, bookmarkable-string and the
  // file-coordination commands.
  std::string target;
  std::string providerID;
  std::string consumerID;
  // The bookmarkable string of document-url, the notification name, or the token.
  std::string text;
  bool json = false;
  // How long to wait for the daemon; nullopt waits for ever.
  std::optional<std::chrono::milliseconds> timeout;
};

}  // namespace daskel::ctl
