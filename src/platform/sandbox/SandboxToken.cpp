#include "platform/sandbox/SandboxToken.h"

#include <charconv>
#include <optional>
#include <vector>

namespace daskel::platform {
namespace {

constexpr std::string_view kVersion = "v1";
constexpr std::size_t kFieldCount = 6;
constexpr std::size_t kMacHexLength = 64;
// The longest text parse() looks at: every field at its largest, with room to spare.
constexpr std::size_t kMaxTokenLength = 2 * kSandboxTokenMaxPathLength + 256;

ErrorPtr malformed(std::string what) {
  return sandboxTokenError(SandboxTokenError::Malformed, "Malformed sandbox token: " + what);
}

bool isValidAccessClass(std::string_view accessClass) {
  if (accessClass.empty() || accessClass.size() > 64) {
    return false;
  }
  for (char c : accessClass) {
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-')) {
      return false;
    }
  }
  return true;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return -1;  // Upper case too: the form is lower case only.
}

// Decodes lower-case hex; nullopt for an odd length or any other character.
std::optional<std::string> decodeHex(std::string_view hex) {
  if (hex.size() % 2 != 0) {
    return std::nullopt;
  }
  std::string bytes;
  bytes.reserve(hex.size() / 2);
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    const int high = hexDigit(hex[i]);
    const int low = hexDigit(hex[i + 1]);
    if (high < 0 || low < 0) {
      return std::nullopt;
    }
    bytes.push_back(static_cast<char>(high << 4 | low));
  }
  return bytes;
}

std::vector<std::string_view> splitFields(std::string_view text) {
  std::vector<std::string_view> fields;
  while (true) {
    const std::size_t semicolon = text.find(';');
    fields.push_back(text.substr(0, semicolon));
    if (semicolon == std::string_view::npos) {
      return fields;
    }
    text.remove_prefix(semicolon + 1);
  }
}

}  // namespace

ErrorPtr sandboxTokenError(SandboxTokenError code,
                           std::string description,
                           Value::Dictionary extra) {
  return makeError(kSandboxTokenErrorDomain, static_cast<std::int64_t>(code),
                   std::move(description), std::move(extra));
}

std::string lowerHex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(bytes.size() * 2);
  for (char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    hex.push_back(kDigits[byte >> 4]);
    hex.push_back(kDigits[byte & 0x0f]);
  }
  return hex;
}

Result<void> SandboxToken::checkRequest(std::string_view accessClass, std::string_view path) {
  if (!isValidAccessClass(accessClass)) {
    return failure(sandboxTokenError(SandboxTokenError::InvalidRequest,
                                     "Invalid access class \"" + std::string(accessClass) + "\"."));
  }
  if (path.empty() || path.front() != '/') {
    return failure(sandboxTokenError(
        SandboxTokenError::InvalidRequest,
        "A sandbox token needs an absolute path, not \"" + std::string(path) + "\".",
        {{"path", Value(path)}}));
  }
  if (path.find('\0') != std::string_view::npos) {
    return failure(sandboxTokenError(SandboxTokenError::InvalidRequest,
                                     "A sandbox token path may not contain a NUL character."));
  }
  if (path.size() > kSandboxTokenMaxPathLength) {
    return failure(sandboxTokenError(
        SandboxTokenError::InvalidRequest,
        "A sandbox token path may be at most " + std::to_string(kSandboxTokenMaxPathLength) +
            " bytes long; this one has " + std::to_string(path.size()) + "."));
  }
  return {};
}

std::string SandboxToken::signedText() const {
  std::string text(kVersion);
  text += ';';
  text += accessClass;
  text += ';';
  text += lowerHex(path);
  text += ';';
  text += std::to_string(issueTime);
  text += ';';
  text += lowerHex(std::string_view(reinterpret_cast<const char*>(nonce.data()), nonce.size()));
  return text;
}

std::string SandboxToken::text() const {
  return signedText() + ";" + mac;
}

Result<SandboxToken> SandboxToken::parse(std::string_view text) {
  if (text.size() > kMaxTokenLength) {
    return failure(malformed("longer than " + std::to_string(kMaxTokenLength) + " characters"));
  }
  const std::vector<std::string_view> fields = splitFields(text);
  if (fields.size() != kFieldCount) {
    return failure(malformed("expected " + std::to_string(kFieldCount) +
                             " fields separated by ';', found " + std::to_string(fields.size())));
  }
  if (fields[0] != kVersion) {
    return failure(malformed("unknown version \"" + std::string(fields[0]) + "\""));
  }

  SandboxToken token;
  if (!isValidAccessClass(fields[1])) {
    return failure(malformed("invalid access class \"" + std::string(fields[1]) + "\""));
  }
  token.accessClass = fields[1];

  auto path = decodeHex(fields[2]);
  if (!path) {
    return failure(malformed("the path is not lower-case hex of whole bytes"));
  }
  if (!checkRequest(token.accessClass, *path)) {
    return failure(malformed("the path is not an absolute path of at most " +
                             std::to_string(kSandboxTokenMaxPathLength) + " bytes without NUL"));
  }
  token.path = std::move(*path);

  // Decimal, no sign, no leading zero: the one spelling std::to_string gives.
  const std::string_view time = fields[3];
  const char* end = time.data() + time.size();
  auto [next, error] = std::from_chars(time.data(), end, token.issueTime);
  if (time.empty() || error != std::errc() || next != end || token.issueTime < 0 ||
      (time.size() > 1 && time.front() == '0')) {
    return failure(
        malformed("the issue time \"" + std::string(time) + "\" is not a number of seconds"));
  }

  auto nonce = decodeHex(fields[4]);
  if (!nonce || nonce->size() != token.nonce.size()) {
    return failure(malformed("the nonce is not 32 lower-case hex digits"));
  }
  std::copy(nonce->begin(), nonce->end(), token.nonce.begin());

  if (fields[5].size() != kMacHexLength || !decodeHex(fields[5])) {
    return failure(malformed("the MAC is not 64 lower-case hex digits"));
  }
  token.mac = fields[5];
  return token;
}

}  // namespace daskel::platform
