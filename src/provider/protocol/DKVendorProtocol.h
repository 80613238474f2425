// DKVendorProtocol and DKHostProtocol: the protocol between the daemon and a provider
// extension, spoken on the connection of each extension request.
//
// DKVendorProtocol is what the extension vends and the daemon calls; every operation replies
// through its last argument, a reply block with these values, in this order:
//   _performInitialSetupWithCompletion:          ()            -> (string, URL, error)
//   _providePlaceholderAtURL:completion:         (URL)         -> (URL, error)
//   _startProvidingItemAtURL:completion:         (URL)         -> (error)
//   _itemChangedAtURL:completion:                (URL)         -> (error)
//   _stopProvidingItemAtURL:completion:          (URL)         -> (error)
//   _identifierForItemAtURL:completion:          (URL)         -> (error, string)
//   _URLForItemIdentifier:completion:            (string)      -> (error, URL)
// Note the differing orders: the placeholder reply puts its error last, the two look-ups
// first. DKHostProtocol, what the daemon exports to the extension, has no operations.
//
// Both the daemon and the provider SDK build their interfaces here, so the two sides cannot
// disagree about selectors or classes. The functions return one process-wide object each,
// built on first use.
//
// THREADING NOTES: the returned interfaces are immutable; use them from any thread.
#pragma once

#include "platform/ipc/IpcInterface.h"

namespace daskel {

namespace DKVendorSelector {
inline constexpr char kPerformInitialSetup[] = "_performInitialSetupWithCompletion:";
inline constexpr char kProvidePlaceholder[] = "_providePlaceholderAtURL:completion:";
inline constexpr char kStartProviding[] = "_startProvidingItemAtURL:completion:";
inline constexpr char kItemChanged[] = "_itemChangedAtURL:completion:";
inline constexpr char kStopProviding[] = "_stopProvidingItemAtURL:completion:";
inline constexpr char kIdentifierForItem[] = "_identifierForItemAtURL:completion:";
inline constexpr char kURLForItemIdentifier[] = "_URLForItemIdentifier:completion:";
}  // namespace DKVendorSelector

const platform::IpcInterface& DKVendorProtocolInterface();
const platform::IpcInterface& DKHostProtocolInterface();

}  // namespace daskel
