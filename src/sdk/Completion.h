// Completion: the completion block that a provider extension's operation receives. Calling it
// sends the operation's reply to the daemon; its arguments are the reply's values, in the
// order the vendor protocol gives them (see ProviderExtension.h).
//
// - Copyable; every copy shares one state, so an author may hand it to another thread, a
//   queue or a std::function.
// - Call it at most once, from any thread. A second call is a mistake in the author's code:
//   it is ignored with an error line, never sent.
// - Dropping every copy without calling it sends nothing: the daemon's request stays
//   unanswered until the request ends. The SDK writes an error line when that happens, since
//   it is almost always a forgotten path in an operation.
//
// THREADING NOTES: every member may be called from any thread; the at-most-once rule holds
// across threads.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "platform/log/Log.h"

namespace daskel::sdk {

template <typename... Args>
class Completion {
 public:
  using Deliver = std::move_only_function<void(Args...)>;

  // `what` names the operation in log lines ("startProviding file:///...").
  Completion(Deliver deliver, std::string what)
      : state_(std::make_shared<State>(std::move(deliver), std::move(what))) {}

  void operator()(Args... args) const {
    if (state_->called.exchange(true)) {
      DKLogError("%@: completion called more than once; the later call is ignored",
                 state_->what);
      return;
    }
    Deliver deliver = std::move(state_->deliver);
    deliver(std::move(args)...);
  }

  bool wasCalled() const { return state_->called.load(); }

 private:
  struct State {
    State(Deliver d, std::string w) : deliver(std::move(d)), what(std::move(w)) {}
    ~State() {
      if (!called.load()) {
        DKLogError("%@: completion dropped without being called; the request stays unanswered",
                   what);
      }
    }
    std::atomic<bool> called{false};
    Deliver deliver;
    const std::string what;
  };

  std::shared_ptr<State> state_;  // never null
};

}  // namespace daskel::sdk
