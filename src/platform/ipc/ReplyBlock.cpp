#include "platform/ipc/ReplyBlock.h"

#include <atomic>
#include <cstdlib>

#include "platform/ipc/IpcConnection.h"
#include "platform/log/Log.h"

namespace daskel::platform {

struct ReplyBlock::State {
  std::weak_ptr<IpcConnection> connection;
  std::uint64_t id = 0;
  std::string selector;
  std::shared_ptr<const IpcInterface> interface;
  std::atomic<bool> called{false};
};

ReplyBlock::ReplyBlock(std::weak_ptr<IpcConnection> connection,
                       std::uint64_t id,
                       std::string selector,
                       std::shared_ptr<const IpcInterface> interface)
    : state_(std::make_shared<State>()) {
  state_->connection = std::move(connection);
  state_->id = id;
  state_->selector = std::move(selector);
  state_->interface = std::move(interface);
}

void ReplyBlock::operator()(Value::Array values) const {
  if (state_->called.exchange(true)) {
    DKLogError("The reply block of %s was called a second time; the call is ignored",
               state_->selector);
#ifndef NDEBUG
    std::abort();
#endif
    return;
  }
  if (auto connection = state_->connection.lock()) {
    connection->sendReply(state_->id, state_->selector, state_->interface, std::move(values));
  }
}

const std::string& ReplyBlock::selector() const {
  return state_->selector;
}

bool ReplyBlock::wasCalled() const {
  return state_->called.load();
}

}  // namespace daskel::platform
