#include "provider/protocol/DKVendorProtocol.h"

namespace daskel {

using platform::IpcInterface;
using Type = platform::Value::Type;

const IpcInterface& DKVendorProtocolInterface() {
  namespace S = DKVendorSelector;
  static const IpcInterface interface =
      IpcInterface::Builder("DKVendorProtocol")
          .operation(S::kPerformInitialSetup, {}, {Type::String, Type::Url, Type::Error})
          .operation(S::kProvidePlaceholder, {Type::Url}, {Type::Url, Type::Error})
          .operation(S::kStartProviding, {Type::Url}, {Type::Error})
          .operation(S::kItemChanged, {Type::Url}, {Type::Error})
          .operation(S::kStopProviding, {Type::Url}, {Type::Error})
          .operation(S::kIdentifierForItem, {Type::Url}, {Type::Error, Type::String})
          .operation(S::kURLForItemIdentifier, {Type::String}, {Type::Error, Type::Url})
          .build();
  return interface;
}

const IpcInterface& DKHostProtocolInterface() {
  static const IpcInterface interface = IpcInterface::Builder("DKHostProtocol").build();
  return interface;
}

}  // namespace daskel
