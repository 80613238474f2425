#include "provider/testing/ScriptedVendor.h"

#include <algorithm>
#include <utility>

#include "provider/protocol/DKVendorProtocol.h"

namespace daskel {

using platform::ErrorPtr;
using platform::IpcConnection;
using platform::ReplyBlock;
using platform::Value;

namespace {

// Where each operation's reply puts its error and its result, and how many values it has.
struct ReplyShape {
  std::size_t count;
  std::size_t errorIndex;
  std::size_t resultIndex;
};

ReplyShape replyShape(std::string_view selector) {
  namespace S = DKVendorSelector;
  if (selector == S::kPerformInitialSetup)
    return {3, 2, 0};
  if (selector == S::kProvidePlaceholder)
    return {2, 1, 0};
  if (selector == S::kIdentifierForItem || selector == S::kURLForItemIdentifier)
    return {2, 0, 1};
  // The three operations that reply only an error.
  return {1, 0, 1};
}

}  // namespace

ScriptedVendor::Action ScriptedVendor::reply(Value::Array values) {
  return Action{Action::Kind::Reply, std::move(values)};
}

ScriptedVendor::Action ScriptedVendor::succeed(std::string_view selector, Value result) {
  const ReplyShape shape = replyShape(selector);
  Value::Array values(shape.count);
  if (shape.resultIndex < shape.count)
    values[shape.resultIndex] = std::move(result);
  return reply(std::move(values));
}

ScriptedVendor::Action ScriptedVendor::fail(std::string_view selector, ErrorPtr error) {
  const ReplyShape shape = replyShape(selector);
  Value::Array values(shape.count);
  values[shape.errorIndex] = Value(std::move(error));
  return reply(std::move(values));
}

ScriptedVendor::Action ScriptedVendor::neverAnswer() {
  return Action{Action::Kind::NeverAnswer, {}};
}

ScriptedVendor::Action ScriptedVendor::closeConnection() {
  return Action{Action::Kind::CloseConnection, {}};
}

void ScriptedVendor::script(const std::string& selector, std::vector<Action> actions) {
  std::lock_guard lock(mutex_);
  scripts_[selector] = std::move(actions);
  used_[selector] = 0;
}

std::vector<ScriptedVendor::Call> ScriptedVendor::calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

std::size_t ScriptedVendor::callCount(std::string_view selector) const {
  std::lock_guard lock(mutex_);
  return std::ranges::count_if(calls_, [&](const Call& call) { return call.selector == selector; });
}

bool ScriptedVendor::waitForCallCount(std::string_view selector,
                                      std::size_t count,
                                      std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    return static_cast<std::size_t>(std::ranges::count_if(
               calls_, [&](const Call& call) { return call.selector == selector; })) >= count;
  });
}

ScriptedVendor::Action ScriptedVendor::nextAction(const std::string& selector,
                                                  Value::Array arguments) {
  std::lock_guard lock(mutex_);
  calls_.push_back(Call{selector, std::move(arguments)});
  changed_.notify_all();
  auto script = scripts_.find(selector);
  if (script == scripts_.end() || script->second.empty())
    return succeed(selector);
  std::size_t& used = used_[selector];
  const std::size_t index = std::min(used, script->second.size() - 1);
  ++used;
  return script->second[index];
}

std::shared_ptr<platform::IpcHandlerTable> ScriptedVendor::handlerTableFor(
    std::weak_ptr<IpcConnection> connection) {
  auto table = std::make_shared<platform::IpcHandlerTable>();
  auto self = shared_from_this();
  namespace S = DKVendorSelector;
  for (const char* vendorSelector :
       {S::kPerformInitialSetup, S::kProvidePlaceholder, S::kStartProviding, S::kItemChanged,
        S::kStopProviding, S::kIdentifierForItem, S::kURLForItemIdentifier}) {
    const std::string selector = vendorSelector;
    table->on(selector, [self, selector, connection](Value::Array arguments,
                                                     std::optional<ReplyBlock> reply) {
      const Action action = self->nextAction(selector, std::move(arguments));
      switch (action.kind) {
        case Action::Kind::Reply:
          if (reply)
            (*reply)(action.values);
          break;
        case Action::Kind::NeverAnswer:
          break;
        case Action::Kind::CloseConnection:
          if (auto open = connection.lock())
            open->invalidate();
          break;
      }
    });
  }
  return table;
}

}  // namespace daskel
