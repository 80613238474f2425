#include "provider/testing/FakeAppExtension.h"

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <utility>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/errors/DKErrors.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcHandlerTable.h"
#include "provider/DKExtensionHostContext.h"

namespace daskel {

using platform::ErrorPtr;
using platform::IpcConnection;

namespace {

class FakeContext final : public platform::ExtensionContext {
 public:
  explicit FakeContext(std::shared_ptr<IpcConnection> connection)
      : connection_(std::move(connection)) {}
  std::shared_ptr<IpcConnection> auxiliaryConnection() const override { return connection_; }

 private:
  const std::shared_ptr<IpcConnection> connection_;
};

// Lower-case 8-4-4-4-12, unique in the process.
std::string makeRequestUuid() {
  static std::atomic<unsigned long long> counter{0};
  char text[40];
  std::snprintf(text, sizeof text, "fa6e0000-0000-4000-8000-%012llx", ++counter);
  return text;
}

}  // namespace

struct FakeAppExtension::State {
  struct Request {
    std::shared_ptr<FakeContext> context;
    std::shared_ptr<IpcConnection> vendorEnd;
  };

  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  std::vector<BeginOutcome> outcomes;
  std::size_t outcomesUsed = 0;
  std::size_t beginCount = 0;
  std::vector<std::string> begun;
  std::vector<std::string> cancelled;
  std::map<std::string, Request> open;
  std::string description;
  std::string version;

  // Ends a request: forgets it and closes both ends (outside the lock: closing may call back).
  void end(const std::string& requestUuid) {
    Request request;
    {
      std::lock_guard lock(mutex);
      auto found = open.find(requestUuid);
      if (found == open.end())
        return;
      request = std::move(found->second);
      open.erase(found);
      changed.notify_all();
    }
    request.context->auxiliaryConnection()->invalidate();
    request.vendorEnd->invalidate();
  }
};

FakeAppExtension::FakeAppExtension(std::string identifier, std::shared_ptr<ScriptedVendor> vendor)
    : FakeAppExtension(std::move(identifier),
                       std::move(vendor),
                       DKExtensionHostContext::contextClass()) {}

FakeAppExtension::FakeAppExtension(std::string identifier,
                                   std::shared_ptr<ScriptedVendor> vendor,
                                   platform::ExtensionContextClass contextClass)
    : identifier_(std::move(identifier)),
      vendor_(vendor ? std::move(vendor) : std::make_shared<ScriptedVendor>()),
      contextClass_(std::move(contextClass)),
      state_(std::make_shared<State>()) {
  state_->description = identifier_ + " (fake)";
}

FakeAppExtension::~FakeAppExtension() {
  closeAllRequests();
}

void FakeAppExtension::closeAllRequests() {
  std::vector<std::string> open;
  {
    std::lock_guard lock(state_->mutex);
    for (const auto& request : state_->open)
      open.push_back(request.first);
  }
  for (const std::string& requestUuid : open)
    state_->end(requestUuid);
}

void FakeAppExtension::scriptBegin(std::vector<BeginOutcome> outcomes) {
  std::lock_guard lock(state_->mutex);
  state_->outcomes = std::move(outcomes);
  state_->outcomesUsed = 0;
}

void FakeAppExtension::setDescription(std::string description) {
  std::lock_guard lock(state_->mutex);
  state_->description = std::move(description);
}

void FakeAppExtension::setVersion(std::string version) {
  std::lock_guard lock(state_->mutex);
  state_->version = std::move(version);
}

std::size_t FakeAppExtension::beginCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->beginCount;
}

std::vector<std::string> FakeAppExtension::begunRequests() const {
  std::lock_guard lock(state_->mutex);
  return state_->begun;
}

std::vector<std::string> FakeAppExtension::cancelledRequests() const {
  std::lock_guard lock(state_->mutex);
  return state_->cancelled;
}

std::size_t FakeAppExtension::openRequestCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->open.size();
}

