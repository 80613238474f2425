// A provider extension for the supervisor's tests. It speaks the control protocol with
// ExtensionControlChannel and serves requests with IpcConnection directly, and does what the
// file "behaviour" in its working directory (the bundle) says:
//   serve           ready, then serve requests; exit when the control socket closes (default)
//   exit <status>   exit at once with <status>
//   never-ready     never send ready; wait for ever
//   crash-on-begin  ready, then abort when a request begins
//   linger          serve, but keep running after the control socket closes
// Requests export "echo:completion:" (the string back; "crash" aborts the process, "hang up"
// closes the request's connection after the reply). What it
// sees is appended to the file "events" in the bundle, one line each: "started <pid> <id>
// <fd> <cwd>", "begin <uuid>", "cancel <uuid>", "closed <uuid>", "control closed".
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/extensions/ExtensionControlChannel.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcHandlerTable.h"

using namespace daskel::platform;

namespace {

std::mutex gEventsMutex;

void event(const std::string& line) {
  std::lock_guard lock(gEventsMutex);
  const int fd = ::open("events", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0)
    return;
  const std::string text = line + "\n";
  (void)!::write(fd, text.data(), text.size());
  ::close(fd);
}

[[noreturn]] void crash() {
  rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);  // no core files in the test's bundle
  ::abort();
}

[[noreturn]] void waitForever() {
  for (;;)
    ::pause();
}

const char* environment(const char* name) {
  const char* value = ::getenv(name);
  return value != nullptr ? value : "-";
}

}  // namespace

int main() {
  std::string behaviour = "serve";
  int exitStatus = 0;
  {
    std::ifstream in("behaviour");
    if (in)
      in >> behaviour >> exitStatus;
  }
  char cwd[PATH_MAX] = "-";
  (void)!::getcwd(cwd, sizeof cwd);
  event("started " + std::to_string(::getpid()) + " " +
        environment("DASKEL_EXTENSION_IDENTIFIER") + " " +
        environment("DASKEL_EXTENSION_CONTROL_FD") + " " + cwd);

  if (behaviour == "exit")
    return exitStatus;
  if (behaviour == "never-ready")
    waitForever();

  ExtensionControlChannel control(3);
  if (!control.sendReady())
    return 2;

  const IpcInterface vendor = IpcInterface::Builder("TestVendor")
                                  .operation("echo:completion:", {Value::Type::String},
                                             {Value::Type::String})
                                  .build();
  const IpcInterface host("TestHost");
  // One table per request, so that "hang up" can close the request's own connection.
  auto makeTable = [](std::weak_ptr<IpcConnection> weakConnection) {
    auto table = std::make_shared<IpcHandlerTable>();
    table->on("echo:completion:", [weakConnection](Value::Array arguments,
                                                   std::optional<ReplyBlock> reply) {
      const std::string* argument = arguments[0].string();
      const std::string text = argument != nullptr ? *argument : "";
      if (text == "crash")
        crash();
      (*reply)({Value(text)});
      if (text == "hang up") {
        if (auto connection = weakConnection.lock())
          connection->invalidate();
      }
    });
    return table;
  };

  std::map<std::string, std::shared_ptr<IpcConnection>> requests;
  for (;;) {
    auto received = control.receive();
    if (!received)
      return 3;
    if (!received->has_value()) {
      event("control closed");
      if (behaviour == "linger")
        waitForever();
      return 0;
    }
    ControlMessage& message = **received;
    if (message.kind == ControlMessage::Kind::Begin) {
      event("begin " + message.requestUuid);
      if (behaviour == "crash-on-begin")
        crash();
      const int fd = ::dup(message.requestSocket.get());
      auto connection = IpcConnection::adoptSocket(fd, "request " + message.requestUuid);
      if (!connection)
        return 4;
      (*connection)->setExportedInterface(vendor);
      (*connection)->setExportedObject(makeTable(*connection));
      (*connection)->setRemoteInterface(host);
      (*connection)->setInvalidationHandler(
          [uuid = message.requestUuid] { event("closed " + uuid); });
      (*connection)->resume();
      requests[message.requestUuid] = *connection;
    } else if (message.kind == ControlMessage::Kind::Cancel) {
      event("cancel " + message.requestUuid);
      auto it = requests.find(message.requestUuid);
      if (it != requests.end()) {
        it->second->invalidate();
        requests.erase(it);
      }
    }
  }
}
