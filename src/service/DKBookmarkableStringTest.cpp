#include "service/DKBookmarkableString.h"

#include <gtest/gtest.h>

namespace daskel {
namespace {

std::optional<DKBookmarkableString> parse(std::string_view text) {
  return DKBookmarkableString::parse(text);
}

TEST(DKBookmarkableString, ParsesTheProviderUpToTheFirstSlashAndKeepsTheRestAsTheItem) {
  EXPECT_EQ(parse("daskel:com.acme.cloud.provider/4711"),
            (DKBookmarkableString{"com.acme.cloud.provider", "4711"}));
  EXPECT_EQ(parse("daskel:com.acme.cloud.provider/docs/2024/plan.txt"),
            (DKBookmarkableString{"com.acme.cloud.provider", "docs/2024/plan.txt"}));
  EXPECT_EQ(parse("daskel:P/a//b/"), (DKBookmarkableString{"P", "a//b/"}));
}

TEST(DKBookmarkableString, RefusesEmptyPartsAMissingSlashAndAnyOtherPrefix) {
  for (const char* text : {"daskel:P/", "daskel:/x", "daskel:P", "daskel:P//x",
                           "daskel:", "Daskel:P/x", "xdaskel:P/x", " daskel:P/x", ""}) {
    EXPECT_EQ(parse(text), std::nullopt) << text;
  }
}

TEST(DKBookmarkableString, FormattingRoundTripsUnlessTheProviderHoldsASlash) {
  const std::string text = DKBookmarkableString::format("P", "a//b/");
  EXPECT_EQ(text, "daskel:P/a//b/");
  EXPECT_EQ(parse(text), (DKBookmarkableString{"P", "a//b/"}));
  // Nothing stops a provider identifier with "/": it parses back as another provider.
  EXPECT_EQ(parse(DKBookmarkableString::format("com/x", "1")),
            (DKBookmarkableString{"com", "x/1"}));
}

}  // namespace
}  // namespace daskel
