// ScriptedVendor: an in-process stand-in for the object a provider extension vends on its
// request connections (DKVendorProtocol), for tests of the daemon's side. It is served over
// real IpcConnections (FakeAppExtension sets them up over socketpairs), so requests, replies,
// class checks and broken connections go through the real IPC layer.
//
// Each vendor operation follows a script: a list of actions used by its next requests in
// order, the last one staying for every request after. An action answers with given reply
// values, never answers (the reply block is dropped: the request waits until its connection
// closes), or closes the request's connection while the request waits for its reply. A
// selector without a script answers with success and nil values. Every request is recorded.
//
// How it differs from a real extension: it keeps no items and does no set-up; the replies are
// exactly what the test scripted, even ones a real extension would not send.
//
// Ownership: shared; the handler tables it makes for connections hold it strongly.
// THREADING NOTES: every member may be called from any thread; requests arrive on the
// connections' queues, several connections at once.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcHandlerTable.h"
#include "platform/value/Value.h"

namespace daskel {

class ScriptedVendor : public std::enable_shared_from_this<ScriptedVendor> {
 public:
  struct Action {
    enum class Kind { Reply, NeverAnswer, CloseConnection };
    Kind kind = Kind::Reply;
    platform::Value::Array values;  // Reply only
  };

  // Answers with `values`, the reply block's arguments in order.
  static Action reply(platform::Value::Array values);
  // Answers `selector` with no error and `result` in its result position: the string of the
  // initial set-up, the URL of the placeholder and URL look-up, the identifier of the item
  // look-up (ignored by the three operations that reply only an error).
  static Action succeed(std::string_view selector, platform::Value result = {});
  // Answers `selector` with `error` in its error position and nil elsewhere.
  static Action fail(std::string_view selector, platform::ErrorPtr error);
  static Action neverAnswer();
  static Action closeConnection();

  struct Call {
    std::string selector;
    platform::Value::Array arguments;
  };

  ScriptedVendor() = default;
  ScriptedVendor(const ScriptedVendor&) = delete;
  ScriptedVendor& operator=(const ScriptedVendor&) = delete;

  // Replaces the script of `selector` (a DKVendorSelector).
  void script(const std::string& selector, std::vector<Action> actions);

  // Every request received so far, in arrival order.
  std::vector<Call> calls() const;
  std::size_t callCount(std::string_view selector) const;
  // Waits until `selector` has been received `count` times; false at the deadline.
  bool waitForCallCount(std::string_view selector,
                        std::size_t count,
                        std::chrono::milliseconds timeout) const;

  // The exported object for the vendor end of one request connection; CloseConnection
  // actions close `connection`.
  std::shared_ptr<platform::IpcHandlerTable> handlerTableFor(
      std::weak_ptr<platform::IpcConnection> connection);

 private:
  Action nextAction(const std::string& selector, platform::Value::Array arguments);

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::map<std::string, std::vector<Action>, std::less<>> scripts_;
  std::map<std::string, std::size_t, std::less<>> used_;
  std::vector<Call> calls_;
};

}  // namespace daskel
