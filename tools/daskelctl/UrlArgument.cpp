#include "tools/daskelctl/UrlArgument.h"

#include <sys/stat.h>

#include <filesystem>

#include "platform/errors/DKErrors.h"

namespace daskel::ctl {

using platform::Url;

namespace {

bool looksLikeUrl(std::string_view text) {
  // A scheme is a letter, then letters, digits, '+', '-' or '.', then ':'.
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0 || text.front() == '/') {
    return false;
  }
  for (std::size_t i = 0; i < colon; ++i) {
    const char c = text[i];
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (!letter && (i == 0 || !((c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.'))) {
      return false;
    }
  }
  return true;
}

platform::ErrorPtr invalid(std::string_view text, const std::string& why) {
  return platform::makeError(
      kDKErrorDomain, static_cast<std::int64_t>(DKErrorCode::InvalidParameter),
      "\"" + std::string(text) + "\" is not a usable URL or path: " + why + ".",
      {{kDKParameterKey, platform::Value("URL")},
       {kDKValueKey, platform::Value(std::string(text))}});
}

}  // namespace

platform::Result<Url> urlFromArgument(std::string_view text, const std::string& workingDirectory) {
  if (text.empty()) {
    return platform::failure(invalid(text, "it is empty"));
  }
  if (text.find('\0') != std::string_view::npos) {
    return platform::failure(invalid(text, "it contains a NUL character"));
  }
  if (looksLikeUrl(text)) {
    if (auto url = Url::fromString(text)) {
      return *url;
    }
    return platform::failure(invalid(text, "it has a scheme but is not a valid URL"));
  }
  namespace fs = std::filesystem;
  const bool trailingSlash = text.back() == '/';
  fs::path path(text);
  if (path.is_relative()) {
    path = fs::path(workingDirectory) / path;
  }
  std::string absolute = path.lexically_normal().string();
  // lexically_normal keeps a trailing separator as an empty last element; the URL decides
  // about "/" itself.
  while (absolute.size() > 1 && absolute.back() == '/') {
    absolute.pop_back();
  }
  struct stat status;
  const bool isDirectory =
      trailingSlash || (::stat(absolute.c_str(), &status) == 0 && S_ISDIR(status.st_mode));
  if (auto url = Url::fileUrlWithPath(absolute, isDirectory)) {
    return *url;
  }
  return platform::failure(invalid(text, "no file URL can be made of it"));
}

}  // namespace daskel::ctl
