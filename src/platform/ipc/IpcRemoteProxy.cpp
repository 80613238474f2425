#include "platform/ipc/IpcRemoteProxy.h"

#include "platform/ipc/IpcConnection.h"

namespace daskel::platform {

void IpcRemoteProxy::call(std::string selector, Value::Array arguments, ReplyHandler replyHandler) {
  if (replyHandler) {
    connection_->readByLoop();  // the reply comes to the loop
  }
  connection_->sendRequest(state_, std::move(selector), std::move(arguments),
                           std::move(replyHandler));
}

void IpcRemoteProxy::callAndReadReply(
    std::string selector,
    Value::Array arguments,
    ReplyHandler replyHandler,
    std::optional<std::chrono::steady_clock::time_point> deadline) {
  connection_->sendRequestAndReadReply(state_, std::move(selector), std::move(arguments),
                                       std::move(replyHandler), deadline);
}

}  // namespace daskel::platform
