// IpcExportedObject: what a connection delivers incoming requests to, once they have passed
// the connection's exported interface (known operation, right number of arguments, allowed
// classes at every depth, a reply id exactly when the operation takes a reply block).
//
// Typed services do not usually implement it directly: IpcHandlerTable maps each selector to
// a handler, and a service fills one table with its operations.
//
// Ownership: the connection holds its exported object strongly until it closes.
//
// THREADING NOTES: handleRequest runs on the connection's serial queue, one request at a
// time, in the order the peer sent them. Requests of different connections run concurrently,
// so an object exported on several connections must be thread safe.
#pragma once

#include <optional>
#include <string>

#include "platform/ipc/ReplyBlock.h"
#include "platform/value/Value.h"

namespace daskel::platform {

class IpcExportedObject {
 public:
  virtual ~IpcExportedObject() = default;

  // One request. `reply` is present exactly when the operation takes a reply block; calling
  // it answers the request, dropping it leaves the request unanswered.
  virtual void handleRequest(const std::string& selector,
                             Value::Array arguments,
                             std::optional<ReplyBlock> reply) = 0;
};

}  // namespace daskel::platform
