#include "service/DKSandboxTokens.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "platform/sandbox/KeyFileSandboxTokenIssuer.h"

namespace daskel {
namespace {

using platform::Url;
using platform::Value;

std::string placeholderOf(const char* url) {
  const auto placeholder = DKPlaceholderURLForURL(*Url::fromString(url));
  return placeholder ? placeholder->absoluteString() : "(none)";
}

TEST(DKSandboxTokens, PlaceholderIsTheHiddenSiblingInTheSameDirectory) {
  EXPECT_EQ(placeholderOf("file:///var/dir/doc.txt"), "file:///var/dir/.doc.txt");
  EXPECT_EQ(placeholderOf("file:///doc.txt"), "file:///.doc.txt");
  // Escapes and the authority are kept exactly as written.
  EXPECT_EQ(placeholderOf("file:///a%20b/c%20d.txt"), "file:///a%20b/.c%20d.txt");
  EXPECT_EQ(placeholderOf("file://localhost/x/y"), "file://localhost/x/.y");
  // A directory URL names the directory itself.
  EXPECT_EQ(placeholderOf("file:///var/dir/sub/"), "file:///var/dir/.sub");
  EXPECT_EQ(placeholderOf("file:///"), "(none)");
}

class DKSandboxTokensIssueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/dktokens.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory_ = pattern;
    issuer_ = std::make_shared<platform::KeyFileSandboxTokenIssuer>(directory_ + "/key");
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  std::string grantedPath(const std::optional<Value::Data>& token) {
    if (!token) {
      return "(no token)";
    }
    // Data without a terminating NUL: the text verifies as it is.
    EXPECT_NE(token->back(), 0);
    auto grant = issuer_->verifyToken(std::string(token->begin(), token->end()));
    return grant ? grant->path : "(invalid)";
  }

  std::string directory_;
  std::shared_ptr<platform::KeyFileSandboxTokenIssuer> issuer_;
};

TEST_F(DKSandboxTokensIssueTest, TokensNameTheDecodedPathsOfTheItemAndItsPlaceholder) {
  std::optional<Value::Data> token;
  std::optional<Url> placeholderURL;
  std::optional<Value::Data> placeholderToken;
  platform::ErrorPtr error;
  EXPECT_TRUE(DKIssueSandboxTokensForURL(issuer_.get(), Url::fromString("file:///s/my%20doc.txt"),
                                         &token, &placeholderURL, &placeholderToken, &error));
  EXPECT_EQ(grantedPath(token), "/s/my doc.txt");
  ASSERT_TRUE(placeholderURL);
  EXPECT_EQ(placeholderURL->absoluteString(), "file:///s/.my%20doc.txt");
  EXPECT_EQ(grantedPath(placeholderToken), "/s/.my doc.txt");
  EXPECT_EQ(error, nullptr);

  // Only the out-places given are written.
  std::optional<Url> onlyPlaceholder;
  EXPECT_TRUE(DKIssueSandboxTokensForURL(issuer_.get(), Url::fromString("file:///s/x"), nullptr,
                                         &onlyPlaceholder, nullptr));
  EXPECT_EQ(onlyPlaceholder->absoluteString(), "file:///s/.x");
}

TEST_F(DKSandboxTokensIssueTest, ReportsSuccessEvenWhenNothingCouldBeIssued) {
  std::optional<Value::Data> token = Value::Data{1};
  std::optional<Url> placeholderURL = Url::fromString("file:///stale");
  std::optional<Value::Data> placeholderToken = Value::Data{1};
  EXPECT_TRUE(DKIssueSandboxTokensForURL(issuer_.get(), std::nullopt, &token, &placeholderURL,
                                         &placeholderToken));
  EXPECT_FALSE(token || placeholderURL || placeholderToken);

  // No issuer: the placeholder URL is still formed, no token is.
  EXPECT_TRUE(DKIssueSandboxTokensForURL(nullptr, Url::fromString("file:///s/x"), &token,
                                         &placeholderURL, &placeholderToken));
  EXPECT_FALSE(token || placeholderToken);
  EXPECT_TRUE(placeholderURL);

  // A key that cannot be had (its directory is a file) refuses both tokens.
  auto broken = platform::KeyFileSandboxTokenIssuer("/dev/null/key");
  EXPECT_TRUE(DKIssueSandboxTokensForURL(&broken, Url::fromString("file:///s/x"), &token,
                                         &placeholderURL, &placeholderToken));
  EXPECT_FALSE(token || placeholderToken);
}

}  // namespace
}  // namespace daskel
