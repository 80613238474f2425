// CtlCommands: carries out one daskelctl Invocation and says what came of it, as a
// CommandOutcome for OutputFormatter.
//
// Daemon commands connect to the daemon's service, make the one call through the blocking
// wrapper of DKDaemonClient (with the invocation's timeout) and close the connection.
// Tokens in replies (data holding the token text) become texts. The exit status follows from
// the error: none is Success; a client-library timeout TimedOut; an IPC error (connection
// interrupted, invalid or message refused) ConnectionLost; any other error OperationError. A
// failed connect is DaemonNotRunning.
//
// Local commands: post-notification posts through a SystemNotifyCenter on the runtime
// directory's notifications directory; verify-token checks the token with the
// SandboxTokenIssuer (which never creates a key when verifying).
//
// What it reaches is injected as Services so tests can point it anywhere; live() uses the
// environment's locations.
//
// THREADING NOTES: run() blocks its thread until the command is done; one CtlCommands may run
// commands on several threads at once if its Services allow it (the live ones do).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "client/DKDaemonClient.h"
#include "platform/sandbox/SandboxTokenIssuer.h"
#include "platform/value/Result.h"
#include "tools/daskelctl/CommandOutcome.h"
#include "tools/daskelctl/Invocation.h"

namespace daskel::ctl {

class CtlCommands {
 public:
  struct Services {
    std::function<platform::Result<std::unique_ptr<DKDaemonClient>>()> connect;
    std::function<platform::Result<void>(std::string_view name)> postNotification;
    std::shared_ptr<platform::SandboxTokenIssuer> tokens;
    // Absolute; relative paths in arguments are taken from here.
    std::string workingDirectory;

    static Services live();
  };

  explicit CtlCommands(Services services) : services_(std::move(services)) {}

  CommandOutcome run(const Invocation& invocation) const;

  // The exit status that an error from a daemon call leads to (Success for none).
  static ExitStatus statusForReplyError(const platform::ErrorPtr& error);

 private:
  CommandOutcome runDaemonCommand(const Invocation& invocation) const;
  CommandOutcome postNotification(const Invocation& invocation) const;
  CommandOutcome verifyToken(const Invocation& invocation) const;

  const Services services_;
};

}  // namespace daskel::ctl
