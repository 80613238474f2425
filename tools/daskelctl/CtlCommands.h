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
// File-coordination commands connect to the service com.orvane.FileCoordination instead, the
// same way, and need a file URL (a path). read then reads the file itself and hands its bytes
// back as the outcome's raw output ("contents" in JSON: a text, or data when the bytes are not
// UTF-8); a file that cannot be read is OperationError with the POSIX error. coordinate-read
// and wrote have no fields and no summary: they print nothing on success.
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
#include "client/FileCoordinationClient.h"
#include "platform/sandbox/SandboxTokenIssuer.h"
#include "platform/value/Result.h"
#include "tools/daskelctl/CommandOutcome.h"
#include "tools/daskelctl/Invocation.h"

namespace daskel::ctl {

class CtlCommands {
 public:
  struct Services {
    std::function<platform::Result<std::unique_ptr<DKDaemonClient>>()> connect;
    std::function<platform::Result<std::unique_ptr<FileCoordinationClient>>()>
        connectFileCoordination;
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
  CommandOutcome runCoordinationCommand(const Invocation& invocation) const;
  CommandOutcome postNotification(const Invocation& invocation) const;
  CommandOutcome verifyToken(const Invocation& invocation) const;

  const Services services_;
};

}  // namespace daskel::ctl
