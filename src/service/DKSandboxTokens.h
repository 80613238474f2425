// The sandbox token functions of the client request service: the placeholder URL of an item
// and the read-write tokens that open an item and its placeholder to a consumer.
//
// A token travels in replies as data holding the token text's bytes without a terminating
// NUL. Tokens come from the platform's sandbox facility (a SandboxTokenIssuer, injected).
//
// Plain functions; safe from any thread.
#pragma once

#include <optional>

#include "platform/sandbox/SandboxTokenIssuer.h"
#include "platform/url/Url.h"
#include "platform/value/Error.h"
#include "platform/value/Value.h"

namespace daskel {

// The hidden sibling of `url`: the same directory, the last path component with a full stop
// in front ("file:///dir/name.ext" -> "file:///dir/.name.ext"). Works on the URL's absolute
// string as it is given (percent-escapes stay as they are, a trailing "/" is dropped);
// nullopt when no URL can be formed.
std::optional<platform::Url> DKPlaceholderURLForURL(const platform::Url& url);

// Issues read-write tokens (from `issuer`, borrowed; none when null) for the file-system
// paths of `url` and of its placeholder URL and stores them, and the placeholder
// URL, into the out-places that are given (each may be null). A token that the issuer
// refused, or a placeholder URL that cannot be formed, is stored as nullopt; so is
// everything when `url` is absent. `outError` is never written. Always returns true: a
// caller reads a missing token in its success reply as "no access was extended for that
// file".
bool DKIssueSandboxTokensForURL(platform::SandboxTokenIssuer* issuer,
                                const std::optional<platform::Url>& url,
                                std::optional<platform::Value::Data>* outURLToken,
                                std::optional<platform::Url>* outPlaceholderURL,
                                std::optional<platform::Value::Data>* outPlaceholderToken,
                                platform::ErrorPtr* outError = nullptr);

}  // namespace daskel
