#include "tools/daskelctl/CtlCommands.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "client/DaskelClient.h"
#include "platform/errors/DKErrors.h"
#include "platform/filesystem/FileSystem.h"
#include "platform/ipc/WireCodec.h"
#include "platform/locations/Locations.h"
#include "platform/notify/SystemNotifyCenter.h"
#include "tools/daskelctl/UrlArgument.h"

namespace daskel::ctl {

using platform::ErrorPtr;
using platform::Url;
using platform::Value;

namespace {

Value optional(const std::optional<Url>& url) {
  return url ? Value(*url) : Value();
}
Value optional(const std::optional<std::string>& text) {
  return text ? Value(*text) : Value();
}
// A token as the daemon sends it (data holding the text, no NUL) becomes the text.
Value tokenText(const std::optional<DKDaemonClient::Data>& token) {
  return token ? Value(std::string(token->begin(), token->end())) : Value();
}

CommandOutcome finish(CommandOutcome outcome, ErrorPtr error) {
  outcome.status = CtlCommands::statusForReplyError(error);
  outcome.error = std::move(error);
  return outcome;
}

CommandOutcome failed(CommandOutcome outcome, ExitStatus status, ErrorPtr error) {
  outcome.status = status;
  outcome.error = std::move(error);
  return outcome;
}

platform::Result<std::string> readWholeFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return platform::failure(platform::posixError(errno, "cannot open", path));
  }
  std::string contents;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      const int error = errno;
      ::close(fd);
      return platform::failure(platform::posixError(error, "cannot read", path));
    }
    if (n == 0) {
      break;
    }
    contents.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return contents;
}

std::string currentDirectory() {
  std::string buffer(4096, '\0');
  while (::getcwd(buffer.data(), buffer.size()) == nullptr) {
    if (errno != ERANGE) {
      return "/";
    }
    buffer.resize(buffer.size() * 2);
  }
  buffer.resize(buffer.find('\0'));
  return buffer;
}

}  // namespace

CtlCommands::Services CtlCommands::Services::live() {
  Services services;
  services.connect = [] { return DKDaemonClient::connect(); };
  services.connectFileCoordination = [] { return FileCoordinationClient::connect(); };
  services.postNotification = [](std::string_view name) -> platform::Result<void> {
    auto center =
        platform::SystemNotifyCenter::createForDirectory(platform::notificationsDirectory());
    if (!center) {
      return platform::failure(center.error());
    }
    return (*center)->post(name);
  };
  services.tokens = platform::SandboxTokenIssuer::live();
  services.workingDirectory = currentDirectory();
  return services;
}

ExitStatus CtlCommands::statusForReplyError(const ErrorPtr& error) {
  if (!error) {
    return ExitStatus::Success;
  }
  if (error->domain == kDaskelClientErrorDomain &&
      error->code == static_cast<std::int64_t>(DaskelClientErrorCode::TimedOut)) {
    return ExitStatus::TimedOut;
  }
  if (error->domain == kIpcErrorDomain) {
    return ExitStatus::ConnectionLost;
  }
  return ExitStatus::OperationError;
}

CommandOutcome CtlCommands::run(const Invocation& invocation) const {
  switch (invocation.command) {
    case Command::PostNotification:
      return postNotification(invocation);
    case Command::VerifyToken:
      return verifyToken(invocation);
    case Command::Read:
    case Command::CoordinateRead:
    case Command::Wrote:
      return runCoordinationCommand(invocation);
    default:
      return runDaemonCommand(invocation);
  }
}

