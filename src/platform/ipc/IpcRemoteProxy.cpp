#include "platform/ipc/IpcRemoteProxy.h"

#include "platform/ipc/IpcConnection.h"

namespace daskel::platform {

void IpcRemoteProxy::call(std::string selector, Value::Array arguments, ReplyHandler replyHandler) {
  connection_->sendRequest(state_, std::move(selector), std::move(arguments),
                           std::move(replyHandler));
}

}  // namespace daskel::platform
