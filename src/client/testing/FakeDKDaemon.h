// FakeDKDaemon: a listener delegate for client tests that stands in for the daemon. It exports
// DKDaemon (or whatever interface a test gives it, to send what the real daemon must not) on
// every connection, and each operation answers with the canned values set for it, holds its
// reply block in `held` (the test answers or drops it later), or drops it at once, the
// default. Every request is recorded, with its arguments, in `requests`.
//
// How it differs from the daemon: no entitlement gate, no providers, no work; replies come
// at once, on the connection's queue, from the canned table.
//
// Ownership: owned by the test through shared_ptr (the listener holds its delegate weakly);
// it keeps every connection it accepted, so a test can close them from the daemon's side.
// The handlers it exports refer to it weakly.
//
// THREADING NOTES: answer() and set() may be called from any thread, also while requests
// arrive; the Inboxes may be read from any thread.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "daemon/protocol/DKDaemon.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcHandlerTable.h"
#include "platform/ipc/IpcInterface.h"
#include "platform/ipc/IpcListenerDelegate.h"
#include "platform/ipc/IpcTestSupport.h"

namespace daskel::testing {

inline const char* const kDKDaemonSelectors[] = {DKDaemonSelector::kWakeUp,
                                                 DKDaemonSelector::kExtendSandbox,
                                                 DKDaemonSelector::kProvidePlaceholder,
                                                 DKDaemonSelector::kStartProviding,
                                                 DKDaemonSelector::kStopProviding,
                                                 DKDaemonSelector::kProviders,
                                                 DKDaemonSelector::kBookmarkableString,
                                                 DKDaemonSelector::kDocumentURL};

class FakeDKDaemon : public platform::IpcListenerDelegate,
                     public std::enable_shared_from_this<FakeDKDaemon> {
 public:
  using IpcConnection = platform::IpcConnection;
  using IpcInterface = platform::IpcInterface;
  using ReplyBlock = platform::ReplyBlock;
  using Values = platform::Value::Array;
  template <typename T>
  using Inbox = platform::testing::Inbox<T>;

  enum class Behaviour { Answer, Hold, Drop };
  struct Request {
    std::string selector;
    Values arguments;
  };

  explicit FakeDKDaemon(IpcInterface exported) : exported_(std::move(exported)) {}

  void answer(const std::string& selector, Values values) {
    std::lock_guard lock(mutex_);
    behaviour_[selector] = Behaviour::Answer;
    canned_[selector] = std::move(values);
  }
  void set(const std::string& selector, Behaviour behaviour) {
    std::lock_guard lock(mutex_);
    behaviour_[selector] = behaviour;
  }

  bool shouldAcceptNewConnection(std::shared_ptr<IpcConnection> connection) override {
    auto table = std::make_shared<platform::IpcHandlerTable>();
    for (const char* selector : kDKDaemonSelectors) {
      table->on(selector, [weak = weak_from_this(), selector](Values arguments,
                                                              std::optional<ReplyBlock> reply) {
        if (auto self = weak.lock()) {
          self->handle(selector, std::move(arguments), std::move(*reply));
        }
      });
    }
    connection->setExportedInterface(exported_);
    connection->setExportedObject(table);
    // Listed before it runs: a test that saw a request arrive may close it at once.
    connections.push(connection);
    connection->resume();
    return true;
  }

  void closeConnections() {
    for (const auto& connection : connections.items()) {
      connection->invalidate();
    }
  }

  Inbox<Request> requests;
  Inbox<ReplyBlock> held;
  Inbox<std::shared_ptr<IpcConnection>> connections;

 private:
  void handle(const std::string& selector, Values arguments, ReplyBlock reply) {
    Behaviour behaviour;
    Values values;
    {
      std::lock_guard lock(mutex_);
      behaviour = behaviour_.contains(selector) ? behaviour_[selector] : Behaviour::Drop;
      values = canned_[selector];
    }
    requests.push({selector, std::move(arguments)});
    switch (behaviour) {
      case Behaviour::Answer:
        reply(std::move(values));
        break;
      case Behaviour::Hold:
        held.push(std::move(reply));
        break;
      case Behaviour::Drop:
        break;
    }
  }

  const IpcInterface exported_;
  std::mutex mutex_;
  std::map<std::string, Behaviour> behaviour_;
  std::map<std::string, Values> canned_;
};

}  // namespace daskel::testing
