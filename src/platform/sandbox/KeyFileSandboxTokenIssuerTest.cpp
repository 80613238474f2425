// The live issuer: tokens verify to what they were issued for; the MAC is HMAC-SHA256 of the
// text before the last ';' under the key file's raw bytes (checked independently here); any
// alteration, a token of another key, and requests for relative or NUL paths are refused.
#include "platform/sandbox/KeyFileSandboxTokenIssuer.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/sandbox/SandboxToken.h"

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;

std::int64_t codeOf(SandboxTokenError code) {
  return static_cast<std::int64_t>(code);
}

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  while (true) {
    const std::size_t semicolon = text.find(';', start);
    fields.push_back(text.substr(start, semicolon - start));
    if (semicolon == std::string::npos) {
      return fields;
    }
    start = semicolon + 1;
  }
}

std::string join(const std::vector<std::string>& fields) {
  std::string text;
  for (const auto& field : fields) {
    text += (text.empty() ? "" : ";") + field;
  }
  return text;
}

class KeyFileSandboxTokenIssuerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/daskel-sandbox-issuer-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
    keyPath_ = root_ / "state" / "sandbox-token.key";
    issuer_ = std::make_unique<KeyFileSandboxTokenIssuer>(keyPath_);
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }

  std::string issue(const std::string& path) {
    auto token = issuer_->issueReadWriteToken(path);
    EXPECT_TRUE(token) << token.error()->description();
    return token ? *token : std::string();
  }

  fs::path root_;
  fs::path keyPath_;
  std::unique_ptr<KeyFileSandboxTokenIssuer> issuer_;
};

TEST_F(KeyFileSandboxTokenIssuerTest, AnIssuedTokenVerifiesToItsClassPathAndIssueTime) {
  const auto before = std::chrono::system_clock::now();
  for (const std::string& path :
       std::initializer_list<std::string>{"/", "/home/u/Documents/Report One.txt",
                                          "/odd;name/with\nnewline/\xff\xfe", "/trailing/"}) {
    const std::string token = issue(path);
    auto grant = issuer_->verifyToken(token);
    ASSERT_TRUE(grant) << grant.error()->description();
    EXPECT_EQ(grant->accessClass, "read-write");
    EXPECT_EQ(grant->path, path);
    const auto seconds = [](auto time) {
      return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
    };
    EXPECT_GE(grant->issueTime, seconds(before));
    EXPECT_LE(grant->issueTime, seconds(std::chrono::system_clock::now()));
  }
  // Another issuer on the same key file, as in another process, verifies them too.
  KeyFileSandboxTokenIssuer other(keyPath_);
  auto grant = other.verifyToken(issue("/x"));
  ASSERT_TRUE(grant) << grant.error()->description();
  EXPECT_EQ(grant->path, "/x");
}

TEST_F(KeyFileSandboxTokenIssuerTest,
       TheMacIsHmacSha256OfTheTextBeforeTheLastSemicolonUnderTheKeyFile) {
  const std::string token = issue("/srv/doc.txt");
  std::ifstream in(keyPath_, std::ios::binary);
  const std::string key(std::istreambuf_iterator<char>(in), {});
  ASSERT_EQ(key.size(), 32u);

  const std::size_t last = token.rfind(';');
  const std::string signedPart = token.substr(0, last);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  ASSERT_NE(HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
                 reinterpret_cast<const unsigned char*>(signedPart.data()), signedPart.size(),
                 digest, &length),
            nullptr);
  EXPECT_EQ(token.substr(last + 1),
            lowerHex(std::string_view(reinterpret_cast<const char*>(digest), length)));

  const auto fields = split(token);
  ASSERT_EQ(fields.size(), 6u);
  EXPECT_EQ(fields[0], "v1");
  EXPECT_EQ(fields[1], "read-write");
  EXPECT_EQ(fields[2], lowerHex("/srv/doc.txt"));
  EXPECT_EQ(fields[4].size(), 32u);
  EXPECT_EQ(fields[4].find_first_not_of("0123456789abcdef"), std::string::npos);
}

TEST_F(KeyFileSandboxTokenIssuerTest, TwoTokensForOnePathDifferByTheirNonce) {
  std::set<std::string> nonces;
  for (int i = 0; i < 20; ++i) {
    nonces.insert(split(issue("/same/path"))[4]);
  }
  EXPECT_EQ(nonces.size(), 20u);
}

TEST_F(KeyFileSandboxTokenIssuerTest, AlteredTokensAreRefusedWithWhatIsWrong) {
  const std::string token = issue("/home/u/doc.txt");
  const auto fields = split(token);
  auto with = [&](std::size_t index, std::string value) {
    auto altered = fields;
    altered[index] = std::move(value);
    return join(altered);
  };
  auto flipLastDigit = [](std::string hex) {
    hex.back() = hex.back() == '0' ? '1' : '0';
    return hex;
  };
  const std::int64_t bad = codeOf(SandboxTokenError::BadSignature);
  const std::int64_t malformed = codeOf(SandboxTokenError::Malformed);
  const std::vector<std::tuple<const char*, std::string, std::int64_t>> cases = {
      {"other path", with(2, lowerHex("/home/u/other.txt")), bad},
      {"parent path", with(2, lowerHex("/home/u")), bad},
      {"earlier time", with(3, std::to_string(std::stoll(fields[3]) - 1)), bad},
      {"later time", with(3, std::to_string(std::stoll(fields[3]) + 86400)), bad},
      {"other nonce", with(4, flipLastDigit(fields[4])), bad},
      {"other class", with(1, "read-only"), bad},
      {"MAC digit", with(5, flipLastDigit(fields[5])), bad},
      {"MAC of another text", with(5, std::string(64, '0')), bad},
      {"truncated", token.substr(0, token.size() - 1), malformed},
      {"truncated to the signed part", token.substr(0, token.rfind(';')), malformed},
      {"trailing NUL", token + std::string(1, '\0'), malformed},
      {"upper case",
       with(5,
            [&] {
              std::string upper = fields[5];
              for (char& c : upper)
                c = static_cast<char>(std::toupper(c));
              return upper;
            }()),
       malformed},
  };
  for (const auto& [what, altered, code] : cases) {
    ASSERT_NE(altered, token) << what;
    auto grant = issuer_->verifyToken(altered);
    ASSERT_FALSE(grant) << what;
    EXPECT_EQ(grant.error()->domain, kSandboxTokenErrorDomain) << what;
    EXPECT_EQ(grant.error()->code, code) << what << ": " << grant.error()->description();
  }
  // The original still verifies: checking altered copies changed nothing.
  EXPECT_TRUE(issuer_->verifyToken(token));
}

