// ExtensionScript: what the scripted test extension (daskel_scripted_extension) does, read
// from the text file "script" in its bundle directory. Tests write the script, lay out the
// bundle (ScriptedExtensionBundle.h) and let the daemon start it, then read the call log to
// see exactly which operations reached the extension.
//
// Format: one statement per line; blank lines and lines starting with "#" are ignored; words
// are separated by spaces; a description runs to the end of its line.
//
//   calls <path>            where calls are recorded (default "calls.log"; a relative path is
//                           relative to the bundle directory; "off": nowhere, for benchmarks)
//   state <path>            directory of the fail-first counters (default: the bundle)
//   start exit <status>     exit at once with <status>, before sending ready
//   start no-ready          never send ready; exit 0 when the control socket closes
//   start record            record "launch" each time the process starts
//   <operation> <behaviour> what one operation does ("*" for every operation); a later line
//                           for the same operation replaces an earlier one
//
// Operations: performInitialSetup providePlaceholder startProviding stopProviding itemChanged
// identifierForItem urlForItemIdentifier. Behaviours:
//   succeed                                 the SDK's default answer (startProviding: no error)
//   error <domain> <code> <description>     answer with that error (other values nil)
//   fail-first <n> <domain> <code> <description>
//                                           the first n calls answer with that error, later
//                                           ones succeed; counted in <state>/<operation>.count,
//                                           so the count survives relaunches
//   never-answer                            keep the completion, never call it
//   crash                                   abort() in the middle of the request
//   wait-for <path>                         answer (succeed) once <path> exists (60 s at most,
//                                           then answer with an error)
// Operations the script does not name succeed.
//
// The call log gets one line per call, appended with O_APPEND before the behaviour runs:
// "<operation> <argument>" (the URL's absolute string or the identifier; nothing after the
// operation for performInitialSetup), and "launch" lines when asked for.
//
// A plain value. Failure: parse() returns an error naming the line and what is wrong.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/value/Result.h"

namespace daskel::testing {

struct ScriptedBehaviour {
  enum class Kind { Succeed, Error, FailFirst, NeverAnswer, Crash, WaitFor };
  Kind kind = Kind::Succeed;
  std::string domain;         // Error, FailFirst
  std::int64_t code = 0;      // Error, FailFirst
  std::string description;    // Error, FailFirst
  std::int64_t failures = 0;  // FailFirst
  std::string path;           // WaitFor
};

class ExtensionScript {
 public:
  static constexpr char kFileName[] = "script";
  static constexpr char kDefaultCallLog[] = "calls.log";

  // `text` is the script; relative paths in it are taken relative to `bundlePath`.
  static platform::Result<ExtensionScript> parse(std::string_view text,
                                                 const std::string& bundlePath);
  // Reads <bundlePath>/script; a missing file is an empty script.
  static platform::Result<ExtensionScript> load(const std::string& bundlePath);

  static bool isOperation(std::string_view name);

  const ScriptedBehaviour& behaviour(std::string_view operation) const;
  // Empty when calls are not recorded.
  const std::string& callLogPath() const { return callLogPath_; }
  const std::string& stateDirectory() const { return stateDirectory_; }
  std::optional<int> exitAtStart() const { return exitAtStart_; }
  bool sendsReady() const { return sendsReady_; }
  bool recordsLaunches() const { return recordsLaunches_; }

 private:
  std::map<std::string, ScriptedBehaviour, std::less<>> behaviours_;
  ScriptedBehaviour default_;
  std::string callLogPath_;
  std::string stateDirectory_;
  std::optional<int> exitAtStart_;
  bool sendsReady_ = true;
  bool recordsLaunches_ = false;
};

}  // namespace daskel::testing
