#include "service/DKIpcServicer.h"

#include <utility>

#include "access_control/DKAccessControlStore.h"
#include "daemon/protocol/DKDaemon.h"
#include "platform/errors/DKErrors.h"
#include "platform/log/Log.h"
#include "provider/DKExtensionProvider.h"
#include "service/DKSandboxTokens.h"

namespace daskel {

using platform::ErrorPtr;
using platform::ReplyBlock;
using platform::Url;
using platform::Value;
namespace Selector = DKDaemonSelector;

namespace {

const std::vector<std::string>& readOrWriteEntitlements() {
  static const std::vector<std::string> keys{kDKReadEntitlement, kDKWriteEntitlement};
  return keys;
}

const std::vector<std::string>& writeEntitlement() {
  static const std::vector<std::string> keys{kDKWriteEntitlement};
  return keys;
}

// The first missing argument, in the order URL, provider, consumer.
ErrorPtr checkItemArguments(const std::optional<Url>& url,
                            const std::optional<std::string>& providerID,
                            const std::optional<std::string>& consumerID) {
  if (!url) {
    return DKInvalidParameterError("URL");
  }
  if (!providerID) {
    return DKInvalidParameterError("providerID");
  }
  if (!consumerID) {
    return DKInvalidParameterError("consumerID");
  }
  return nullptr;
}

std::optional<std::string_view> optionalView(const Value& value) {
  if (const std::string* s = value.string()) {
    return std::string_view(*s);
  }
  return std::nullopt;
}

std::optional<Url> urlArgument(const Value::Array& arguments, std::size_t index) {
  if (index < arguments.size()) {
    if (const Url* url = arguments[index].url()) {
      return *url;
    }
  }
  return std::nullopt;
}

std::optional<std::string> stringArgument(const Value::Array& arguments, std::size_t index) {
  if (index < arguments.size()) {
    if (const std::string* s = arguments[index].string()) {
      return *s;
    }
  }
  return std::nullopt;
}

template <typename T>
Value optionalValue(const std::optional<T>& value) {
  return value ? Value(*value) : Value();
}

}  // namespace

std::shared_ptr<DKIpcServicer> DKIpcServicer::create(
    std::shared_ptr<const DKServicerContext> context) {
  return std::shared_ptr<DKIpcServicer>(new DKIpcServicer(std::move(context)));
}

DKIpcServicer::DKIpcServicer(std::shared_ptr<const DKServicerContext> context)
    : context_(std::move(context)) {}

std::shared_ptr<DKServicerServer> DKIpcServicer::server() const {
  std::lock_guard lock(mutex_);
  return server_.lock();
}

void DKIpcServicer::setServer(std::weak_ptr<DKServicerServer> server) {
  std::lock_guard lock(mutex_);
  server_ = std::move(server);
}

std::shared_ptr<platform::IpcConnection> DKIpcServicer::connection() const {
  std::lock_guard lock(mutex_);
  return connection_.lock();
}

void DKIpcServicer::setConnection(std::weak_ptr<platform::IpcConnection> connection) {
  std::lock_guard lock(mutex_);
  connection_ = std::move(connection);
}

bool DKIpcServicer::clientHasOneOfAllowedEntitlements(
    const std::vector<std::string>& entitlements) const {
  for (const std::string& key : entitlements) {
    // A fresh read for every key: the connection may go away between two of them.
    const auto connection = this->connection();
    if (connection && connection->valueForEntitlement(key).isTrueNumber()) {
      return true;
    }
  }
  if (platform::logIsEnabled(platform::kLogError)) {
    const auto connection = this->connection();
    const std::int32_t pid = connection ? connection->processIdentifier() : 0;
    const Value keys(Value::Array(entitlements.begin(), entitlements.end()));
    DKLogError(
        "Rejecting request from PID %d because it does not have any of these "
        "entitlements: %@",
        pid, keys);
  }
  return false;
}

bool DKIpcServicer::passesGate(const char* selector,
                               const std::vector<std::string>& entitlements,
                               std::function<void()> refuse) {
  DKLogDebug("Serving: %@", std::string_view(selector));
  if (clientHasOneOfAllowedEntitlements(entitlements)) {
    return true;
  }
  if (refuse) {
    replyAsync(std::move(refuse));
  }
  return false;
}

void DKIpcServicer::replyAsync(std::function<void()> block) const {
  context_->replyQueue->async(std::move(block));
}

std::shared_ptr<DKAccessControlStore> DKIpcServicer::serverAccessControlStore() const {
  const auto server = this->server();
  return server ? server->accessControlStore() : nullptr;
}

void DKIpcServicer::wakeUpCompletion(WakeUpHandler reply) {
  DKLogDebug("Serving: %@", std::string_view(Selector::kWakeUp));
  if (reply) {
    replyAsync(std::move(reply));
  }
}

void DKIpcServicer::extendSandboxForFileURL(const std::optional<Url>& url,
                                            const std::optional<std::string>& providerID,
                                            const std::optional<std::string>& consumerID,
                                            ExtendSandboxHandler completionHandler) {
  const auto& handler = completionHandler;
  if (!passesGate(Selector::kExtendSandbox, writeEntitlement(),
                  handler ? std::function<void()>([handler] {
                    handler(DKClientLacksEntitlement(std::nullopt), std::nullopt, std::nullopt,
                            std::nullopt);
                  })
                          : nullptr)) {
    return;
  }

  ErrorPtr error = checkItemArguments(url, providerID, consumerID);
  std::shared_ptr<DKExtensionProvider> provider;
  if (!error) {
    provider = context_->registry->providerWithIdentifier(*providerID);
    if (!provider) {
      error = DKNotFoundError(providerID);
    }
  }
  if (error) {
    if (handler) {
      replyAsync([handler, error] { handler(error, std::nullopt, std::nullopt, std::nullopt); });
    }
    return;
  }

  provider->itemIDForURL(
      *url, [self = shared_from_this(), url = *url, providerID = *providerID,
             consumerID = *consumerID, handler](const ErrorPtr& error, const Value& itemID) {
        if (error) {
          if (handler) {
            handler(DKPluginOperationFailedError(error), std::nullopt, std::nullopt, std::nullopt);
          }
          return;
        }
        const std::string* item = itemID.string();
        if (item == nullptr) {
          // No error and no identifier: nothing could be recorded for the consumer, so no
          // access is extended either.
          DKLogError("Provider %@ gave no item identifier for %@; no sandbox access extended",
                     std::string_view(providerID), url);
          if (handler) {
            handler(DKSandboxExtensionFailedError(url), std::nullopt, std::nullopt, std::nullopt);
          }
          return;
        }
        // The grant is recorded before, and whatever becomes of, the tokens.
        if (const auto store = self->serverAccessControlStore()) {
          store->allowProviderWithIdentifier(providerID, *item, consumerID);
        }
        std::optional<Data> token;
        std::optional<Url> placeholderURL;
        std::optional<Data> placeholderToken;
        if (DKIssueSandboxTokensForURL(self->context_->tokenIssuer.get(), url, &token,
                                       &placeholderURL, &placeholderToken)) {
          if (handler) {
            handler(nullptr, token, placeholderURL, placeholderToken);
          }
        } else if (handler) {
          handler(DKSandboxExtensionFailedError(url), std::nullopt, std::nullopt, std::nullopt);
        }
      });
}

void DKIpcServicer::providePlaceholderForItemAtURL(const std::optional<Url>& url,
                                                   const std::optional<std::string>& providerID,
                                                   const std::optional<std::string>& consumerID,
                                                   ErrorHandler completionHandler) {
  const auto& handler = completionHandler;
  if (!passesGate(Selector::kProvidePlaceholder, readOrWriteEntitlements(),
                  handler ? std::function<void()>(
                                [handler] { handler(DKClientLacksEntitlement(std::nullopt)); })
                          : nullptr)) {
    return;
  }

  // The placeholder request finds its provider by identifier alone and, unlike start and
  // stop, tells the client which argument was wrong.
  ErrorPtr error = checkItemArguments(url, providerID, consumerID);
  std::shared_ptr<DKExtensionProvider> provider;
  if (!error) {
    provider = context_->registry->providerWithIdentifier(*providerID);
    if (!provider) {
      error = DKNotFoundError(providerID);
    }
  }
  if (error) {
    if (handler) {
      replyAsync([handler, error] { handler(error); });
    }
    return;
  }

  forwardIfGranted(provider, *url, *providerID, *consumerID, handler,
                   [](DKExtensionProvider& provider, const Url& url, const ErrorHandler& handler) {
                     provider.providePlaceholderForItemAtURL(url, handler);
                   });
}

void DKIpcServicer::forwardIfGranted(const std::shared_ptr<DKExtensionProvider>& provider,
                                     const Url& url,
                                     const std::string& providerID,
                                     const std::string& consumerID,
                                     ErrorHandler handler,
                                     Forward forward) {
  provider->itemIDForURL(url, [self = shared_from_this(), provider, url, providerID, consumerID,
                               handler = std::move(handler), forward = std::move(forward)](
                                  const ErrorPtr& error, const Value& itemID) {
    if (error) {
      // The provider's error already says the plug-in operation failed; clients see it
      // wrapped twice.
      if (handler) {
        handler(DKPluginOperationFailedError(error));
      }
      return;
    }
    const auto store = self->serverAccessControlStore();
    if (store && store->isProviderWithIdentifier(providerID, optionalView(itemID), consumerID)) {
      forward(*provider, url, handler);
    } else if (handler) {
      handler(DKNotPermittedError());
    }
  });
}

std::shared_ptr<DKExtensionProvider> DKIpcServicer::namedProviderHoldingURL(
    const std::optional<Url>& url,
    const std::optional<std::string>& providerID,
    const std::optional<std::string>& consumerID) const {
  if (checkItemArguments(url, providerID, consumerID)) {
    return nullptr;
  }
  auto provider = context_->registry->providerForURL(*url);
  if (!provider || provider->identifier() != *providerID) {
    return nullptr;
  }
  return provider;
}

void DKIpcServicer::startProvidingItemAtURL(const std::optional<Url>& url,
                                            const std::optional<std::string>& providerID,
                                            const std::optional<std::string>& consumerID,
                                            ErrorHandler completionHandler) {
  const auto& handler = completionHandler;
  if (!passesGate(Selector::kStartProviding, readOrWriteEntitlements(),
                  handler ? std::function<void()>(
                                [handler] { handler(DKClientLacksEntitlement(std::nullopt)); })
                          : nullptr)) {
    return;
  }

  // Every refusal after the gate (missing argument, no provider holds the URL, another
  // provider holds it) reaches the client as not-found with the provider identifier it named.
  const auto provider = namedProviderHoldingURL(url, providerID, consumerID);
  if (!provider) {
    if (handler) {
      replyAsync([handler, providerID] { handler(DKNotFoundError(providerID)); });
    }
    return;
  }
  forwardIfGranted(provider, *url, *providerID, *consumerID, handler,
                   [](DKExtensionProvider& provider, const Url& url, const ErrorHandler& handler) {
                     provider.startProvidingItemAtURL(url, handler);
                   });
}

void DKIpcServicer::stopProvidingItemAtURL(const std::optional<Url>& url,
                                           const std::optional<std::string>& providerID,
                                           const std::optional<std::string>& consumerID,
                                           ErrorHandler completionHandler) {
  const auto& handler = completionHandler;
  if (!passesGate(Selector::kStopProviding, readOrWriteEntitlements(),
                  handler ? std::function<void()>(
                                [handler] { handler(DKClientLacksEntitlement(std::nullopt)); })
                          : nullptr)) {
    return;
  }

  // The consumer is only required to be present: stopping consults no grant. Refusals are
  // masked as for start providing.
  const auto provider = namedProviderHoldingURL(url, providerID, consumerID);
  if (!provider) {
    if (handler) {
      replyAsync([handler, providerID] { handler(DKNotFoundError(providerID)); });
    }
    return;
  }

  // The constructor yields no error for a successful stop, and wraps a failure a second time.
  provider->stopProvidingItemAtURL(*url, [handler](const ErrorPtr& error) {
    if (handler) {
      handler(DKPluginOperationFailedError(error));
    }
  });
}

void DKIpcServicer::providersCompletionHandler(ProvidersHandler completionHandler) {
  const auto& handler = completionHandler;
  if (!passesGate(Selector::kProviders, readOrWriteEntitlements(),
                  handler ? std::function<void()>([handler] {
                    handler(DKClientLacksEntitlement(std::nullopt), Value());
                  })
                          : nullptr)) {
    return;
  }
  // Gathered now, on the request's thread, so the answer reflects the providers known at the
  // moment of the request.
  Value providersInfo = context_->registry->providersInfo();
  replyAsync([handler, providersInfo = std::move(providersInfo)] {
    if (handler) {
      handler(nullptr, providersInfo);
    }
  });
}

void DKIpcServicer::handleRequest(const std::string& selector,
                                  Value::Array arguments,
                                  std::optional<ReplyBlock> reply) {
  // The exported interface has checked the count and classes of the arguments, and that a
  // reply block comes exactly with the operations that take one; nil stays possible.
  const auto& args = arguments;
  if (selector == Selector::kWakeUp) {
    wakeUpCompletion(reply ? WakeUpHandler([reply = *reply] { reply({}); }) : nullptr);
  } else if (selector == Selector::kExtendSandbox) {
    extendSandboxForFileURL(
        urlArgument(args, 0), stringArgument(args, 1), stringArgument(args, 2),
        reply ? ExtendSandboxHandler([reply = *reply](const ErrorPtr& error,
                                                      const std::optional<Data>& token,
                                                      const std::optional<Url>& placeholderURL,
                                                      const std::optional<Data>& placeholderToken) {
          reply({Value(error), optionalValue(token), optionalValue(placeholderURL),
                 optionalValue(placeholderToken)});
        })
              : nullptr);
  } else if (selector == Selector::kProvidePlaceholder || selector == Selector::kStartProviding ||
             selector == Selector::kStopProviding) {
    ErrorHandler handler;
    if (reply) {
      handler = [reply = *reply](const ErrorPtr& error) { reply({Value(error)}); };
    }
    auto member = selector == Selector::kProvidePlaceholder
                      ? &DKIpcServicer::providePlaceholderForItemAtURL
                  : selector == Selector::kStartProviding ? &DKIpcServicer::startProvidingItemAtURL
                                                          : &DKIpcServicer::stopProvidingItemAtURL;
    (this->*member)(urlArgument(args, 0), stringArgument(args, 1), stringArgument(args, 2),
                    std::move(handler));
  } else if (selector == Selector::kProviders) {
    providersCompletionHandler(
        reply ? ProvidersHandler([reply = *reply](const ErrorPtr& error, const Value& info) {
          reply({Value(error), info});
        })
              : nullptr);
  } else if (selector == Selector::kBookmarkableString) {
    bookmarkableStringFromDocumentURL(
        urlArgument(args, 0),
        reply ? BookmarkableStringHandler([reply = *reply](const std::optional<std::string>& string,
                                                           const ErrorPtr& error) {
          reply({optionalValue(string), Value(error)});
        })
              : nullptr);
  } else if (selector == Selector::kDocumentURL) {
    documentURLFromBookmarkableString(
        stringArgument(args, 0),
        reply ? DocumentURLHandler([reply = *reply](const std::optional<Url>& url,
                                                    const std::optional<Data>& token,
                                                    const std::optional<Url>& placeholderURL,
                                                    const std::optional<Data>& placeholderToken,
                                                    const ErrorPtr& error) {
          reply({optionalValue(url), optionalValue(token), optionalValue(placeholderURL),
                 optionalValue(placeholderToken), Value(error)});
        })
              : nullptr);
  } else {
    DKLogError("DKIpcServicer has no operation %s; the request is dropped", selector);
  }
}

}  // namespace daskel
