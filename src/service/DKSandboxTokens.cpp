#include "service/DKSandboxTokens.h"

#include <string_view>

namespace daskel {

using platform::Url;
using platform::Value;

std::optional<Url> DKPlaceholderURLForURL(const Url& url) {
  // String path operations on the absolute string, not on the URL's path: the result keeps
  // the scheme, the authority and every escape exactly as the caller wrote them.
  std::string_view text = url.absoluteString();
  while (text.size() > 1 && text.back() == '/') {
    text.remove_suffix(1);
  }
  const std::size_t slash = text.rfind('/');
  if (slash == std::string_view::npos || slash + 1 == text.size()) {
    return std::nullopt;
  }
  std::string placeholder(text.substr(0, slash + 1));
  placeholder += '.';
  placeholder += text.substr(slash + 1);
  return Url::fromString(placeholder);
}

namespace {

std::optional<Value::Data> tokenForURL(platform::SandboxTokenIssuer* issuer, const Url& url) {
  if (issuer == nullptr) {
    return std::nullopt;
  }
  const platform::Result<std::string> token = issuer->issueReadWriteToken(url.path());
  if (!token) {
    return std::nullopt;
  }
  return Value::Data(token->begin(), token->end());
}

}  // namespace

bool DKIssueSandboxTokensForURL(platform::SandboxTokenIssuer* issuer,
                                const std::optional<Url>& url,
                                std::optional<Value::Data>* outURLToken,
                                std::optional<Url>* outPlaceholderURL,
                                std::optional<Value::Data>* outPlaceholderToken,
                                platform::ErrorPtr* /*outError*/) {
  std::optional<Url> placeholderURL;
  std::optional<Value::Data> urlToken;
  std::optional<Value::Data> placeholderToken;
  if (url) {
    placeholderURL = DKPlaceholderURLForURL(*url);
    urlToken = tokenForURL(issuer, *url);
  }
  if (placeholderURL) {
    placeholderToken = tokenForURL(issuer, *placeholderURL);
  }
  if (outURLToken) {
    *outURLToken = std::move(urlToken);
  }
  if (outPlaceholderURL) {
    *outPlaceholderURL = std::move(placeholderURL);
  }
  if (outPlaceholderToken) {
    *outPlaceholderToken = std::move(placeholderToken);
  }
  return true;
}

}  // namespace daskel
