// Helpers shared by the IPC tests (unit and multi-process): an Inbox that collects what other
// threads report and lets a test wait for it with a deadline, the small test protocol, and a
// service object answering it.
//
// THREADING NOTES: Inbox may be used from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcHandlerTable.h"
#include "platform/ipc/IpcInterface.h"

namespace daskel::platform::testing {

// Long enough for a loaded machine under sanitizers; only ever reached by a hang.
inline constexpr std::chrono::seconds kIpcTestDeadline{20};

template <typename T>
class Inbox {
 public:
  void push(T item) {
    std::lock_guard lock(mutex_);
    items_.push_back(std::move(item));
    changed_.notify_all();
  }
  // True once `count` items arrived, false at the deadline.
  bool waitForCount(std::size_t count, std::chrono::milliseconds timeout = kIpcTestDeadline) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return items_.size() >= count; });
  }
  std::vector<T> items() const {
    std::lock_guard lock(mutex_);
    return items_;
  }
  std::size_t size() const {
    std::lock_guard lock(mutex_);
    return items_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<T> items_;
};

// echo: answers with its argument; hold: keeps or drops its reply block; note: and blob:
// take no reply; store: takes dictionaries of strings (checked at every depth) and answers
// with the number of keys; releaseHeldCompletion: answers every held reply block (the test
// service's) and then itself with how many there were.
inline IpcInterface ipcTestInterface() {
  using Type = Value::Type;
  return IpcInterface::Builder("IpcTest")
      .operation("echo:completion:", {Type::String}, {Type::String})
      .operation("hold:completion:", {Type::String}, {})
      .operationWithoutReply("note:", {Type::Integer})
      .operationWithoutReply("blob:", {Type::Data})
      .operation("store:completion:", {Type::Dictionary | Type::String}, {Type::Integer})
      .operation("releaseHeldCompletion:", {}, {Type::Integer})
      .build();
}

// A service whose echo answers at once, whose hold puts its reply block in `held` (or drops
// it when `held` is null), and whose note: does nothing.
inline std::shared_ptr<IpcHandlerTable> ipcEchoService(Inbox<ReplyBlock>* held = nullptr) {
  auto table = std::make_shared<IpcHandlerTable>();
  table->on("echo:completion:", [](Value::Array args, std::optional<ReplyBlock> reply) {
    (*reply)({args[0]});
  });
  table->on("hold:completion:", [held](Value::Array, std::optional<ReplyBlock> reply) {
    if (held) {
      held->push(*reply);
    }
  });
  table->on("note:", [](Value::Array, std::optional<ReplyBlock>) {});
  return table;
}

// Sends echo and waits for the answer; nullopt when none came before the deadline.
inline std::optional<std::string> ipcEcho(const std::shared_ptr<IpcConnection>& connection,
                                          const std::string& text) {
  auto done = std::make_shared<Inbox<std::string>>();
  connection->remoteObjectProxy()->call("echo:completion:", {Value(text)},
                                        [done](Value::Array values) {
                                          const std::string* s = values.at(0).string();
                                          done->push(s ? *s : "(not a string)");
                                        });
  if (!done->waitForCount(1)) {
    return std::nullopt;
  }
  return done->items().front();
}

}  // namespace daskel::platform::testing
