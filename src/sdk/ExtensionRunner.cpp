#include "sdk/ExtensionRunner.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "platform/errors/DKErrors.h"
#include "platform/log/Log.h"
#include "provider/protocol/DKVendorProtocol.h"

namespace daskel::sdk {

using platform::ControlMessage;
using platform::IpcConnection;

ExtensionRunner::ExtensionRunner(ProviderExtension& provider)
    : vendor_(std::make_shared<VendorObject>(provider)) {
  assert(provider.hasContext());
}

ExtensionRunner::~ExtensionRunner() {
  closeAll();
}

platform::Result<void> ExtensionRunner::serve(platform::ExtensionControlChannel& channel) {
  if (auto sent = channel.sendReady(); !sent) {
    DKLogError("Cannot tell the daemon that the extension is ready: %@", sent.error());
    return sent;
  }
  for (;;) {
    auto received = channel.receive();
    if (!received) {
      // A refused packet leaves the socket usable; anything else ends the extension.
      if (received.error()->domain == kIpcErrorDomain) {
        DKLogError("Ignoring a control packet from the daemon: %@", received.error());
        continue;
      }
      DKLogError("The control socket failed: %@", received.error());
      closeAll();
      return platform::failure(received.error());
    }
    if (!*received) {
      DKLogInfo("The daemon closed the control socket; stopping.");
      closeAll();
      return {};
    }
    ControlMessage& message = **received;
    switch (message.kind) {
      case ControlMessage::Kind::Begin:
        begin(message.requestUuid, std::move(message.requestSocket));
        break;
      case ControlMessage::Kind::Cancel:
        cancel(message.requestUuid);
        break;
      case ControlMessage::Kind::Ready:
        DKLogError("Ignoring a ready packet from the daemon");
        break;
    }
  }
}

void ExtensionRunner::begin(const std::string& uuid, platform::ScopedFd socket) {
  {
    std::lock_guard lock(requests_->mutex);
    if (requests_->open.contains(uuid)) {
      DKLogError("Request %@ began twice; closing the second socket", uuid);
      return;
    }
  }
  // adoptSocket takes a descriptor of its own (closing it on failure too); `socket` closes
  // the received one.
  const int fd = ::fcntl(socket.get(), F_DUPFD_CLOEXEC, 0);
  if (fd < 0) {
    DKLogError("Cannot serve request %@: %s", uuid, std::strerror(errno));
    return;
  }
  auto adopted = IpcConnection::adoptSocket(fd, "extension request " + uuid);
  if (!adopted) {
    DKLogError("Cannot serve request %@: %@", uuid, adopted.error());
    return;
  }
  std::shared_ptr<IpcConnection> connection = std::move(*adopted);
  connection->setExportedInterface(DKVendorProtocolInterface());
  connection->setExportedObject(vendor_);
  connection->setRemoteInterface(DKHostProtocolInterface());
  std::weak_ptr<Requests> weakRequests = requests_;
  std::weak_ptr<IpcConnection> weakConnection = connection;
  connection->setInvalidationHandler([weakRequests, weakConnection, uuid] {
    auto requests = weakRequests.lock();
    if (!requests) {
      return;
    }
    std::lock_guard lock(requests->mutex);
    auto it = requests->open.find(uuid);
    // Only this connection's entry: a request may not reuse a UUID, but be exact anyway.
    if (it != requests->open.end() && it->second == weakConnection.lock()) {
      requests->open.erase(it);
    }
  });
  {
    std::lock_guard lock(requests_->mutex);
    requests_->open.emplace(uuid, connection);
  }
  DKLogDebug("Serving request %@", uuid);
  connection->resume();
}

void ExtensionRunner::cancel(const std::string& uuid) {
  std::shared_ptr<IpcConnection> connection;
  {
    std::lock_guard lock(requests_->mutex);
    auto it = requests_->open.find(uuid);
    if (it == requests_->open.end()) {
      DKLogDebug("Request %@ ended (its connection had already closed)", uuid);
      return;
    }
    connection = std::move(it->second);
    requests_->open.erase(it);
  }
  DKLogDebug("Request %@ ended", uuid);
  connection->invalidate();
}

void ExtensionRunner::closeAll() {
  std::map<std::string, std::shared_ptr<IpcConnection>> open;
  {
    std::lock_guard lock(requests_->mutex);
    open.swap(requests_->open);
  }
  for (auto& [uuid, connection] : open) {
    connection->invalidate();
  }
}

std::size_t ExtensionRunner::openRequestCount() const {
  std::lock_guard lock(requests_->mutex);
  return requests_->open.size();
}

bool ExtensionRunner::waitForNoRunningOperations(
    std::chrono::steady_clock::time_point deadline) const {
  return vendor_->waitForNoRunningOperations(deadline);
}


namespace {

constexpr char kControlFdVariable[] = "DASKEL_EXTENSION_CONTROL_FD";
constexpr char kIdentifierVariable[] = "DASKEL_EXTENSION_IDENTIFIER";
// How long a stopping extension waits for operations still running in author code before
// it leaves without them (the daemon kills it 5 seconds after closing the socket).
constexpr std::chrono::seconds kStopGrace{3};

// The control descriptor named by the environment, or -1 after explaining what is wrong.
int controlDescriptor(const char* program) {
  const char* text = ::getenv(kControlFdVariable);
  if (text == nullptr || *text == '\0') {
    DKLogError("%s: %s is not set. This program is a Daskel provider extension: the Daskel "
               "daemon starts it from its bundle, with the control socket on a descriptor "
               "named by that variable. Install the bundle in a directory of "
               "DASKEL_EXTENSIONS_PATH instead of running it by hand.",
               program, kControlFdVariable);
    return -1;
  }
  char* end = nullptr;
  errno = 0;
  const long fd = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || fd < 0 || fd > INT_MAX) {
    DKLogError("%s: %s=%s is not a file descriptor number", program, kControlFdVariable, text);
    return -1;
  }
  int type = 0;
  socklen_t length = sizeof type;
  if (::getsockopt(static_cast<int>(fd), SOL_SOCKET, SO_TYPE, &type, &length) != 0 ||
      type != SOCK_SEQPACKET) {
    DKLogError("%s: descriptor %ld (%s) is not the daemon's control socket (%s)", program, fd,
               kControlFdVariable, errno != 0 ? std::strerror(errno) : "not a SOCK_SEQPACKET socket");
    return -1;
  }
  return static_cast<int>(fd);
}

}  // namespace

