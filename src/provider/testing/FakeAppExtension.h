// FakeAppExtension: an AppExtension for tests whose requests are served in-process. Each
// begun request gets a real IpcConnection pair over a socketpair: the daemon end (the
// request context's auxiliary connection, exporting the host interface, its remote interface
// the vendor interface) and the vendor end, which exports a ScriptedVendor's handler table.
//
// How beginRequest() turns out is scripted (a list of outcomes used by the next begins in
// order, the last one staying): succeed, fail with a given error, or succeed without a
// context (a UUID that contextForRequest() does not know). The default is to succeed.
//
// How it differs from the real one: no process is started and there is no control channel;
// the begin completion runs on the global dispatch queue rather than on the supervisor's
// thread; description() and isEqual() are whatever the test set. As with the real one,
// cancelRequest() and a connection that closes by itself end a request (its context goes),
// and every request connection still open is closed when the fake is destroyed.
//
// Records: the number of begins, the UUIDs of the requests begun successfully, and every
// cancelRequest() UUID in call order (known or not).
//
// Ownership: shared. The request state is shared with the blocks in flight.
// THREADING NOTES: every member may be called from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "platform/extensions/AppExtension.h"
#include "platform/value/Error.h"
#include "provider/testing/ScriptedVendor.h"

namespace daskel {

class FakeAppExtension final : public platform::AppExtension {
 public:
  struct BeginOutcome {
    enum class Kind { Succeed, Fail, SucceedWithoutContext };
    Kind kind = Kind::Succeed;
    platform::ErrorPtr error;  // Fail only

    static BeginOutcome succeed() { return {Kind::Succeed, nullptr}; }
    static BeginOutcome fail(platform::ErrorPtr error) { return {Kind::Fail, std::move(error)}; }
    static BeginOutcome withoutContext() { return {Kind::SucceedWithoutContext, nullptr}; }
  };

  // `contextClass` decides the interfaces of the request connections; the default is
  // DKExtensionHostContext's.
  explicit FakeAppExtension(std::string identifier,
                            std::shared_ptr<ScriptedVendor> vendor = nullptr);
  FakeAppExtension(std::string identifier,
                   std::shared_ptr<ScriptedVendor> vendor,
                   platform::ExtensionContextClass contextClass);
  ~FakeAppExtension() override;
  FakeAppExtension(const FakeAppExtension&) = delete;
  FakeAppExtension& operator=(const FakeAppExtension&) = delete;

  const std::shared_ptr<ScriptedVendor>& vendor() const { return vendor_; }

  void scriptBegin(std::vector<BeginOutcome> outcomes);
  // "<identifier> (fake)" unless set.
  void setDescription(std::string description);
  // isEqual() holds for fakes with the same identifier and version.
  void setVersion(std::string version);

  std::size_t beginCount() const;
  std::vector<std::string> begunRequests() const;
  std::vector<std::string> cancelledRequests() const;
  // Requests begun with a context and not ended yet.
  std::size_t openRequestCount() const;
  bool waitForCancelCount(std::size_t count, std::chrono::milliseconds timeout) const;
  bool waitForOpenRequestCount(std::size_t count, std::chrono::milliseconds timeout) const;

  // Ends every open request as if its connection had closed by itself. Tests call it before
  // they finish: a request nobody answers keeps its reply handler, and with it whatever that
  // captured (a provider, and through it this fake), alive until its connection closes.
  void closeAllRequests();

  // AppExtension.
  std::string identifier() const override { return identifier_; }
  std::string description() const override;
  bool isEqual(const platform::AppExtension& other) const override;
  void beginRequest(BeginRequestCompletion completion) override;
  void cancelRequest(const std::string& requestUuid) override;
  std::shared_ptr<platform::ExtensionContext> contextForRequest(
      const std::string& requestUuid) override;

 private:
  struct State;

  const std::string identifier_;
  const std::shared_ptr<ScriptedVendor> vendor_;
  const platform::ExtensionContextClass contextClass_;
  const std::shared_ptr<State> state_;
};

}  // namespace daskel
