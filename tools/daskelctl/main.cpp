// daskelctl: the administrator's command-line tool for the Daskel daemon.
#include <iostream>
#include <string>
#include <vector>

#include "platform/log/Log.h"
#include "tools/daskelctl/Daskelctl.h"

int main(int argc, char** argv) {
  // Library log lines (DASKEL_LOG) go to standard error, beside daskelctl's own reports.
  daskel::platform::DKLoggingInitialize();
  std::vector<std::string> arguments(argv + 1, argv + argc);
  return daskel::ctl::Daskelctl::run(arguments, daskel::ctl::CtlCommands::Services::live(),
                                     std::cout, std::cerr);
}
