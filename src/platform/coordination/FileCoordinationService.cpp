#include "platform/coordination/FileCoordinationService.h"

#include <utility>

#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/errors/DKErrors.h"
#include "platform/identity/ApplicationRegistry.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcHandlerTable.h"
#include "platform/ipc/IpcListener.h"
#include "platform/ipc/ReplyBlock.h"
#include "platform/log/Log.h"

namespace daskel::platform {

namespace S = FileCoordinationSelector;

struct FileCoordinationService::Shared {
  FileCoordinationRouter router;
  std::shared_ptr<const ApplicationRegistry> applications;
};

namespace {

// The reader or writer a request comes from, as providers print it.
Value processIdentifier(const IpcConnection& connection, const ApplicationRegistry& applications) {
  std::optional<std::string> bundleIdentifier;
  if (const auto& token = connection.auditToken())
    bundleIdentifier = applications.bundleIdentifier(*token);
  return Value(FileCoordinationService::processDescription(connection.processIdentifier(),
                                                           bundleIdentifier));
}

}  // namespace

Result<std::shared_ptr<FileCoordinationService>> FileCoordinationService::create(
    Environment environment) {
  if (environment.serviceName.empty())
    environment.serviceName = kFileCoordinationServiceName;
  if (environment.coordinator == nullptr)
    environment.coordinator = &FileCoordinator::shared();
  if (environment.applications == nullptr)
    environment.applications = std::make_shared<const ApplicationRegistry>();

  auto listener = IpcListener::create(environment.serviceName);
  if (!listener)
    return failure(listener.error());
  auto shared = std::make_shared<Shared>(
      Shared{FileCoordinationRouter(environment.coordinator), std::move(environment.applications)});
  std::shared_ptr<FileCoordinationService> service(
      new FileCoordinationService(std::move(*listener), std::move(shared)));
  service->listener_->setDelegate(service->weak_from_this());
  return service;
}

FileCoordinationService::FileCoordinationService(std::shared_ptr<IpcListener> listener,
                                                 std::shared_ptr<Shared> shared)
    : listener_(std::move(listener)), shared_(std::move(shared)) {}

FileCoordinationService::~FileCoordinationService() {
  listener_->invalidate();
}

void FileCoordinationService::resume() {
  listener_->resume();
}

void FileCoordinationService::invalidate() {
  listener_->invalidate();
}

std::string FileCoordinationService::processDescription(
    pid_t pid,
    const std::optional<std::string>& bundleIdentifier) {
  return "pid " + std::to_string(pid) + " (" + bundleIdentifier.value_or("unknown") + ")";
}

bool FileCoordinationService::shouldAcceptNewConnection(std::shared_ptr<IpcConnection> connection) {
  connection->setExportedInterface(FileCoordinationInterface());
  connection->setExportedObject(handlersFor(shared_, connection));
  connection->resume();
  return true;
}

std::shared_ptr<IpcHandlerTable> FileCoordinationService::handlersFor(
    std::shared_ptr<Shared> shared,
    std::weak_ptr<IpcConnection> weakConnection) {
  auto table = std::make_shared<IpcHandlerTable>();

  table->on(S::kCoordinateReading, [shared, weakConnection](Value::Array arguments,
                                                            std::optional<ReplyBlock> reply) {
    // Handlers run on the connection's queue, so the connection is alive while they do.
    auto connection = weakConnection.lock();
    if (!connection)
      return;
    const Url* url = arguments[0].url();
    if (url == nullptr) {
      DKLogError("Refused %s from %@: no URL given.", S::kCoordinateReading, *connection);
      (*reply)({Value(DKInvalidParameterError("URL"))});
      return;
    }
    shared->router.coordinateReadingItemAtURL(
        *url, processIdentifier(*connection, *shared->applications),
        [reply = std::move(*reply)](const ErrorPtr& error) { reply({Value(error)}); });
  });

  table->on(S::kDidFinishWriting, [shared, weakConnection](Value::Array arguments,
                                                           std::optional<ReplyBlock> reply) {
    auto connection = weakConnection.lock();
    if (!connection)
      return;
    const Url* url = arguments[0].url();
    if (url == nullptr) {
      DKLogError("Refused %s from %@: no URL given.", S::kDidFinishWriting, *connection);
      (*reply)({});
      return;
    }
    shared->router.didFinishWritingItemAtURL(
        *url, processIdentifier(*connection, *shared->applications),
        [reply = std::move(*reply)] { reply({}); });
  });
  return table;
}

}  // namespace daskel::platform
