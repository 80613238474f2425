#include "daemon/DKIpcListenerDelegate.h"

#include "daemon/DKServer.h"
#include "daemon/protocol/DKDaemon.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/log/Log.h"
#include "service/DKIpcServicer.h"

namespace daskel {

bool DKIpcListenerDelegate::shouldAcceptNewConnection(
    std::shared_ptr<platform::IpcConnection> connection) {
  // DKDaemonInterface() carries the one widening: the providers reply's dictionary may hold
  // dictionaries, strings and URLs at any depth.
  static const auto daemonInterface =
      std::make_shared<const platform::IpcInterface>(DKDaemonInterface());
  connection->setExportedInterface(daemonInterface);

  std::shared_ptr<DKServer> server = server_.lock();
  if (server != nullptr) {
    auto servicer = DKIpcServicer::create(server->servicerContext());
    servicer->setServer(server);
    servicer->setConnection(connection);
    connection->setExportedObject(std::move(servicer));
  }
  // Without a server (only while the process ends) the connection exports nothing: every
  // request it sends is refused by the interface check and the connection closed.
  connection->resume();
  DKLogInfo("New connection accepted.");
  return true;
}

}  // namespace daskel
