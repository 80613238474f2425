// DKServer: the daemon's one named service. It owns the listener on "com.orvane.Daskel" and
// the listener's delegate, and starts serving only once the provider registry has created
// its providers: the listener is made (so the name is taken and early clients wait in the
// backlog) but resumed only from the registry's start-up completion.
//
// Ownership: made with create() and held by the entry point for the life of the process. It
// holds the listener and the delegate strongly (the listener holds its delegate weakly) and
// the access-control store weakly; the store lives in its own process-wide singleton.
// THREADING NOTES: configure and start on one thread; accessControlStore() may then be read
// from any thread (servicers do, per request). The registry's completion resumes the
// listener on whatever queue the registry chooses.
// Failure: startCompletion() reports nothing; a listener that cannot be made (another live
// daemon holds the name, the runtime directory is unusable) has logged why, and listener()
// stays null, which the entry point checks.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "service/DKServicerServer.h"

namespace daskel {

namespace platform {
class IpcListener;
}
class DKAccessControlStore;
class DKExtensionProviderRegistry;
class DKIpcListenerDelegate;
struct DKServicerContext;

class DKServer final : public DKServicerServer, public std::enable_shared_from_this<DKServer> {
 public:
  struct Environment {
    // The service name; "com.orvane.Daskel" when empty.
    std::string serviceName;
    // The provider registry whose start-up completion resumes the listener.
    DKExtensionProviderRegistry* registry = nullptr;
    // What every connection's servicer works with.
    std::shared_ptr<const DKServicerContext> servicerContext;
  };

  static std::shared_ptr<DKServer> create(Environment environment);

  DKServer(const DKServer&) = delete;
  DKServer& operator=(const DKServer&) = delete;

  std::shared_ptr<DKAccessControlStore> accessControlStore() const override;
  void setAccessControlStore(std::weak_ptr<DKAccessControlStore> store);
  std::shared_ptr<platform::IpcListener> listener() const;
  void setListener(std::shared_ptr<platform::IpcListener> listener);
  std::shared_ptr<DKIpcListenerDelegate> listenerDelegate() const;
  void setListenerDelegate(std::shared_ptr<DKIpcListenerDelegate> delegate);

  const std::shared_ptr<const DKServicerContext>& servicerContext() const {
    return environment_.servicerContext;
  }

  // Logs "Server starting.", makes the listener and its delegate, and asks the registry to
  // create the providers; when it has, resumes the listener and then calls `completion`
  // (may be empty). Returns at once.
  void startCompletion(std::function<void()> completion);

 private:
  explicit DKServer(Environment environment);

  const Environment environment_;
  mutable std::mutex mutex_;
  std::weak_ptr<DKAccessControlStore> accessControlStore_;
  std::shared_ptr<platform::IpcListener> listener_;
  std::shared_ptr<DKIpcListenerDelegate> listenerDelegate_;
};

}  // namespace daskel
