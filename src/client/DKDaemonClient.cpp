#include "client/DKDaemonClient.h"

#include <utility>

#include "daemon/protocol/DKDaemon.h"
#include "platform/errors/DKErrors.h"

namespace daskel {

using platform::ErrorPtr;
using platform::Result;
using platform::Url;
using platform::Value;
using Values = DaskelClient::Values;
namespace S = DKDaemonSelector;

namespace {

// The reply's values, or the error that stands in for them. The connection has checked the
// count against the interface already; a mismatch here would mean the interface and this
// file disagree, which must not pass as "all nil".
Result<Values> expectValues(Result<Values> outcome, std::size_t count, const char* selector) {
  if (outcome && outcome->size() != count) {
    return platform::failure(
        IpcError(IpcErrorCode::MessageRefused, std::string("the reply to ") + selector + " has " +
                                                   std::to_string(outcome->size()) +
                                                   " values, not " + std::to_string(count)));
  }
  return outcome;
}

ErrorPtr errorAt(const Values& values, std::size_t i) {
  return values[i].error();
}
std::optional<Value::Data> dataAt(const Values& values, std::size_t i) {
  const Value::Data* data = values[i].data();
  return data ? std::optional<Value::Data>(*data) : std::nullopt;
}
std::optional<Url> urlAt(const Values& values, std::size_t i) {
  const Url* url = values[i].url();
  return url ? std::optional<Url>(*url) : std::nullopt;
}
std::optional<std::string> stringAt(const Values& values, std::size_t i) {
  const std::string* string = values[i].string();
  return string ? std::optional<std::string>(*string) : std::nullopt;
}
std::optional<Value::Dictionary> dictionaryAt(const Values& values, std::size_t i) {
  const Value::Dictionary* dictionary = values[i].dictionary();
  return dictionary ? std::optional<Value::Dictionary>(*dictionary) : std::nullopt;
}

// The decoders: one per reply shape, in the order of the reply's values.

ErrorPtr decodeNothing(Result<Values> outcome) {
  outcome = expectValues(std::move(outcome), 0, S::kWakeUp);
  return outcome ? nullptr : outcome.error();
}

ErrorPtr decodeError(Result<Values> outcome, const char* selector) {
  outcome = expectValues(std::move(outcome), 1, selector);
  return outcome ? errorAt(*outcome, 0) : outcome.error();
}

DKDaemonClient::SandboxExtension decodeSandboxExtension(Result<Values> outcome) {
  outcome = expectValues(std::move(outcome), 4, S::kExtendSandbox);
  if (!outcome) {
    return {.error = outcome.error()};
  }
  return {errorAt(*outcome, 0), dataAt(*outcome, 1), urlAt(*outcome, 2), dataAt(*outcome, 3)};
}

DKDaemonClient::Providers decodeProviders(Result<Values> outcome) {
  outcome = expectValues(std::move(outcome), 2, S::kProviders);
  if (!outcome) {
    return {.error = outcome.error()};
  }
  return {errorAt(*outcome, 0), dictionaryAt(*outcome, 1)};
}

DKDaemonClient::BookmarkableString decodeBookmarkableString(Result<Values> outcome) {
  outcome = expectValues(std::move(outcome), 2, S::kBookmarkableString);
  if (!outcome) {
    return {.error = outcome.error()};
  }
  return {stringAt(*outcome, 0), errorAt(*outcome, 1)};
}

DKDaemonClient::DocumentURL decodeDocumentURL(Result<Values> outcome) {
  outcome = expectValues(std::move(outcome), 5, S::kDocumentURL);
  if (!outcome) {
    return {.error = outcome.error()};
  }
  return {urlAt(*outcome, 0), dataAt(*outcome, 1), urlAt(*outcome, 2), dataAt(*outcome, 3),
          errorAt(*outcome, 4)};
}

Values itemArguments(const Url& url, const std::string& providerID, const std::string& consumerID) {
  return {Value(url), Value(providerID), Value(consumerID)};
}

}  // namespace

Result<std::unique_ptr<DKDaemonClient>> DKDaemonClient::connect() {
  return connectToService(kDKDaemonServiceName);
}

Result<std::unique_ptr<DKDaemonClient>> DKDaemonClient::connectToService(
    const std::string& serviceName) {
  auto client = DaskelClient::connect(serviceName, DKDaemonInterface());
  if (!client) {
    return platform::failure(client.error());
  }
  return std::unique_ptr<DKDaemonClient>(new DKDaemonClient(std::move(*client)));
}

// ---- asynchronous ----

void DKDaemonClient::wakeUpCompletion(ErrorReply reply) {
  client_->call(S::kWakeUp, {}, [reply = std::move(reply)](Result<Values> outcome) {
    if (!reply) {
      return;
    }
    reply(decodeNothing(std::move(outcome)));
  });
}

void DKDaemonClient::extendSandboxForFileURL(const Url& url,
                                             const std::string& providerID,
                                             const std::string& consumerID,
                                             SandboxExtensionReply reply) {
  client_->call(S::kExtendSandbox, itemArguments(url, providerID, consumerID),
                [reply = std::move(reply)](Result<Values> outcome) {
                  if (!reply) {
                    return;
                  }
                  auto r = decodeSandboxExtension(std::move(outcome));
                  reply(std::move(r.error), std::move(r.token), std::move(r.placeholderURL),
                        std::move(r.placeholderToken));
                });
}

void DKDaemonClient::providePlaceholderForItemAtURL(const Url& url,
                                                    const std::string& providerID,
                                                    const std::string& consumerID,
                                                    ErrorReply reply) {
  client_->call(S::kProvidePlaceholder, itemArguments(url, providerID, consumerID),
                [reply = std::move(reply)](Result<Values> outcome) {
                  if (!reply) {
                    return;
                  }
                  reply(decodeError(std::move(outcome), S::kProvidePlaceholder));
                });
}

void DKDaemonClient::startProvidingItemAtURL(const Url& url,
                                             const std::string& providerID,
                                             const std::string& consumerID,
                                             ErrorReply reply) {
  client_->call(S::kStartProviding, itemArguments(url, providerID, consumerID),
                [reply = std::move(reply)](Result<Values> outcome) {
                  if (!reply) {
                    return;
                  }
                  reply(decodeError(std::move(outcome), S::kStartProviding));
                });
}

void DKDaemonClient::stopProvidingItemAtURL(const Url& url,
                                            const std::string& providerID,
                                            const std::string& consumerID,
                                            ErrorReply reply) {
  client_->call(S::kStopProviding, itemArguments(url, providerID, consumerID),
                [reply = std::move(reply)](Result<Values> outcome) {
                  if (!reply) {
                    return;
                  }
                  reply(decodeError(std::move(outcome), S::kStopProviding));
                });
}

void DKDaemonClient::providersCompletionHandler(ProvidersReply reply) {
  client_->call(S::kProviders, {}, [reply = std::move(reply)](Result<Values> outcome) {
    if (!reply) {
      return;
    }
    auto r = decodeProviders(std::move(outcome));
    reply(std::move(r.error), std::move(r.providerInfo));
  });
}

void DKDaemonClient::bookmarkableStringFromDocumentURL(const Url& documentURL,
                                                       BookmarkableStringReply reply) {
  client_->call(S::kBookmarkableString, {Value(documentURL)},
                [reply = std::move(reply)](Result<Values> outcome) {
                  if (!reply) {
                    return;
                  }
                  auto r = decodeBookmarkableString(std::move(outcome));
                  reply(std::move(r.bookmarkableString), std::move(r.error));
                });
}

void DKDaemonClient::documentURLFromBookmarkableString(const std::string& bookmarkableString,
                                                       DocumentURLReply reply) {
  client_->call(S::kDocumentURL, {Value(bookmarkableString)},
                [reply = std::move(reply)](Result<Values> outcome) {
                  if (!reply) {
                    return;
                  }
                  auto r = decodeDocumentURL(std::move(outcome));
                  reply(std::move(r.documentURL), std::move(r.token), std::move(r.placeholderURL),
                        std::move(r.placeholderToken), std::move(r.error));
                });
}

// ---- blocking ----

ErrorPtr DKDaemonClient::wakeUpSync(Timeout timeout) {
  return decodeNothing(client_->callAndWait(S::kWakeUp, {}, timeout));
}

DKDaemonClient::SandboxExtension DKDaemonClient::extendSandboxForFileURLSync(
    const Url& url,
    const std::string& providerID,
    const std::string& consumerID,
    Timeout timeout) {
  return decodeSandboxExtension(
      client_->callAndWait(S::kExtendSandbox, itemArguments(url, providerID, consumerID), timeout));
}

ErrorPtr DKDaemonClient::providePlaceholderForItemAtURLSync(const Url& url,
                                                            const std::string& providerID,
                                                            const std::string& consumerID,
                                                            Timeout timeout) {
  return decodeError(client_->callAndWait(S::kProvidePlaceholder,
                                          itemArguments(url, providerID, consumerID), timeout),
                     S::kProvidePlaceholder);
}

ErrorPtr DKDaemonClient::startProvidingItemAtURLSync(const Url& url,
                                                     const std::string& providerID,
                                                     const std::string& consumerID,
                                                     Timeout timeout) {
  return decodeError(
      client_->callAndWait(S::kStartProviding, itemArguments(url, providerID, consumerID), timeout),
      S::kStartProviding);
}

ErrorPtr DKDaemonClient::stopProvidingItemAtURLSync(const Url& url,
                                                    const std::string& providerID,
                                                    const std::string& consumerID,
                                                    Timeout timeout) {
  return decodeError(
      client_->callAndWait(S::kStopProviding, itemArguments(url, providerID, consumerID), timeout),
      S::kStopProviding);
}

DKDaemonClient::Providers DKDaemonClient::providersCompletionHandlerSync(Timeout timeout) {
  return decodeProviders(client_->callAndWait(S::kProviders, {}, timeout));
}

DKDaemonClient::BookmarkableString DKDaemonClient::bookmarkableStringFromDocumentURLSync(
    const Url& documentURL,
    Timeout timeout) {
  return decodeBookmarkableString(
      client_->callAndWait(S::kBookmarkableString, {Value(documentURL)}, timeout));
}

DKDaemonClient::DocumentURL DKDaemonClient::documentURLFromBookmarkableStringSync(
    const std::string& bookmarkableString,
    Timeout timeout) {
  return decodeDocumentURL(
      client_->callAndWait(S::kDocumentURL, {Value(bookmarkableString)}, timeout));
}

}  // namespace daskel
