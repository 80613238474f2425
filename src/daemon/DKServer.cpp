#include "daemon/DKServer.h"

#include "access_control/DKAccessControlStore.h"
#include "daemon/DKIpcListenerDelegate.h"
#include "daemon/protocol/DKDaemon.h"
#include "platform/ipc/IpcListener.h"
#include "platform/log/Log.h"
#include "registry/DKExtensionProviderRegistry.h"

namespace daskel {

std::shared_ptr<DKServer> DKServer::create(Environment environment) {
  if (environment.serviceName.empty()) {
    environment.serviceName = kDKDaemonServiceName;
  }
  return std::shared_ptr<DKServer>(new DKServer(std::move(environment)));
}

DKServer::DKServer(Environment environment) : environment_(std::move(environment)) {}

std::shared_ptr<DKAccessControlStore> DKServer::accessControlStore() const {
  std::lock_guard lock(mutex_);
  return accessControlStore_.lock();
}

void DKServer::setAccessControlStore(std::weak_ptr<DKAccessControlStore> store) {
  std::lock_guard lock(mutex_);
  accessControlStore_ = std::move(store);
}

std::shared_ptr<platform::IpcListener> DKServer::listener() const {
  std::lock_guard lock(mutex_);
  return listener_;
}

void DKServer::setListener(std::shared_ptr<platform::IpcListener> listener) {
  std::lock_guard lock(mutex_);
  listener_ = std::move(listener);
}

std::shared_ptr<DKIpcListenerDelegate> DKServer::listenerDelegate() const {
  std::lock_guard lock(mutex_);
  return listenerDelegate_;
}

void DKServer::setListenerDelegate(std::shared_ptr<DKIpcListenerDelegate> delegate) {
  std::lock_guard lock(mutex_);
  listenerDelegate_ = std::move(delegate);
}

void DKServer::startCompletion(std::function<void()> completion) {
  DKLogInfo("Server starting.");

  auto created = platform::IpcListener::create(environment_.serviceName);
  // The listener has logged why it could not be made; listener() stays null.
  setListener(created.has_value() ? *created : nullptr);

  auto delegate = std::make_shared<DKIpcListenerDelegate>();
  setListenerDelegate(delegate);
  delegate->setServer(weak_from_this());
  if (auto listener = this->listener()) {
    listener->setDelegate(delegate);
  }

  // The server is captured strongly: the listener must be resumed even if nobody else held
  // the server by then.
  environment_.registry->createInstancesCompletion(
      [self = shared_from_this(), completion = std::move(completion)] {
        if (auto listener = self->listener()) {
          listener->resume();
        }
        if (completion) {
          completion();
        }
      });
}

}  // namespace daskel
