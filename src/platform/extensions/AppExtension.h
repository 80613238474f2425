// AppExtension: one discovered provider extension as the daemon's components see it, and the
// door to its process: extension requests begin, are looked up and end here.
//
// A request is one conversation with the extension. beginRequest() starts the extension's
// process if none runs for the bundle (and waits for its ready handshake), opens a fresh
// connection for the request and reports the request's UUID. contextForRequest(uuid) gives
// the request's ExtensionContext, whose auxiliary connection carries the vendor protocol;
// cancelRequest(uuid) ends the request and closes that connection. A request whose connection
// closes by itself (the extension closed it, crashed or was killed) ends with it, so requests
// nobody cancels do not pile up.
//
// Ownership: shared (std::shared_ptr); providers keep the AppExtension they were made from.
// THREADING NOTES: every member may be called from any thread, at the same time.
// Failure: beginRequest() reports, through its completion, an error that says why no request
// could begin (the executable cannot be started, the extension exited or closed its control
// socket before it was ready). Everything after that reaches the caller through the request's
// connection (its proxies' error handlers).
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/ipc/IpcInterface.h"
#include "platform/value/Value.h"

namespace daskel::platform {

class IpcConnection;
class PluginRecord;

// The context of one request: the connection to the extension process that carries it.
class ExtensionContext {
 public:
  virtual ~ExtensionContext() = default;
  // The request's connection: exports the host interface, its remote interface is the vendor
  // interface. Resumed already.
  virtual std::shared_ptr<IpcConnection> auxiliaryConnection() const = 0;
};

// How the per-request connections of an extension point are set up: what the host exports to
// the extension and what the extension vends to the host.
struct ExtensionContextClass {
  std::function<const IpcInterface&()> hostInterface;
  std::function<const IpcInterface&()> vendorInterface;
};

class AppExtension {
 public:
  // (request UUID, error): the UUID is empty exactly when the error is set.
  using BeginRequestCompletion =
      std::function<void(const std::string& requestUuid, const ErrorPtr& error)>;

  virtual ~AppExtension() = default;

  // The extension's bundle identifier; empty when it has none.
  virtual std::string identifier() const = 0;
  // What "%@" prints for the extension in a log line.
  virtual std::string description() const = 0;
  // Equal only for the same identifier, version, Info.plist content and executable, so an
  // updated extension compares unequal (see PluginRecord).
  virtual bool isEqual(const AppExtension& other) const = 0;

  // Begins a request with no input items. The completion runs once, on a thread of the
  // extension machinery.
  virtual void beginRequest(BeginRequestCompletion completion) = 0;
  // Ends the request `requestUuid`: tells the extension and closes the request's connection.
  // Unknown or already ended requests are ignored.
  virtual void cancelRequest(const std::string& requestUuid) = 0;
  // The context of an open request, or null when there is none for `requestUuid`.
  virtual std::shared_ptr<ExtensionContext> contextForRequest(const std::string& requestUuid) = 0;
};

// The platform's extension machinery for one extension point: continuous matching, and the
// plug-in registry's records of what it matched.
class AppExtensionMatching {
 public:
  // The full list of matching extensions, in the order the platform lists them; error is
  // set (and the list may be empty) when matching met a problem.
  using Handler = std::function<void(std::vector<std::shared_ptr<AppExtension>> extensions,
                                     const ErrorPtr& error)>;

  virtual ~AppExtensionMatching() = default;

  // Starts continuous matching of `extensionPointIdentifier`: `handler` receives the full
  // list at start and again after every change, for the life of this object. Extensions
  // whose record did not change are reported as the same AppExtension objects, so their
  // running processes are kept. Returns an error when matching cannot start.
  virtual ErrorPtr beginMatching(const std::string& extensionPointIdentifier, Handler handler) = 0;

  // The plug-in record of the extension `identifier` as last matched, or null.
  virtual std::shared_ptr<const PluginRecord> recordForIdentifier(
      const std::string& identifier) const = 0;
};

}  // namespace daskel::platform
