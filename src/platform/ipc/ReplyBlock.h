// ReplyBlock: the reply block of one incoming request, handed to the exported object with the
// request's arguments. Calling it sends {"reply": id, "values": [...]} to the peer.
//
// - It may be called from any thread, at most once: a second call is a programming error that
//   aborts debug builds and is ignored (with an error line) otherwise.
// - Dropping every copy without calling it sends nothing; the peer's request stays unanswered
//   (its proxy hears of it only if the connection later closes).
// - Calling it after the connection closed does nothing.
// - The values are checked against the reply classes of the exported interface before they
//   are sent. Values that do not fit are a programming error on this side: the error is
//   logged and the connection closed, so the peer's error handler runs instead of its
//   request waiting for ever.
//
// Ownership: copies share one state, which refers to the connection weakly, so a reply block
// held by slow work never keeps a closed connection alive.
//
// THREADING NOTES: every member may be called from any thread; the at-most-once rule holds
// across threads.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/value/Value.h"

namespace daskel::platform {

class IpcConnection;
class IpcInterface;

class ReplyBlock {
 public:
  // Sends `values`, the reply block's arguments in order: reply({error, Value(url)}).
  void operator()(Value::Array values) const;

  // The selector of the request this block answers.
  const std::string& selector() const;
  // Whether it has been called (by any copy).
  bool wasCalled() const;

 private:
  friend class IpcConnection;
  struct State;
  ReplyBlock(std::weak_ptr<IpcConnection> connection,
             std::uint64_t id,
             std::string selector,
             std::shared_ptr<const IpcInterface> interface);

  std::shared_ptr<State> state_;  // never null
};

}  // namespace daskel::platform