bool FakeAppExtension::waitForCancelCount(std::size_t count,
                                          std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, timeout, [&] { return state_->cancelled.size() >= count; });
}

bool FakeAppExtension::waitForOpenRequestCount(std::size_t count,
                                               std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, timeout, [&] { return state_->open.size() == count; });
}

std::string FakeAppExtension::description() const {
  std::lock_guard lock(state_->mutex);
  return state_->description;
}

bool FakeAppExtension::isEqual(const platform::AppExtension& other) const {
  const auto* fake = dynamic_cast<const FakeAppExtension*>(&other);
  if (!fake)
    return false;
  if (fake == this)
    return true;
  std::scoped_lock lock(state_->mutex, fake->state_->mutex);
  return identifier_ == fake->identifier_ && state_->version == fake->state_->version;
}

void FakeAppExtension::beginRequest(BeginRequestCompletion completion) {
  BeginOutcome outcome;
  {
    std::lock_guard lock(state_->mutex);
    ++state_->beginCount;
    if (!state_->outcomes.empty()) {
      outcome = state_->outcomes[std::min(state_->outcomesUsed, state_->outcomes.size() - 1)];
      ++state_->outcomesUsed;
    }
  }
  platform::DispatchQueue::global()->async([state = state_, vendor = vendor_,
                                            contextClass = contextClass_, outcome,
                                            completion = std::move(completion)] {
    if (outcome.kind == BeginOutcome::Kind::Fail) {
      completion("", outcome.error);
      return;
    }
    const std::string requestUuid = makeRequestUuid();
    if (outcome.kind == BeginOutcome::Kind::SucceedWithoutContext) {
      {
        std::lock_guard lock(state->mutex);
        state->begun.push_back(requestUuid);
      }
      completion(requestUuid, nullptr);
      return;
    }

    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
      completion("", IpcError(IpcErrorCode::ConnectionInvalid, "socketpair failed"));
      return;
    }
    auto vendorEnd = IpcConnection::adoptSocket(fds[1], "fake extension request " + requestUuid);
    auto daemonEnd = IpcConnection::adoptSocket(fds[0], "request " + requestUuid);
    if (!daemonEnd || !vendorEnd) {
      completion("", daemonEnd ? vendorEnd.error() : daemonEnd.error());
      return;
    }
    (*daemonEnd)->setExportedInterface(contextClass.hostInterface());
    (*daemonEnd)->setExportedObject(std::make_shared<platform::IpcHandlerTable>());
    (*daemonEnd)->setRemoteInterface(contextClass.vendorInterface());
    // A connection that closes by itself ends its request, as with the real machinery.
    (*daemonEnd)->setInvalidationHandler([weakState = std::weak_ptr<State>(state), requestUuid] {
      if (auto state = weakState.lock())
        state->end(requestUuid);
    });
    (*vendorEnd)->setExportedInterface(contextClass.vendorInterface());
    (*vendorEnd)->setExportedObject(vendor->handlerTableFor(*vendorEnd));
    (*vendorEnd)->setRemoteInterface(contextClass.hostInterface());
    {
      std::lock_guard lock(state->mutex);
      state->begun.push_back(requestUuid);
      state->open.emplace(requestUuid,
                          State::Request{std::make_shared<FakeContext>(*daemonEnd), *vendorEnd});
      state->changed.notify_all();
    }
    (*vendorEnd)->resume();
    (*daemonEnd)->resume();
    completion(requestUuid, nullptr);
  });
}

void FakeAppExtension::cancelRequest(const std::string& requestUuid) {
  {
    std::lock_guard lock(state_->mutex);
    state_->cancelled.push_back(requestUuid);
    state_->changed.notify_all();
  }
  state_->end(requestUuid);
}

std::shared_ptr<platform::ExtensionContext> FakeAppExtension::contextForRequest(
    const std::string& requestUuid) {
  std::lock_guard lock(state_->mutex);
  auto found = state_->open.find(requestUuid);
  return found == state_->open.end() ? nullptr : found->second.context;
}

}  // namespace daskel
