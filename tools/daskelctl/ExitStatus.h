// ExitStatus: what daskelctl's exit status says, for scripts. Each failure class has its own
// status so that a script can tell "the daemon said no" from "the daemon is not there".
#pragma once

namespace daskel::ctl {

enum class ExitStatus : int {
  Success = 0,
  // The operation answered with an error (the daemon's, or a local check's: a token that
  // does not verify, a notification that could not be posted).
  OperationError = 1,
  // Unknown command, missing or malformed argument.
  UsageError = 2,
  // The daemon's service cannot be reached: nothing listens at its socket.
  DaemonNotRunning = 3,
  // No answer came within --timeout.
  TimedOut = 4,
  // The connection closed, or the daemon refused the message, before the answer came.
  ConnectionLost = 5,
};

inline int exitCode(ExitStatus status) {
  return static_cast<int>(status);
}

}  // namespace daskel::ctl
