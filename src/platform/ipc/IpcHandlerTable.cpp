#include "platform/ipc/IpcHandlerTable.h"

#include "platform/errors/DKErrors.h"
#include "platform/log/Log.h"

namespace daskel::platform {

IpcHandlerTable& IpcHandlerTable::on(std::string selector, Handler handler) {
  handlers_.insert_or_assign(std::move(selector), std::move(handler));
  return *this;
}

bool IpcHandlerTable::handles(std::string_view selector) const {
  return handlers_.find(selector) != handlers_.end();
}

Result<void> IpcHandlerTable::checkAgainst(const IpcInterface& interface) const {
  std::string unknown;
  for (const auto& [selector, handler] : handlers_) {
    if (interface.operation(selector) == nullptr) {
      unknown += (unknown.empty() ? "" : ", ") + selector;
    }
  }
  if (unknown.empty()) {
    return {};
  }
  return failure(IpcError(IpcErrorCode::MessageRefused,
                          interface.name() + " has no operation for the handlers of " + unknown));
}

void IpcHandlerTable::handleRequest(const std::string& selector,
                                    Value::Array arguments,
                                    std::optional<ReplyBlock> reply) {
  const auto found = handlers_.find(selector);
  if (found == handlers_.end()) {
    DKLogError("No handler for %s; the request is dropped", selector);
    return;
  }
  found->second(std::move(arguments), std::move(reply));
}

}  // namespace daskel::platform
