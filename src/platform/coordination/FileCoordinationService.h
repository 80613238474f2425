// FileCoordinationService: the named service "com.orvane.FileCoordination", the cooperative
// front-end of file coordination. Any local process may connect (like the daemon's own
// service) and call the two operations of FileCoordinationProtocol.h; each becomes a call of
// the owning provider through a FileCoordinationRouter.
//
// The calling process is the reader or writer: its identifier, which providers print in
// their log lines, is "pid <pid> (<bundle identifier>)", with "(unknown)" for a process that
// no application manifest names, looked up per request from the connection's audit token.
//
// A request without a URL (nil is allowed by the wire for every value) is refused with one
// error line naming the connection; a read then answers DKInvalidParameterError("URL"), a
// write notice answers at once. Messages that do not fit the interface are refused by the
// IPC layer before they get here.
//
// Life: create() takes the name at once (see IpcListener), so clients that connect early wait
// in the backlog until resume(); the daemon resumes it once its providers are registered, so
// an early read is not answered "nobody owns this" just because nobody was registered yet.
//
// Ownership: made by create() and held by its creator (the daemon's entry point); it owns its
// listener and is the listener's delegate (held weakly there). Each connection owns its
// handler table, which holds the service's shared state (router, application registry), not
// the service itself. Borrows the coordinator, which must outlive every connection.
// THREADING NOTES: every member may be called from any thread. Requests of one connection are
// handled in order on that connection's queue; providers are called on their operation queues
// and reply from wherever they answer.
// Failure: create() returns the listener's error (which it has logged: the name is taken, the
// runtime directory is unusable).
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/coordination/FileCoordinationRouter.h"
#include "platform/coordination/FileCoordinator.h"
#include "platform/ipc/IpcListenerDelegate.h"
#include "platform/value/Result.h"

namespace daskel::platform {

class ApplicationRegistry;
class IpcConnection;
class IpcHandlerTable;
class IpcListener;

class FileCoordinationService final
    : public IpcListenerDelegate,
      public std::enable_shared_from_this<FileCoordinationService> {
 public:
  struct Environment {
    // kFileCoordinationServiceName when empty.
    std::string serviceName;
    // FileCoordinator::shared() when null. Not owned.
    FileCoordinator* coordinator = nullptr;
    // Names the calling processes; the manifests of DASKEL_APPLICATIONS_PATH when null.
    std::shared_ptr<const ApplicationRegistry> applications;
  };

  static Result<std::shared_ptr<FileCoordinationService>> create(Environment environment);

  ~FileCoordinationService() override;
  FileCoordinationService(const FileCoordinationService&) = delete;
  FileCoordinationService& operator=(const FileCoordinationService&) = delete;

  // Starts accepting connections. Idempotent.
  void resume();
  // Stops accepting; connections already made go on. Idempotent.
  void invalidate();
  const std::shared_ptr<IpcListener>& listener() const { return listener_; }

  bool shouldAcceptNewConnection(std::shared_ptr<IpcConnection> connection) override;

  // "pid 4242 (org.example.app)"; "(unknown)" without a bundle identifier.
  static std::string processDescription(pid_t pid,
                                        const std::optional<std::string>& bundleIdentifier);

 private:
  struct Shared;

  FileCoordinationService(std::shared_ptr<IpcListener> listener, std::shared_ptr<Shared> shared);

  // The handlers of one connection, which they refer to weakly.
  static std::shared_ptr<IpcHandlerTable> handlersFor(std::shared_ptr<Shared> shared,
                                                      std::weak_ptr<IpcConnection> connection);

  const std::shared_ptr<IpcListener> listener_;
  const std::shared_ptr<Shared> shared_;
};

}  // namespace daskel::platform
