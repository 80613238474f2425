#include "tools/daskelctl/Daskelctl.h"

#include <variant>

#include "tools/daskelctl/CommandLine.h"
#include "tools/daskelctl/OutputFormatter.h"

namespace daskel::ctl {

int Daskelctl::run(const std::vector<std::string>& arguments,
                   const CtlCommands::Services& services,
                   std::ostream& out,
                   std::ostream& err) {
  CommandLine::Parsed parsed = CommandLine::parse(arguments);
  if (auto* stop = std::get_if<CommandLine::Stop>(&parsed)) {
    out << stop->standardOutput << std::flush;
    err << stop->standardError << std::flush;
    return exitCode(stop->status);
  }
  const Invocation& invocation = std::get<Invocation>(parsed);
  const CommandOutcome outcome = CtlCommands(services).run(invocation);
  // A usage error found while running (a path that makes no URL) prints like one: no JSON.
  if (outcome.status != ExitStatus::UsageError) {
    out << OutputFormatter::standardOutput(outcome, invocation.json) << std::flush;
  }
  err << OutputFormatter::standardError(outcome) << std::flush;
  return exitCode(outcome.status);
}

}  // namespace daskel::ctl
