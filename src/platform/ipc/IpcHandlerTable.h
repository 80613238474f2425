// IpcHandlerTable: an exported object made of one handler per selector, the seam on which
// typed services sit. A service registers a handler for every operation of its interface;
// the connection has already checked the arguments against the interface, so a handler may
// rely on the count and classes (nil is always possible).
//
//   auto table = std::make_shared<IpcHandlerTable>();
//   table->on("echoString:completion:", [](Value::Array args, std::optional<ReplyBlock> reply) {
//     (*reply)({args[0]});
//   });
//   connection->setExportedInterface(interface);
//   connection->setExportedObject(table);
//
// A request for a selector without a handler (the interface has more operations than the
// table) is dropped with an error line; its reply block is dropped too, so nothing is sent.
// checkAgainst() finds handlers registered under a selector the interface does not have (a
// misspelt selector), which would otherwise never be called.
//
// THREADING NOTES: register every handler before exporting the table; afterwards it is
// read-only and handleRequest may run on many connection queues at once.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/ipc/IpcExportedObject.h"
#include "platform/ipc/IpcInterface.h"
#include "platform/value/Result.h"

namespace daskel::platform {

class IpcHandlerTable final : public IpcExportedObject {
 public:
  using Handler = std::function<void(Value::Array arguments, std::optional<ReplyBlock> reply)>;

  // Sets the handler of `selector`, replacing an earlier one.
  IpcHandlerTable& on(std::string selector, Handler handler);

  bool handles(std::string_view selector) const;

  // Fails, naming them, when handlers are registered for selectors `interface` lacks.
  Result<void> checkAgainst(const IpcInterface& interface) const;

  void handleRequest(const std::string& selector,
                     Value::Array arguments,
                     std::optional<ReplyBlock> reply) override;

 private:
  std::map<std::string, Handler, std::less<>> handlers_;
};

}  // namespace daskel::platform
