#include "provider/DKExtensionHostContext.h"

#include "provider/protocol/DKVendorProtocol.h"

namespace daskel {

// The protocol functions build their interfaces once, under the once-guard of a function-local
// static, and hand out that one object ever after.

const platform::IpcInterface& DKExtensionHostContext::_extensionAuxiliaryHostProtocol() {
  return DKHostProtocolInterface();
}

const platform::IpcInterface& DKExtensionHostContext::_extensionAuxiliaryVendorProtocol() {
  return DKVendorProtocolInterface();
}

platform::ExtensionContextClass DKExtensionHostContext::contextClass() {
  return platform::ExtensionContextClass{
      .hostInterface = &DKExtensionHostContext::_extensionAuxiliaryHostProtocol,
      .vendorInterface = &DKExtensionHostContext::_extensionAuxiliaryVendorProtocol,
  };
}

}  // namespace daskel
