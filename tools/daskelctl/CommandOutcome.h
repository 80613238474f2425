// CommandOutcome: what one daskelctl command produced, before it is printed: the values of the
// reply in order, under their names, and the error if there was one, with the exit status it
// leads to. OutputFormatter turns it into text.
//
// Plain value type.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/value/Error.h"
#include "platform/value/Value.h"
#include "tools/daskelctl/ExitStatus.h"

namespace daskel::ctl {

struct CommandOutcome {
  using Field = std::pair<std::string, platform::Value>;

  std::string command;  // as typed: "extend-sandbox"
  // The reply's values in the protocol's order (nil values included).
  std::vector<Field> fields;
  // Said in readable output when the command succeeded and has no fields to show.
  std::string summary;
  platform::ErrorPtr error;
  ExitStatus status = ExitStatus::Success;
  // Bytes the readable form prints as they are, instead of summary and fields, when the
  // command succeeded (the contents of a file that `read` read).
  std::optional<std::string> rawOutput;

  bool succeeded() const { return status == ExitStatus::Success; }
};

}  // namespace daskel::ctl