TEST_F(KeyFileSandboxTokenIssuerTest, ATokenIssuedUnderAnotherKeyIsRefused) {
  KeyFileSandboxTokenIssuer stranger(root_ / "elsewhere" / "sandbox-token.key");
  auto foreign = stranger.issueReadWriteToken("/home/u/doc.txt");
  ASSERT_TRUE(foreign);
  issue("/make/the/key");
  auto grant = issuer_->verifyToken(*foreign);
  ASSERT_FALSE(grant);
  EXPECT_EQ(grant.error()->code, codeOf(SandboxTokenError::BadSignature));
  EXPECT_NE(grant.error()->localizedDescription().find(keyPath_.string()), std::string::npos);
}

TEST_F(KeyFileSandboxTokenIssuerTest, RelativeAndNulPathsAreRefusedBeforeAnyKeyIsMade) {
  for (const std::string& path : {std::string(""), std::string("doc.txt"), std::string("./doc.txt"),
                                  std::string("/nul\0inside", 11)}) {
    auto token = issuer_->issueReadWriteToken(path);
    ASSERT_FALSE(token) << path;
    EXPECT_EQ(token.error()->code, codeOf(SandboxTokenError::InvalidRequest));
  }
  EXPECT_FALSE(fs::exists(keyPath_));
}

TEST_F(KeyFileSandboxTokenIssuerTest, VerifyingNeverCreatesAKeyAndSaysWhenThereIsNone) {
  KeyFileSandboxTokenIssuer stranger(root_ / "elsewhere" / "sandbox-token.key");
  auto foreign = stranger.issueReadWriteToken("/home/u/doc.txt");
  ASSERT_TRUE(foreign);
  auto grant = issuer_->verifyToken(*foreign);
  ASSERT_FALSE(grant);
  EXPECT_EQ(grant.error()->code, codeOf(SandboxTokenError::KeyMissing));
  EXPECT_FALSE(fs::exists(keyPath_));

  // Once a key appears, the same issuer picks it up: the missing key was not remembered.
  const std::string own = issue("/home/u/doc.txt");
  EXPECT_TRUE(issuer_->verifyToken(own));
}

TEST_F(KeyFileSandboxTokenIssuerTest, AKeyFileOthersCanReadIsRefusedForIssuingAndVerifying) {
  fs::create_directories(keyPath_.parent_path());
  std::ofstream(keyPath_, std::ios::binary) << std::string(32, 'k');
  fs::permissions(keyPath_, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                                fs::perms::others_read);
  auto token = issuer_->issueReadWriteToken("/doc.txt");
  ASSERT_FALSE(token);
  EXPECT_EQ(token.error()->code, codeOf(SandboxTokenError::KeyRejected));
  auto grant = issuer_->verifyToken("v1;read-write;2f;1;" + std::string(32, '0') + ";" +
                                    std::string(64, '0'));
  ASSERT_FALSE(grant);
  EXPECT_EQ(grant.error()->code, codeOf(SandboxTokenError::KeyRejected));
}

TEST_F(KeyFileSandboxTokenIssuerTest, ThreadsIssueAndVerifyAtOnceOnOneFreshIssuer) {
  constexpr int kThreads = 6;
  constexpr int kTokensEach = 50;
  std::atomic<int> verified{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kTokensEach; ++i) {
        const std::string path = "/t" + std::to_string(t) + "/" + std::to_string(i);
        auto token = issuer_->issueReadWriteToken(path);
        if (!token) {
          continue;
        }
        auto grant = issuer_->verifyToken(*token);
        if (grant && grant->path == path) {
          ++verified;
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(verified.load(), kThreads * kTokensEach);
}

TEST(SandboxTokenIssuerLive, TheLiveIssuerKeepsItsKeyInTheStateDirectory) {
  char pattern[] = "/tmp/daskel-sandbox-live-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern), nullptr);
  const fs::path root = pattern;
  ::setenv("DASKEL_STATE_DIR", (root / "state").c_str(), 1);
  EXPECT_EQ(SandboxTokenIssuer::defaultKeyPath(), (root / "state" / "sandbox-token.key").string());
  auto issuer = SandboxTokenIssuer::live();
  auto token = issuer->issueReadWriteToken("/doc");
  ::unsetenv("DASKEL_STATE_DIR");
  ASSERT_TRUE(token) << token.error()->description();
  EXPECT_TRUE(fs::exists(root / "state" / "sandbox-token.key"));
  EXPECT_TRUE(issuer->verifyToken(*token));
  fs::remove_all(root);
}

}  // namespace
}  // namespace daskel::platform
