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
#include "platform/filesystem/FileSystem.h"
#include "platform/ipc/IoLoop.h"
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
  // Control packets are read on the IPC loop rather than on this thread: the loop thread that
  // adopts a request's socket goes straight back to its epoll wait, where the request's first
  // message (sent right behind the begin packet) is usually waiting already, so a request
  // starts without waking a second thread.
  const int flags = ::fcntl(channel.fd(), F_GETFL);
  if (flags < 0 || ::fcntl(channel.fd(), F_SETFL, flags | O_NONBLOCK) != 0) {
    DKLogError("Cannot make the control socket non-blocking (%s); reading it on this thread",
               std::strerror(errno));
    return serveOnThisThread(channel);
  }
  auto control = std::make_shared<ControlState>();
  control->channel = &channel;
  auto registration = platform::IoLoop::shared().add(
      channel.fd(), EPOLLIN,
      [control, requests = requests_, vendor = vendor_](std::uint32_t) {
        readControlPackets(*control, requests, vendor);
      });
  if (!registration) {
    DKLogError("Cannot watch the control socket (%@); reading it on this thread",
               registration.error());
    (void)::fcntl(channel.fd(), F_SETFL, flags);
    return serveOnThisThread(channel);
  }
  platform::Result<void> outcome;
  {
    std::unique_lock lock(control->mutex);
    control->registration = *registration;
    control->finishedCondition.wait(lock, [&] { return control->finished; });
    outcome = std::move(control->outcome);
  }
  // A handler that runs after this sees `finished` and leaves the channel alone.
  platform::IoLoop::shared().remove(*registration, channel.fd());
  closeAll();
  return outcome;
}

void ExtensionRunner::readControlPackets(ControlState& control,
                                         const std::shared_ptr<Requests>& requests,
                                         const std::shared_ptr<VendorObject>& vendor) {
  platform::ExtensionControlChannel* channel;
  {
    std::lock_guard lock(control.mutex);
    if (control.finished) {
      return;
    }
    channel = control.channel;
  }
  // Handlers of one registration never overlap, and serve() returns only once `finished` is
  // set below, so the channel stays valid throughout.
  auto finish = [&control, channel](platform::Result<void> outcome) {
    std::lock_guard lock(control.mutex);
    control.finished = true;
    control.outcome = std::move(outcome);
    // The hung-up socket stays readable: stop hearing about it before serve() wakes to do so.
    if (control.registration != 0) {
      platform::IoLoop::shared().remove(control.registration, channel->fd());
    }
    control.finishedCondition.notify_all();
  };
  // One packet per call: the loop's registration is level-triggered, so it calls again at
  // once while more are waiting, and a lone begin packet costs no extra read that would only
  // find the socket empty before the loop turns to the request's socket.
  for (;;) {
    auto received = channel->receive();
    if (!received) {
      const ErrorPtr& error = received.error();
      if (error->domain == platform::kPosixErrorDomain &&
          (error->code == EAGAIN || error->code == EWOULDBLOCK)) {
        return;  // Everything sent so far has been handled.
      }
      // A refused packet leaves the socket usable; anything else ends the extension.
      if (error->domain == kIpcErrorDomain) {
        DKLogError("Ignoring a control packet from the daemon: %@", error);
        continue;
      }
      DKLogError("The control socket failed: %@", error);
      finish(platform::failure(error));
      return;
    }
    if (!*received) {
      DKLogInfo("The daemon closed the control socket; stopping.");
      finish({});
      return;
    }
    handleControlMessage(**received, requests, vendor);
    return;
  }
}

platform::Result<void> ExtensionRunner::serveOnThisThread(
    platform::ExtensionControlChannel& channel) {
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
    handleControlMessage(**received, requests_, vendor_);
  }
}

void ExtensionRunner::handleControlMessage(ControlMessage& message,
                                           const std::shared_ptr<Requests>& requests,
                                           const std::shared_ptr<VendorObject>& vendor) {
  switch (message.kind) {
    case ControlMessage::Kind::Begin:
      begin(requests, vendor, message.requestUuid, std::move(message.requestSocket));
      break;
    case ControlMessage::Kind::Cancel:
      cancel(*requests, message.requestUuid);
      break;
    case ControlMessage::Kind::Ready:
      DKLogError("Ignoring a ready packet from the daemon");
      break;
  }
}

void ExtensionRunner::begin(const std::shared_ptr<Requests>& requests,
                            const std::shared_ptr<VendorObject>& vendor,
                            const std::string& uuid,
                            platform::ScopedFd socket) {
  {
    std::lock_guard lock(requests->mutex);
    if (requests->open.contains(uuid)) {
      DKLogError("Request %@ began twice; closing the second socket", uuid);
      return;
    }
  }
  // adoptSocket owns the descriptor from now on (and closes it on failure too).
  // Received close-on-exec (MSG_CMSG_CLOEXEC), one end of the daemon's blocking socketpair.
  // Were it nonblocking after all, a blocking caller would poll before reading: nothing
  // depends on the flag being as stated.
  auto adopted = IpcConnection::adoptSocket(socket.release(), "extension request " + uuid,
                                            /*alreadyBlockingCloseOnExec=*/true);
  if (!adopted) {
    DKLogError("Cannot serve request %@: %@", uuid, adopted.error());
    return;
  }
  std::shared_ptr<IpcConnection> connection = std::move(*adopted);
  // Built once for every request connection of the process.
  static const auto vendorInterface =
      std::make_shared<const platform::IpcInterface>(DKVendorProtocolInterface());
  static const auto hostInterface =
      std::make_shared<const platform::IpcInterface>(DKHostProtocolInterface());
  connection->setExportedInterface(vendorInterface);
  connection->setExportedObject(vendor);
  connection->setRemoteInterface(hostInterface);
  std::weak_ptr<Requests> weakRequests = requests;
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
    std::lock_guard lock(requests->mutex);
    requests->open.emplace(uuid, connection);
  }
  DKLogDebug("Serving request %@", uuid);
  // The daemon usually sends the request right behind the begin packet: serve it before
  // whatever else is ready (the end of the previous request, usually). A request the daemon
  // hands over ahead of need has nothing to read yet; that costs one empty read.
  connection->resume(IpcConnection::PeerInput::Sent);
}

void ExtensionRunner::cancel(Requests& requests, const std::string& uuid) {
  std::shared_ptr<IpcConnection> connection;
  {
    std::lock_guard lock(requests.mutex);
    auto it = requests.open.find(uuid);
    if (it == requests.open.end()) {
      DKLogDebug("Request %@ ended (its connection had already closed)", uuid);
      return;
    }
    connection = std::move(it->second);
    requests.open.erase(it);
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
