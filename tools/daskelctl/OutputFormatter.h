// OutputFormatter: turns a CommandOutcome into what daskelctl prints.
//
// Readable form (the default), on standard output: the outcome's raw output, unescaped, when
// it has one and succeeded (a file's contents); else the command's summary when it has one
// and succeeded; else one "name: value" line per reply value, containers indented below their
// name, nil as "(none)". Control characters in texts are escaped (\n, \t, \xNN) so a hostile path
// cannot rewrite the terminal.
//
// JSON form (--json), on standard output: one JSON document,
//   {"command": "...", "ok": true|false, "exitStatus": N, "result": {name: value, ...},
//    "error": {...}}   (error only when there is one)
// with values as JSON: nil null, numbers and booleans as they are, texts and URLs as strings,
// data as {"hex": "..."}, an error as {"domain", "code", "description", "userInfo"} with its
// userInfo converted the same way (so nested underlying errors nest). Bytes that are not
// UTF-8 are replaced by U+FFFD.
//
// Errors, in both forms, are also reported readably on standard error: the description, then
// the domain, the code and every userInfo entry, nested errors indented below their key.
//
// Stateless; every member may be called from any thread.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "platform/value/Error.h"
#include "platform/value/Value.h"
#include "tools/daskelctl/CommandOutcome.h"

namespace daskel::ctl {

class OutputFormatter {
 public:
  // What goes to standard output: the readable form or the JSON document (with a final
  // newline). The readable form of a failed outcome shows only the values that are not nil.
  static std::string standardOutput(const CommandOutcome& outcome, bool json);
  // What goes to standard error: "" on success, else the readable error report.
  static std::string standardError(const CommandOutcome& outcome);

  // "daskelctl: <command>: <description>" and the error's fields, indented, one per line.
  static std::string errorReport(const std::string& command, const platform::ErrorPtr& error);

  static nlohmann::json toJson(const platform::Value& value);
  static nlohmann::json errorToJson(const platform::ErrorPtr& error);
  static std::string readableOutput(const CommandOutcome& outcome);
  static std::string jsonOutput(const CommandOutcome& outcome);

  // `text` with control characters escaped.
  static std::string printable(const std::string& text);
};

}  // namespace daskel::ctl
