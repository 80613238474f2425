// DKExtensionProvider's forwarded item operations and the file coordinator's callbacks, the
// half of the class that speaks DKVendorProtocol once a request has its proxy.
//
// Each operation is one request: the request block either fails (the request could not
// begin, had no proxy, or its connection broke after the message went out) or sends one
// vendor message whose reply ends the request through the done block. On the failure path
// only itemChangedAtURL ends the request itself; the others leave it to the extension
// machinery, which ends a request when its connection closes.
#include <memory>
#include <utility>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/errors/DKErrors.h"
#include "platform/log/Log.h"
#include "provider/DKExtensionProvider.h"
#include "provider/protocol/DKVendorProtocol.h"

namespace daskel {

using platform::DispatchQueue;
using platform::ErrorPtr;
using platform::IpcRemoteProxy;
using platform::Url;
using platform::Value;

namespace {

// Reply values by position; the IPC layer has checked their classes, but a value may be nil.
ErrorPtr errorAt(const Value::Array& reply, std::size_t index) {
  return index < reply.size() ? reply[index].error() : nullptr;
}

Value valueAt(const Value::Array& reply, std::size_t index) {
  return index < reply.size() ? reply[index] : Value();
}

// A completion held once and shared by the blocks that may call it. The request block is
// copied (into the proxy's error handler) and may run twice, and a copied completion copied
// everything it had captured: a request's worth of strings and nested blocks, several times.
template <typename Completion>
std::shared_ptr<const Completion> share(Completion completion) {
  return std::make_shared<const Completion>(std::move(completion));
}

}  // namespace

void DKExtensionProvider::providePlaceholderForItemAtURL(const Url& url,
                                                         ErrorCompletion completion) {
  DKLogDebug("%s", "-[DKExtensionProvider providePlaceholderForItemAtURL:completionHandler:]");
  auto self = shared_from_this();
  performExtensionRequest([self, url, completion = share(std::move(completion))](
                              const ErrorPtr& error, const std::shared_ptr<IpcRemoteProxy>& proxy,
                              const DoneBlock& done) {
    if (error) {
      DKLogError("Cannot provide placeholder for item at URL %@ for extension %@. Error: %@", url,
                 self->identifier(), error);
      if (*completion)
        (*completion)(DKPluginOperationFailedError(error));
      return;
    }
    proxy->call(DKVendorSelector::kProvidePlaceholder, {Value(url)},
                [self, url, completion, done](Value::Array reply) {
                  // (URL, error): the extension's URL is not used.
                  if (ErrorPtr replyError = errorAt(reply, 1)) {
                    DKLogError(
                        "Proxy failed to provide placeholder at URL %@ for extension %@. Error: %@",
                        url, self->identifier(), replyError);
                    if (*completion)
                      (*completion)(DKPluginOperationFailedError(replyError));
                  } else {
                    DKLogDebug("Successfully provided placeholder at URL %@ for extension %@.", url,
                               self->identifier());
                    if (*completion)
                      (*completion)(nullptr);
                  }
                  if (done)
                    done();
                });
  });
}

void DKExtensionProvider::startProvidingItemAtURL(const Url& url, ErrorCompletion completion) {
  DKLogDebug("%s", "-[DKExtensionProvider startProvidingItemAtURL:completionHandler:]");
  auto self = shared_from_this();
  performExtensionRequest([self, url, completion = share(std::move(completion))](
                              const ErrorPtr& error, const std::shared_ptr<IpcRemoteProxy>& proxy,
                              const DoneBlock& done) {
    if (error) {
      DKLogError("Cannot provide item at URL %@ for extension %@. Error: %@", url,
                 self->identifier(), error);
      if (*completion)
        (*completion)(DKPluginOperationFailedError(error));
      return;
    }
    proxy->call(
        DKVendorSelector::kStartProviding, {Value(url)},
        [self, url, completion, done](Value::Array reply) {
          if (ErrorPtr replyError = errorAt(reply, 0)) {
            DKLogError("Proxy failed to start providing item at URL %@ for extension %@. Error: %@",
                       url, self->identifier(), replyError);
            if (*completion)
              (*completion)(DKPluginOperationFailedError(replyError));
          } else {
            DKLogDebug("Successfully provided item at URL %@ for extension %@.", url,
                       self->identifier());
            if (*completion)
              (*completion)(nullptr);
          }
          if (done)
            done();
        });
  });
}

void DKExtensionProvider::stopProvidingItemAtURL(const Url& url, ErrorCompletion completion) {
  DKLogDebug("%s", "-[DKExtensionProvider stopProvidingItemAtURL:completionHandler:]");
  auto self = shared_from_this();
  performExtensionRequest([self, url, completion = share(std::move(completion))](
                              const ErrorPtr& error, const std::shared_ptr<IpcRemoteProxy>& proxy,
                              const DoneBlock& done) {
    if (error) {
      DKLogError("Cannot stop providing item at URL %@ for extension %@. Error: %@", url,
                 self->identifier(), error);
      if (*completion)
        (*completion)(DKPluginOperationFailedError(error));
      return;
    }
    proxy->call(DKVendorSelector::kStopProviding, {Value(url)},
                [self, url, completion, done](Value::Array reply) {
                  if (ErrorPtr replyError = errorAt(reply, 0)) {
                    DKLogError(
                        "Proxy failed to stop providing item at URL %@ for extension %@. Error: %@",
                        url, self->identifier(), replyError);
                    if (*completion)
                      (*completion)(DKPluginOperationFailedError(replyError));
                  } else {
                    DKLogDebug("Successfully stopped providing item at URL %@ for extension %@.",
                               url, self->identifier());
                    if (*completion)
                      (*completion)(nullptr);
                  }
                  if (done)
                    done();
                });
  });
}

void DKExtensionProvider::itemIDForURL(const Url& url, ItemIDCompletion completion) {
  DKLogDebug("%s", "-[DKExtensionProvider itemIDForURL:completionHandler:]");
  auto self = shared_from_this();
  performExtensionRequest([self, url, completion = share(std::move(completion))](
                              const ErrorPtr& error, const std::shared_ptr<IpcRemoteProxy>& proxy,
                              const DoneBlock& done) {
    if (error) {
      DKLogError("Cannot get item ID for URL %@ for extension %@. Error: %@", url,
                 self->identifier(), error);
      if (*completion)
        (*completion)(DKPluginOperationFailedError(error), Value());
      return;
    }
    proxy->call(DKVendorSelector::kIdentifierForItem, {Value(url)},
                [self, url, completion, done](Value::Array reply) {
                  // (error, item identifier), passed on as the extension sent it.
                  if (ErrorPtr replyError = errorAt(reply, 0)) {
                    DKLogError("Proxy failed to get item ID for URL %@ for extension %@. Error: %@",
                               url, self->identifier(), replyError);
                    if (*completion)
                      (*completion)(DKPluginOperationFailedError(replyError), Value());
                  } else {
                    const Value itemID = valueAt(reply, 1);
                    DKLogDebug("Successfully got item ID %@ for URL %@ from extension %@", itemID,
                               url, self->identifier());
                    if (*completion)
                      (*completion)(nullptr, itemID);
                  }
                  if (done)
                    done();
                });
  });
}

void DKExtensionProvider::URLForItemID(const std::string& itemID, URLCompletion completion) {
  DKLogDebug("%s", "-[DKExtensionProvider URLForItemID:completionHandler:]");
  auto self = shared_from_this();
  performExtensionRequest([self, itemID, completion = share(std::move(completion))](
                              const ErrorPtr& error, const std::shared_ptr<IpcRemoteProxy>& proxy,
                              const DoneBlock& done) {
    if (error) {
      DKLogError("Cannot get URL for item ID %@ for extension %@. Error: %@", itemID,
                 self->identifier(), error);
      if (*completion)
        (*completion)(DKPluginOperationFailedError(error), Value());
      return;
    }
    proxy->call(DKVendorSelector::kURLForItemIdentifier, {Value(itemID)},
                [self, itemID, completion, done](Value::Array reply) {
                  // (error, URL), passed on as the extension sent it.
                  if (ErrorPtr replyError = errorAt(reply, 0)) {
                    DKLogError("Proxy failed to get URL for item ID %@ for extension %@. Error: %@",
                               itemID, self->identifier(), replyError);
                    if (*completion)
                      (*completion)(DKPluginOperationFailedError(replyError), Value());
                  } else {
                    const Value url = valueAt(reply, 1);
                    DKLogDebug("Successfully retrieved URL %@ for item ID %@ from extension %@",
                               url, itemID, self->identifier());
                    if (*completion)
                      (*completion)(nullptr, url);
                  }
                  if (done)
                    done();
                });
  });
}

void DKExtensionProvider::itemChangedAtURL(const Url& url) {
  DKLogDebug("%s", "-[DKExtensionProvider itemChangedAtURL:]");
  auto self = shared_from_this();
  performExtensionRequest([self, url](const ErrorPtr& error,
                                      const std::shared_ptr<IpcRemoteProxy>& proxy,
                                      const DoneBlock& done) {
    if (error) {
      // Nobody waits for this one, so the request is ended here too.
      DKLogError("Cannot tell extension %@ that item at URL %@ has changed.", self->identifier(),
                 url);
      if (done)
        done();
      return;
    }
    proxy->call(
        DKVendorSelector::kItemChanged, {Value(url)}, [self, url, done](Value::Array reply) {
          if (ErrorPtr replyError = errorAt(reply, 0)) {
            DKLogError("Could not tell extension %@ that item at URL %@ has changed. Error: %@",
                       self->identifier(), url, replyError);
          }
          if (done)
            done();
        });
  });
}

// Coordination callbacks.

void DKExtensionProvider::_provideItemAtURL(const Url& url,
                                            const Value& readerID,
                                            Completion completion) {
  DKLogInfo("OxFileCoordinator requested us to provide item at URL %@ for consumer %@", url,
            readerID);
  auto self = shared_from_this();
  // The look-up is only a gate: an item the extension cannot name is not started.
  itemIDForURL(url, [self, url, readerID, completion](const ErrorPtr& error, const Value&) {
    if (error) {
      DKLogError("Could not provide item at URL %@ from extension %@ to reader %@. Error: %@", url,
                 self->identifier(), readerID, error);
      if (completion)
        completion(error);
      return;
    }
    DispatchQueue::global()->async(
        [self, url, completion] { self->startProvidingItemAtURL(url, completion); });
  });
}

void DKExtensionProvider::_provideItemAtURL(const Url& url, Completion completion) {
  DKLogError("Calling deprecated method: %@", std::string("_provideItemAtURL:completionHandler:"));
  _provideItemAtURL(url, Value(), std::move(completion));
}

void DKExtensionProvider::_writerWithID(const Value& writerID, const Url& url) {
  DKLogInfo("OxFileCoordinator is telling us the item at URL %@ was changed by writer ID %@.", url,
            writerID);
  bool excluded = false;
  std::shared_ptr<DKExtensionProvider> owner =
      platform_.providerLookup ? platform_.providerLookup->providerForURL(url, &excluded) : nullptr;
  if (owner) {
    DKLogDebug("The item at URL %@ is provided by the etxension %@", url, owner->identifier());
    owner->itemChangedAtURL(url);
  } else if (!excluded) {
    DKLogError("Could not find any extension that provides an item at URL %@", url);
  }
}

}  // namespace daskel
