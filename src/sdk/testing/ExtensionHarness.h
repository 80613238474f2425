// ExtensionHarness: runs a ProviderExtension in the test's own process and plays the daemon
// against it over real sockets: a control socket pair (ExtensionControlChannel), and for each
// request a stream socket pair whose daemon end is an IpcConnection calling DKVendorProtocol.
// The extension side is the SDK's own ExtensionRunner, served on a thread of its own, so the
// test exercises the same code as a real extension, apart from process start-up (run()).
//
//   MyProvider provider;
//   provider.setContext(...);
//   ExtensionHarness harness(provider);
//   auto request = harness.beginRequest();
//   auto reply = ExtensionHarness::call(request, DKVendorSelector::kStartProviding, {Value(url)});
//
// Ownership: borrows the provider (not owned; it must outlive the harness). The destructor
// closes the control socket and joins the serving thread.
// THREADING NOTES: use a harness from the test's thread; PendingReply may be waited for from
// any thread.
// Failure: ok() is false when the extension never became ready; calls return nullopt when no
// reply came before the deadline or the request's connection closed first.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "platform/extensions/ExtensionControlChannel.h"
#include "platform/ipc/IpcConnection.h"
#include "provider/protocol/DKVendorProtocol.h"
#include "sdk/ExtensionRunner.h"

namespace daskel::sdk::testing {

// Long enough for a loaded machine under sanitizers; only ever reached by a hang.
inline constexpr std::chrono::seconds kHarnessDeadline{20};

// The reply to one call, filled in on the connection's queue.
class PendingReply {
 public:
  void deliver(platform::Value::Array values) { finish(std::move(values), nullptr); }
  void fail(platform::ErrorPtr error) { finish(std::nullopt, std::move(error)); }

  // The reply's values; nullopt when the call failed or nothing came by the deadline.
  std::optional<platform::Value::Array> wait(
      std::chrono::milliseconds timeout = kHarnessDeadline) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, timeout, [&] { return done_; });
    return values_;
  }
  // True once answered or failed, waiting at most `timeout`.
  bool isDone(std::chrono::milliseconds timeout = std::chrono::milliseconds(0)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return done_; });
  }
  // The connection error, once the call failed.
  platform::ErrorPtr error() {
    std::lock_guard lock(mutex_);
    return error_;
  }

 private:
  void finish(std::optional<platform::Value::Array> values, platform::ErrorPtr error) {
    std::lock_guard lock(mutex_);
    if (done_) {
      return;
    }
    done_ = true;
    values_ = std::move(values);
    error_ = std::move(error);
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;
  std::optional<platform::Value::Array> values_;
  platform::ErrorPtr error_;
};

class ExtensionHarness {
 public:
  struct Request {
    std::string uuid;
    std::shared_ptr<platform::IpcConnection> connection;
  };

  explicit ExtensionHarness(ProviderExtension& provider) : runner_(provider) {
    auto pair = platform::ExtensionControlChannel::makeSocketPair();
    if (!pair) {
      return;
    }
    daemon_ = std::make_unique<platform::ExtensionControlChannel>(
        ::fcntl(pair->first.get(), F_DUPFD_CLOEXEC, 0));
    extension_ = std::make_unique<platform::ExtensionControlChannel>(
        ::fcntl(pair->second.get(), F_DUPFD_CLOEXEC, 0));
    std::packaged_task<bool()> serve([this] { return runner_.serve(*extension_).has_value(); });
    served_ = serve.get_future();
    thread_ = std::thread(std::move(serve));
    auto first = daemon_->receive();
    ready_ = first && *first && (*first)->kind == platform::ControlMessage::Kind::Ready;
  }

  ~ExtensionHarness() {
    closeControlSocket();
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  ExtensionHarness(const ExtensionHarness&) = delete;
  ExtensionHarness& operator=(const ExtensionHarness&) = delete;

  bool ok() const { return ready_; }
  ExtensionRunner& runner() { return runner_; }

  // Begins a request: sends {"begin": uuid} with a fresh socket and returns the daemon's
  // resumed connection on it. The connection is null when the socket could not be made.
  Request beginRequest() { return beginRequestOn(daemon_.get()); }

  // The same on the daemon's end of any control socket (a real extension process's).
  static Request beginRequestOn(platform::ExtensionControlChannel* daemon) {
    Request request{platform::ExtensionControlChannel::makeRequestUuid(), nullptr};
    int fds[2];
    if (!daemon || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
      return request;
    }
    platform::ScopedFd extensionEnd(fds[1]);
    auto connection = platform::IpcConnection::adoptSocket(fds[0], "harness " + request.uuid);
    if (!connection || !daemon->sendBegin(request.uuid, extensionEnd.get())) {
      return request;
    }
    (*connection)->setExportedInterface(DKHostProtocolInterface());
    (*connection)->setRemoteInterface(DKVendorProtocolInterface());
    (*connection)->resume();
    request.connection = std::move(*connection);
    return request;
  }

  void cancel(const Request& request) {
    if (daemon_) {
      static_cast<void>(daemon_->sendCancel(request.uuid));
    }
  }

  // Closes the daemon's end of the control socket, as the daemon stops an idle extension.
  void closeControlSocket() { daemon_.reset(); }

  // True when serve() returned successfully within `timeout`.
  bool waitForServeToReturn(std::chrono::milliseconds timeout = kHarnessDeadline) {
    if (!served_.valid() ||
        served_.wait_for(timeout) != std::future_status::ready) {
      return false;
    }
    return served_.get();
  }

  // Sends one vendor operation on `request` and returns its pending reply.
  static std::shared_ptr<PendingReply> send(const Request& request,
                                            const std::string& selector,
                                            platform::Value::Array arguments) {
    auto pending = std::make_shared<PendingReply>();
    if (!request.connection) {
      pending->fail(nullptr);
      return pending;
    }
    auto proxy = request.connection->remoteObjectProxyWithErrorHandler(
        [pending](const platform::ErrorPtr& error) { pending->fail(error); });
    proxy->call(selector, std::move(arguments),
                [pending](platform::Value::Array values) { pending->deliver(std::move(values)); });
    return pending;
  }

  // send() and wait for the reply.
  static std::optional<platform::Value::Array> call(const Request& request,
                                                    const std::string& selector,
                                                    platform::Value::Array arguments) {
    return send(request, selector, std::move(arguments))->wait();
  }

 private:
  ExtensionRunner runner_;
  std::unique_ptr<platform::ExtensionControlChannel> daemon_;
  std::unique_ptr<platform::ExtensionControlChannel> extension_;
  std::future<bool> served_;
  std::thread thread_;
  bool ready_ = false;
};

}  // namespace daskel::sdk::testing
