// The text form of sandbox tokens: what format() writes is exactly the documented form, parse()
// takes back everything format() writes and refuses every text it could not have written.
#include "platform/sandbox/SandboxToken.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace daskel::platform {
namespace {

SandboxToken sampleToken() {
  SandboxToken token;
  token.accessClass = "read-write";
  token.path = "/a b;c";
  token.issueTime = 1700000000;
  for (std::size_t i = 0; i < token.nonce.size(); ++i) {
    token.nonce[i] = static_cast<std::uint8_t>(0xf0 + i);
  }
  token.mac = std::string(64, 'e');
  return token;
}

std::int64_t codeOf(const ErrorPtr& error) {
  EXPECT_EQ(error->domain, kSandboxTokenErrorDomain);
  return error->code;
}

constexpr auto kMalformed = static_cast<std::int64_t>(SandboxTokenError::Malformed);
constexpr auto kInvalidRequest = static_cast<std::int64_t>(SandboxTokenError::InvalidRequest);

TEST(SandboxToken, TextIsVersionClassPathHexTimeNonceAndMacJoinedBySemicolons) {
  const SandboxToken token = sampleToken();
  // "/a b;c" is 2f 61 20 62 3b 63: the ';' inside a path cannot split a field.
  EXPECT_EQ(token.signedText(),
            "v1;read-write;2f6120623b63;1700000000;f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff");
  EXPECT_EQ(token.text(), token.signedText() + ";" + std::string(64, 'e'));
}

TEST(SandboxToken, ParseTakesBackEveryFieldThatTextWrote) {
  SandboxToken token = sampleToken();
  token.path = "/\xc3\xa9t\xc3\xa9/\x01\xff;;/";
  token.issueTime = 0;
  auto parsed = SandboxToken::parse(token.text());
  ASSERT_TRUE(parsed) << parsed.error()->description();
  EXPECT_EQ(*parsed, token);
}

TEST(SandboxToken, ParseRefusesEveryTextThatTextCouldNotHaveWritten) {
  const std::string good = sampleToken().text();
  const std::string mac = std::string(64, 'e');
  const std::string nonce = "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff";
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"empty", ""},
      {"truncated", good.substr(0, good.size() - 1)},
      {"missing MAC", good.substr(0, good.rfind(';'))},
      {"extra field", good + ";"},
      {"other version", "v2" + good.substr(2)},
      {"upper-case version", "V1" + good.substr(2)},
      {"empty class", "v1;;2f61;1;" + nonce + ";" + mac},
      {"class with upper case", "v1;Read-Write;2f61;1;" + nonce + ";" + mac},
      {"upper-case path hex", "v1;read-write;2F61;1;" + nonce + ";" + mac},
      {"odd path hex", "v1;read-write;2f6;1;" + nonce + ";" + mac},
      {"empty path", "v1;read-write;;1;" + nonce + ";" + mac},
      {"relative path", "v1;read-write;61;1;" + nonce + ";" + mac},
      {"NUL in path", "v1;read-write;2f0061;1;" + nonce + ";" + mac},
      {"empty time", "v1;read-write;2f61;;" + nonce + ";" + mac},
      {"leading zero time", "v1;read-write;2f61;01;" + nonce + ";" + mac},
      {"negative time", "v1;read-write;2f61;-1;" + nonce + ";" + mac},
      {"signed time", "v1;read-write;2f61;+1;" + nonce + ";" + mac},
      {"time too large", "v1;read-write;2f61;99999999999999999999;" + nonce + ";" + mac},
      {"short nonce", "v1;read-write;2f61;1;" + nonce.substr(2) + ";" + mac},
      {"upper-case nonce", "v1;read-write;2f61;1;F0" + nonce.substr(2) + ";" + mac},
      {"short MAC", "v1;read-write;2f61;1;" + nonce + ";" + mac.substr(1)},
      {"long MAC", "v1;read-write;2f61;1;" + nonce + ";" + mac + "e"},
      {"upper-case MAC", "v1;read-write;2f61;1;" + nonce + ";E" + mac.substr(1)},
      {"huge", "v1;read-write;" + std::string(20000, 'a') + ";1;" + nonce + ";" + mac},
  };
  for (const auto& [what, text] : cases) {
    auto parsed = SandboxToken::parse(text);
    ASSERT_FALSE(parsed) << what;
    EXPECT_EQ(codeOf(parsed.error()), kMalformed) << what;
    EXPECT_NE(parsed.error()->localizedDescription().find("Malformed sandbox token"),
              std::string::npos)
        << what;
  }
}

TEST(SandboxToken, RequestsForRelativeNulOrOverlongPathsOrOddClassesAreRefused) {
  EXPECT_TRUE(SandboxToken::checkRequest("read-write", "/"));
  EXPECT_TRUE(SandboxToken::checkRequest("read-write",
                                         "/" + std::string(kSandboxTokenMaxPathLength - 1, 'x')));

  const std::vector<std::pair<std::string, std::string>> refused = {
      {"read-write", ""},
      {"read-write", "relative/file"},
      {"read-write", "./file"},
      {"read-write", std::string("/nul\0inside", 11)},
      {"read-write", "/" + std::string(kSandboxTokenMaxPathLength, 'x')},
      {"", "/file"},
      {"read;write", "/file"},
      {"Read-Write", "/file"},
  };
  for (const auto& [accessClass, path] : refused) {
    auto checked = SandboxToken::checkRequest(accessClass, path);
    ASSERT_FALSE(checked) << accessClass << " " << path;
    EXPECT_EQ(codeOf(checked.error()), kInvalidRequest);
  }
}

}  // namespace
}  // namespace daskel::platform