CommandOutcome CtlCommands::runDaemonCommand(const Invocation& invocation) const {
  CommandOutcome outcome;
  outcome.command = commandName(invocation.command);

  // Arguments first: a malformed one is a usage error whether or not the daemon runs.
  std::optional<Url> target;
  switch (invocation.command) {
    case Command::ExtendSandbox:
    case Command::ProvidePlaceholder:
    case Command::StartProviding:
    case Command::StopProviding:
    case Command::BookmarkableString: {
      auto url = urlFromArgument(invocation.target, services_.workingDirectory);
      if (!url) {
        return failed(std::move(outcome), ExitStatus::UsageError, url.error());
      }
      target = *url;
      break;
    }
    default:
      break;
  }

  auto connected = services_.connect();
  if (!connected) {
    return failed(std::move(outcome), ExitStatus::DaemonNotRunning, connected.error());
  }
  DKDaemonClient& client = **connected;
  const auto timeout = invocation.timeout;
  const std::string& provider = invocation.providerID;
  const std::string& consumer = invocation.consumerID;

  switch (invocation.command) {
    case Command::WakeUp:
      outcome.summary = "The daemon answered.";
      return finish(std::move(outcome), client.wakeUpSync(timeout));
    case Command::ExtendSandbox: {
      auto reply = client.extendSandboxForFileURLSync(*target, provider, consumer, timeout);
      outcome.fields = {{"token", tokenText(reply.token)},
                        {"placeholderURL", optional(reply.placeholderURL)},
                        {"placeholderToken", tokenText(reply.placeholderToken)}};
      return finish(std::move(outcome), reply.error);
    }
    case Command::ProvidePlaceholder:
      outcome.summary = "The placeholder was provided.";
      return finish(std::move(outcome), client.providePlaceholderForItemAtURLSync(
                                            *target, provider, consumer, timeout));
    case Command::StartProviding:
      outcome.summary = "The item is being provided.";
      return finish(std::move(outcome),
                    client.startProvidingItemAtURLSync(*target, provider, consumer, timeout));
    case Command::StopProviding:
      outcome.summary = "The provider was told to stop providing the item.";
      return finish(std::move(outcome),
                    client.stopProvidingItemAtURLSync(*target, provider, consumer, timeout));
    case Command::Providers: {
      auto reply = client.providersCompletionHandlerSync(timeout);
      outcome.fields = {{"providers", reply.providerInfo ? Value(*reply.providerInfo) : Value()}};
      return finish(std::move(outcome), reply.error);
    }
    case Command::BookmarkableString: {
      auto reply = client.bookmarkableStringFromDocumentURLSync(*target, timeout);
      outcome.fields = {{"bookmarkableString", optional(reply.bookmarkableString)}};
      return finish(std::move(outcome), reply.error);
    }
    case Command::DocumentURL: {
      auto reply = client.documentURLFromBookmarkableStringSync(invocation.text, timeout);
      outcome.fields = {{"documentURL", optional(reply.documentURL)},
                        {"token", tokenText(reply.token)},
                        {"placeholderURL", optional(reply.placeholderURL)},
                        {"placeholderToken", tokenText(reply.placeholderToken)}};
      return finish(std::move(outcome), reply.error);
    }
    case Command::PostNotification:
    case Command::VerifyToken:
    case Command::Read:
    case Command::CoordinateRead:
    case Command::Wrote:
      break;
  }
  return failed(
      std::move(outcome), ExitStatus::UsageError,
      platform::makeError(kDKErrorDomain, static_cast<std::int64_t>(DKErrorCode::InvalidParameter),
                          "Not a daemon command."));
}

CommandOutcome CtlCommands::runCoordinationCommand(const Invocation& invocation) const {
  CommandOutcome outcome;
  outcome.command = commandName(invocation.command);

  auto url = urlFromArgument(invocation.target, services_.workingDirectory);
  if (!url) {
    return failed(std::move(outcome), ExitStatus::UsageError, url.error());
  }
  if (!url->isFileUrl()) {
    return failed(std::move(outcome), ExitStatus::UsageError,
                  DKInvalidParameterError("URL-or-PATH", Value(*url)));
  }

  auto connected = services_.connectFileCoordination();
  if (!connected) {
    return failed(std::move(outcome), ExitStatus::DaemonNotRunning, connected.error());
  }
  FileCoordinationClient& client = **connected;
  if (invocation.command == Command::Wrote) {
    return finish(std::move(outcome), client.didFinishWritingItemAtURLSync(*url, invocation.timeout));
  }
  ErrorPtr error = client.coordinateReadingItemAtURLSync(*url, invocation.timeout);
  if (error || invocation.command == Command::CoordinateRead) {
    return finish(std::move(outcome), std::move(error));
  }

  auto contents = readWholeFile(url->path());
  if (!contents) {
    return failed(std::move(outcome), ExitStatus::OperationError, contents.error());
  }
  outcome.fields = {{"contents", platform::WireCodec::isValidUtf8(*contents)
                                     ? Value(*contents)
                                     : Value(Value::Data(contents->begin(), contents->end()))}};
  outcome.rawOutput = std::move(*contents);
  return outcome;
}

CommandOutcome CtlCommands::postNotification(const Invocation& invocation) const {
  CommandOutcome outcome;
  outcome.command = commandName(invocation.command);
  const std::string& name = invocation.text;
  if (!platform::SystemNotifyCenter::isValidName(name)) {
    return failed(std::move(outcome), ExitStatus::UsageError,
                  DKInvalidParameterError("NAME", Value(name)));
  }
  outcome.summary = "Posted " + name + ".";
  outcome.fields = {{"name", Value(name)}};
  auto posted = services_.postNotification(name);
  if (!posted) {
    return failed(std::move(outcome), ExitStatus::OperationError, posted.error());
  }
  return outcome;
}

CommandOutcome CtlCommands::verifyToken(const Invocation& invocation) const {
  CommandOutcome outcome;
  outcome.command = commandName(invocation.command);
  auto grant = services_.tokens->verifyToken(invocation.text);
  if (!grant) {
    return failed(std::move(outcome), ExitStatus::OperationError, grant.error());
  }
  outcome.fields = {{"accessClass", Value(grant->accessClass)},
                    {"path", Value(grant->path)},
                    {"issueTime", Value(grant->issueTime)}};
  return outcome;
}

}  // namespace daskel::ctl
