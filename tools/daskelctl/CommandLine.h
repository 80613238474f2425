// CommandLine: daskelctl's arguments, parsed with CLI11 into an Invocation. Every subcommand
// has --help with a one-line description and an example; `daskelctl --help` also lists the
// exit statuses.
//
// --json and --timeout SECONDS may stand before or after the subcommand.
//
// Stateless; parse() may be called from any thread. CLI11 reports through exceptions; they
// are caught here and never leave parse().
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "tools/daskelctl/ExitStatus.h"
#include "tools/daskelctl/Invocation.h"

namespace daskel::ctl {

class CommandLine {
 public:
  // What to do without running a command: print help (status Success) or a usage error
  // (status UsageError).
  struct Stop {
    ExitStatus status = ExitStatus::Success;
    std::string standardOutput;
    std::string standardError;
  };
  using Parsed = std::variant<Invocation, Stop>;

  // `arguments` excludes the program name.
  static Parsed parse(const std::vector<std::string>& arguments);
  static Parsed parse(int argc, const char* const* argv);
};

}  // namespace daskel::ctl
