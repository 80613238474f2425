// DKDaemon: the client protocol of the named service "com.orvane.Daskel", eight operations.
// Both the daemon (which exports it) and the client library (which calls it) build their
// IpcInterface here, so the two sides cannot disagree about selectors or classes.
//
// Replies, in order of their values (the error stands first in rows 2 to 6 and last in 7 and 8):
//   wakeUpCompletion:                                   ()
//   extendSandboxForFileURL:fromProviderID:toConsumerID:completionHandler:
//                                                       (error, data, URL, data)
//   providePlaceholderForItemAtURL:fromProviderID:forConsumerID:completionHandler:  (error)
//   startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:         (error)
//   stopProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:          (error)
//   providersCompletionHandler:                          (error, dictionary)
//   bookmarkableStringFromDocumentURL:completion:       (string, error)
//   documentURLFromBookmarkableString:completion:       (URL, data, URL, data, error)
//
// The one widening: the dictionary of providersCompletionHandler:'s reply may hold
// dictionaries, strings and URLs at any depth. Every other place allows its declared class.
#pragma once

#include "platform/ipc/IpcInterface.h"

namespace daskel {

inline constexpr char kDKDaemonServiceName[] = "com.orvane.Daskel";

namespace DKDaemonSelector {
inline constexpr char kWakeUp[] = "wakeUpCompletion:";
inline constexpr char kExtendSandbox[] =
    "extendSandboxForFileURL:fromProviderID:toConsumerID:completionHandler:";
inline constexpr char kProvidePlaceholder[] =
    "providePlaceholderForItemAtURL:fromProviderID:forConsumerID:completionHandler:";
inline constexpr char kStartProviding[] =
    "startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:";
inline constexpr char kStopProviding[] =
    "stopProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:";
inline constexpr char kProviders[] = "providersCompletionHandler:";
inline constexpr char kBookmarkableString[] = "bookmarkableStringFromDocumentURL:completion:";
inline constexpr char kDocumentURL[] = "documentURLFromBookmarkableString:completion:";
}  // namespace DKDaemonSelector

// The interface built from the protocol, with the providers reply widened.
platform::IpcInterface DKDaemonInterface();

}  // namespace daskel
