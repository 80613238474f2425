// DKBookmarkableString: the portable text form of a provided document,
// "daskel:" + provider identifier + "/" + item identifier, and its parser.
//
// The provider identifier is one or more characters without "/"; the item identifier is one
// or more characters that do not begin with "/" (it may hold "/" anywhere else, empty inner
// and trailing components included). There is no escaping and no version field. Formatting
// does not check its parts, so a provider identifier holding "/" yields a string that parses
// back to another provider.
//
// Plain value type; parse() takes untrusted input and answers nullopt for any text that is
// not a bookmarkable string.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace daskel {

struct DKBookmarkableString {
  static constexpr char kPrefix[] = "daskel:";

  std::string providerIdentifier;
  std::string itemIdentifier;

  // "daskel:<provider>/<item>", unchecked.
  static std::string format(std::string_view providerIdentifier, std::string_view itemIdentifier);
  // The two identifiers, or nullopt when the prefix (case-sensitive, at the very start) is
  // missing, there is no "/" after it, or either identifier is empty.
  static std::optional<DKBookmarkableString> parse(std::string_view text);

  bool operator==(const DKBookmarkableString& other) const = default;
};

}  // namespace daskel