int run(ProviderExtension& provider, int argc, char** argv) {
  platform::DKLoggingInitialize();
  // A daemon that goes away mid-reply must not kill the extension with SIGPIPE.
  ::signal(SIGPIPE, SIG_IGN);
  const char* program = argc > 0 && argv[0] != nullptr ? argv[0] : "provider extension";

  const int fd = controlDescriptor(program);
  if (fd < 0) {
    return 2;
  }
  platform::ExtensionControlChannel channel(fd);

  char cwd[PATH_MAX];
  if (::getcwd(cwd, sizeof cwd) == nullptr) {
    DKLogError("%s: cannot find the bundle directory (the working directory): %s", program,
               std::strerror(errno));
    return 1;
  }
  auto context = ExtensionContext::fromBundle(cwd);
  if (!context) {
    DKLogError("%s: cannot use the bundle %s: %@", program, cwd, context.error());
    return 1;
  }
  const char* identifier = ::getenv(kIdentifierVariable);
  if (identifier == nullptr || context->identifier() != identifier) {
    DKLogError("%s: %s is %s, but the bundle %s is %@", program, kIdentifierVariable,
               identifier ? identifier : "not set", cwd, context->identifier());
    return 1;
  }
  provider.setContext(std::move(*context));

  int status = 0;
  {
    ExtensionRunner runner(provider);
    if (!runner.serve(channel)) {
      status = 1;
    }
    if (!runner.waitForNoRunningOperations(std::chrono::steady_clock::now() + kStopGrace)) {
      // Returning would destroy the provider under an operation still running in it.
      DKLogNotice("Stopping with operations still running.");
      std::fflush(nullptr);
      ::_exit(status);
    }
  }
  return status;
}

}  // namespace daskel::sdk
