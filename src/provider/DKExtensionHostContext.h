// DKExtensionHostContext: the host side's description of the per-request connection to a
// provider extension. The extension machinery asks it what the daemon exports on a request's
// auxiliary connection (DKHostProtocol, which has no operations: the extension can send the
// daemon nothing) and what the extension vends there (DKVendorProtocol).
//
// It holds no state and is never instantiated: its two class functions return one
// process-wide interface each, built once on first use, and contextClass() packs them as the
// ExtensionContextClass that the extension machinery of the provider extension point uses.
//
// THREADING NOTES: every function may be called from any thread; the interfaces returned are
// immutable.
#pragma once

#include "platform/extensions/AppExtension.h"
#include "platform/ipc/IpcInterface.h"

namespace daskel {

class DKExtensionHostContext {
 public:
  DKExtensionHostContext() = delete;

  // What the daemon exports on a request's connection: DKHostProtocol. The same object on
  // every call.
  static const platform::IpcInterface& _extensionAuxiliaryHostProtocol();
  // What the extension vends on a request's connection: DKVendorProtocol. The same object on
  // every call.
  static const platform::IpcInterface& _extensionAuxiliaryVendorProtocol();

  // The two functions above, for the extension machinery.
  static platform::ExtensionContextClass contextClass();
};

}  // namespace daskel
