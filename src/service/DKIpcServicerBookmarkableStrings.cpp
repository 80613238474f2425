// DKIpcServicer's two bookmarkable-string operations. Neither is gated by entitlements nor
// logs "Serving"; the way back from string to URL is guarded by the access-control list for
// the calling process's own bundle identifier instead.
#include <utility>

#include "access_control/DKAccessControlStore.h"
#include "platform/errors/DKErrors.h"
#include "provider/DKExtensionProvider.h"
#include "service/DKBookmarkableString.h"
#include "service/DKIpcServicer.h"
#include "service/DKSandboxTokens.h"

namespace daskel {

using platform::ErrorPtr;
using platform::Url;
using platform::Value;

void DKIpcServicer::bookmarkableStringFromDocumentURL(const std::optional<Url>& url,
                                                      BookmarkableStringHandler completion) {
  const auto provider = url ? context_->registry->providerForURL(*url) : nullptr;
  if (!provider) {
    // A URL that no provider holds is not an error: the caller gets neither string nor error.
    if (completion) {
      replyAsync([completion] { completion(std::nullopt, nullptr); });
    }
    return;
  }
  provider->itemIDForURL(*url, [provider, completion](const ErrorPtr& error, const Value& itemID) {
    if (!completion) {
      return;
    }
    if (error) {
      completion(std::nullopt, error);
    } else if (const std::string* item = itemID.string()) {
      completion(DKBookmarkableString::format(provider->identifier(), *item), nullptr);
    } else {
      completion(std::nullopt, nullptr);
    }
  });
}

void DKIpcServicer::documentURLFromBookmarkableString(
    const std::optional<std::string>& bookmarkableString,
    DocumentURLHandler completion) {
  // The consumer is always the calling process itself.
  std::optional<std::string> consumerID;
  if (const auto connection = this->connection()) {
    const auto& token = connection->auditToken();
    consumerID = context_->bundleIdentifierForAuditToken(token ? &*token : nullptr);
  } else {
    consumerID = context_->bundleIdentifierForAuditToken(nullptr);
  }

  // Identity first, then the form, then the grant: a caller without a bundle identifier is
  // not permitted even with a malformed string.
  ErrorPtr error;
  std::optional<DKBookmarkableString> parsed;
  if (!consumerID) {
    error = DKNotPermittedError();
  } else {
    if (bookmarkableString) {
      parsed = DKBookmarkableString::parse(*bookmarkableString);
    }
    if (!parsed) {
      error = DKInvalidBookmarkableStringError();
    } else {
      const auto store = context_->sharedStore();
      if (!store || !store->isProviderIdentifier(parsed->providerIdentifier, parsed->itemIdentifier,
                                                 *consumerID)) {
        error = DKNotPermittedError();
      }
    }
  }
  if (error) {
    if (completion) {
      replyAsync([completion, error] {
        completion(std::nullopt, std::nullopt, std::nullopt, std::nullopt, error);
      });
    }
    return;
  }

  const auto provider = context_->registry->providerWithIdentifier(parsed->providerIdentifier);
  if (!provider) {
    // A grant can outlive its provider; such a request goes to no one and is never answered.
    return;
  }
  provider->URLForItemID(parsed->itemIdentifier, [self = shared_from_this(), completion](
                                                     const ErrorPtr& error, const Value& urlValue) {
    const std::optional<Url> url =
        urlValue.url() ? std::optional<Url>(*urlValue.url()) : std::nullopt;
    if (error) {
      // The provider's own error is not passed on: the reply names a sandbox failure.
      if (completion) {
        completion(std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                   DKSandboxExtensionFailedError(url));
      }
      return;
    }
    std::optional<Data> token;
    std::optional<Url> placeholderURL;
    std::optional<Data> placeholderToken;
    ErrorPtr tokenError;
    const bool issued = DKIssueSandboxTokensForURL(self->context_->tokenIssuer.get(), url, &token,
                                                   &placeholderURL, &placeholderToken, &tokenError);
    if (!completion) {
      return;
    }
    if (issued) {
      completion(url, token, placeholderURL, placeholderToken, nullptr);
    } else {
      completion(std::nullopt, std::nullopt, std::nullopt, std::nullopt, tokenError);
    }
  });
}

}  // namespace daskel
