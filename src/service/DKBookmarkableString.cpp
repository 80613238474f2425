#include "service/DKBookmarkableString.h"

namespace daskel {

std::string DKBookmarkableString::format(std::string_view providerIdentifier,
                                         std::string_view itemIdentifier) {
  std::string text(kPrefix);
  text += providerIdentifier;
  text += '/';
  text += itemIdentifier;
  return text;
}

std::optional<DKBookmarkableString> DKBookmarkableString::parse(std::string_view text) {
  const std::string_view prefix(kPrefix);
  if (!text.starts_with(prefix)) {
    return std::nullopt;
  }
  // Split at every "/": the first component is the provider, the second must be non-empty,
  // and the item is the second to the last joined again, which is everything after the
  // first "/".
  const std::string_view rest = text.substr(prefix.size());
  const std::size_t slash = rest.find('/');
  if (slash == std::string_view::npos || slash == 0) {
    return std::nullopt;
  }
  const std::string_view item = rest.substr(slash + 1);
  if (item.empty() || item.front() == '/') {
    return std::nullopt;
  }
  return DKBookmarkableString{std::string(rest.substr(0, slash)), std::string(item)};
}

}  // namespace daskel
