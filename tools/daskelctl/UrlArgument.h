// The URL-or-PATH arguments of daskelctl. A text with a scheme that parses as an absolute URI
// is a URL and is passed exactly as given (the daemon compares URLs by their text). Anything
// else, and every text beginning with '/', is a path: made absolute against the working
// directory, normalised lexically ("a/../b" is "b"; no link is followed), and turned into a
// percent-encoded file URL, a directory URL (ending in "/") when the path names an existing
// directory or ends in '/'.
//
// Free function without shared state; safe from any thread.
#pragma once

#include <string>
#include <string_view>

#include "platform/url/Url.h"
#include "platform/value/Result.h"

namespace daskel::ctl {

// `workingDirectory` must be absolute. Fails (an error saying why) for an empty text, a path
// holding a NUL, or one that cannot be made into a URL.
platform::Result<platform::Url> urlFromArgument(std::string_view text,
                                                const std::string& workingDirectory);

}  // namespace daskel::ctl
