#include "daemon/protocol/DKDaemon.h"

#include <cassert>

namespace daskel {

using platform::ClassSet;
using platform::IpcInterface;
using Type = platform::Value::Type;

IpcInterface DKDaemonInterface() {
  namespace S = DKDaemonSelector;
  const ClassSet url = Type::Url;
  const ClassSet string = Type::String;
  const ClassSet data = Type::Data;
  const ClassSet error = Type::Error;
  IpcInterface interface =
      IpcInterface::Builder("DKDaemon")
          .operation(S::kWakeUp, {}, {})
          .operation(S::kExtendSandbox, {url, string, string}, {error, data, url, data})
          .operation(S::kProvidePlaceholder, {url, string, string}, {error})
          .operation(S::kStartProviding, {url, string, string}, {error})
          .operation(S::kStopProviding, {url, string, string}, {error})
          .operation(S::kProviders, {}, {error, Type::Dictionary})
          .operation(S::kBookmarkableString, {url}, {string, error})
          .operation(S::kDocumentURL, {string}, {url, data, url, data, error})
          .build();
  // Provider info records: dictionaries of strings and URLs, inside the reply's dictionary.
  auto widened = interface.setClasses(Type::Dictionary | Type::String | ClassSet(Type::Url),
                                      S::kProviders, 1, /*isReply=*/true);
  assert(widened.has_value() && "the providers reply has a value at index 1");
  (void)widened;
  return interface;
}

}  // namespace daskel
