// Daskelctl: the whole of daskelctl behind main(): parses the arguments (CommandLine), runs
// the command (CtlCommands), prints the outcome (OutputFormatter) and returns the exit status.
//
// Stateless; run() writes only to the two streams it is given.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "tools/daskelctl/CtlCommands.h"

namespace daskel::ctl {

class Daskelctl {
 public:
  // `arguments` excludes the program name. Returns the process's exit status.
  static int run(const std::vector<std::string>& arguments,
                 const CtlCommands::Services& services,
                 std::ostream& out,
                 std::ostream& err);
};

}  // namespace daskel::ctl
