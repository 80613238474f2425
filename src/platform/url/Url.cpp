#include "platform/url/Url.h"

#include <uriparser/Uri.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

#include "platform/url/UriArena.h"

namespace daskel::platform {

namespace {

// Owns a parsed UriUriA whose text ranges point into the string it was parsed from; that string
// must outlive it.
class ParsedUri {
 public:
  explicit ParsedUri(std::string_view text) {
    const char* errorPos = nullptr;
    ok_ = uriParseSingleUriExMmA(&uri_, text.data(), text.data() + text.size(), &errorPos,
                                 arena_.manager()) == URI_SUCCESS;
  }
  ~ParsedUri() {
    if (ok_) {
      uriFreeUriMembersMmA(&uri_, arena_.manager());
    }
  }
  ParsedUri(const ParsedUri&) = delete;
  ParsedUri& operator=(const ParsedUri&) = delete;

  bool ok() const { return ok_; }
  const UriUriA& uri() const { return uri_; }
  bool hasScheme() const { return ok_ && uri_.scheme.first != nullptr; }

 private:
  UriArena arena_;  // before uri_: freed after it
  UriUriA uri_{};
  bool ok_ = false;
};

std::string_view rangeText(const UriTextRangeA& range) {
  if (range.first == nullptr || range.afterLast == nullptr) {
    return {};
  }
  return std::string_view(range.first, static_cast<std::size_t>(range.afterLast - range.first));
}

std::string percentDecoded(std::string_view text) {
  std::string buffer(text);
  // Decodes in place; the returned pointer is the new terminator, so a decoded "%00" stays in
  // the result instead of cutting it short.
  const char* end = uriUnescapeInPlaceExA(buffer.data(), URI_FALSE, URI_BR_DONT_TOUCH);
  buffer.resize(static_cast<std::size_t>(end - buffer.data()));
  return buffer;
}

std::string percentEncoded(std::string_view text) {
  std::string out(text.size() * 3 + 1, '\0');
  char* end =
      uriEscapeExA(text.data(), text.data() + text.size(), out.data(), URI_FALSE, URI_FALSE);
  out.resize(static_cast<std::size_t>(end - out.data()));
  return out;
}

// Percent-encodes each "/"-separated piece of `path`, keeping the separators.
std::string percentEncodedPath(std::string_view path) {
  std::string out;
  out.reserve(path.size() + 16);
  std::size_t start = 0;
  while (true) {
    std::size_t slash = path.find('/', start);
    std::string_view piece = path.substr(
        start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
    out += percentEncoded(piece);
    if (slash == std::string_view::npos) {
      break;
    }
    out += '/';
    start = slash + 1;
  }
  return out;
}

// Where the path ends in `text`: at the "?" of the query, else the "#" of the fragment, else at
// the end. The query and fragment ranges point just past their delimiters.
std::size_t pathEnd(const ParsedUri& parsed, std::string_view text) {
  const UriUriA& uri = parsed.uri();
  if (uri.query.first != nullptr) {
    return static_cast<std::size_t>(uri.query.first - text.data()) - 1;
  }
  if (uri.fragment.first != nullptr) {
    return static_cast<std::size_t>(uri.fragment.first - text.data()) - 1;
  }
  return text.size();
}

std::string schemeOf(const ParsedUri& parsed) {
  std::string result(rangeText(parsed.uri().scheme));
  std::transform(result.begin(), result.end(), result.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return result;
}

std::string pathOf(const ParsedUri& parsed) {
  const UriUriA& uri = parsed.uri();
  if (uri.pathHead == nullptr) {
    return {};
  }
  std::string result;
  if (uri.absolutePath || uri.hostText.first != nullptr) {
    result += '/';
  }
  bool first = true;
  for (const UriPathSegmentA* segment = uri.pathHead; segment != nullptr; segment = segment->next) {
    if (!first) {
      result += '/';
    }
    first = false;
    // Decoded in place at the end of the result: no string per segment.
    const std::size_t start = result.size();
    result += rangeText(segment->text);
    const char* end = uriUnescapeInPlaceExA(result.data() + start, URI_FALSE, URI_BR_DONT_TOUCH);
    result.resize(static_cast<std::size_t>(end - result.data()));
  }
  return result;
}

}  // namespace

namespace {

constexpr std::string_view kPlainFilePrefix = "file:///";

// Whether `c` may stand for itself in a path segment (RFC 3986 pchar: unreserved, sub-delims,
// ":" and "@"), so that it needs no decoding and ends no path.
constexpr bool isPlainPathCharacter(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))
    return true;
  switch (c) {
    case '-':
    case '.':
    case '_':
    case '~':  // unreserved
    case '!':
    case '$':
    case '&':
    case '\'':
    case '(':
    case ')':  // sub-delims
    case '*':
    case '+':
    case ',':
    case ';':
    case '=':
    case ':':
    case '@':
    case '/':
      return true;
    default:
      return false;
  }
}

// A file URL with an empty host whose path has nothing to decode and no query or fragment:
// its path is the text after "file://", exactly what the full parse makes of it. Nearly
// every URL a request carries is one, and this spares each a parse that costs more than the
// rest of decoding the request.
bool isPlainFileUrl(std::string_view text) {
  if (!text.starts_with(kPlainFilePrefix))
    return false;
  return std::all_of(text.begin() + kPlainFilePrefix.size(), text.end(),
                     [](char c) { return isPlainPathCharacter(static_cast<unsigned char>(c)); });
}

}  // namespace

std::optional<Url> Url::fromString(std::string_view absoluteString) {
  if (isPlainFileUrl(absoluteString)) {
    return Url(std::string(absoluteString), "file",
               std::string(absoluteString.substr(kPlainFilePrefix.size() - 1)));
  }
  return fromStringParsedInFull(absoluteString);
}

std::optional<Url> Url::fromStringParsedInFull(std::string_view absoluteString) {
  ParsedUri parsed(absoluteString);
  if (!parsed.hasScheme()) {
    return std::nullopt;
  }
  // The two answers asked for on every request are taken from this one parse.
  return Url(std::string(absoluteString), schemeOf(parsed), pathOf(parsed));
}

std::optional<Url> Url::fileUrlWithPath(std::string_view path, bool isDirectory) {
  if (path.empty() || path.front() != '/' || path.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  std::string text = "file://" + percentEncodedPath(path);
  if (isDirectory && text.back() != '/') {
    text += '/';
  }
  return fromString(text);
}

std::string Url::lastPathComponent() const {
  ParsedUri parsed(absoluteString());
  std::string_view last;
  for (const UriPathSegmentA* segment = parsed.uri().pathHead; segment != nullptr;
       segment = segment->next) {
    std::string_view text = rangeText(segment->text);
    if (!text.empty()) {
      last = text;
    }
  }
  return percentDecoded(last);
}

bool Url::hasDirectoryPath() const {
  ParsedUri parsed(absoluteString());
  const UriPathSegmentA* tail = parsed.uri().pathTail;
  return tail != nullptr && rangeText(tail->text).empty();
}

std::optional<Url> Url::appendingPathComponent(std::string_view component, bool isDirectory) const {
  if (component.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  ParsedUri parsed(absoluteString());
  if (!parsed.ok()) {
    return std::nullopt;
  }
  std::string_view text = absoluteString();
  std::size_t end = pathEnd(parsed, text);
  std::string result(text.substr(0, end));
  if (result.empty() || result.back() != '/') {
    result += '/';
  }
  // A leading "/" in the component would double the separator.
  while (!component.empty() && component.front() == '/') {
    component.remove_prefix(1);
  }
  result += percentEncodedPath(component);
  if (isDirectory && result.back() != '/') {
    result += '/';
  }
  result += text.substr(end);
  return fromString(result);
}

std::optional<Url> Url::deletingLastPathComponent() const {
  ParsedUri parsed(absoluteString());
  if (!parsed.ok()) {
    return std::nullopt;
  }
  std::string_view text = absoluteString();
  // Empty segments carry text pointers outside `text`, so only non-empty ones are located.
  const char* lastStart = nullptr;
  for (const UriPathSegmentA* segment = parsed.uri().pathHead; segment != nullptr;
       segment = segment->next) {
    if (!rangeText(segment->text).empty()) {
      lastStart = segment->text.first;
    }
  }
  if (lastStart == nullptr) {
    // Nothing to delete: the root ("file:///") stays as it is.
    if (hasDirectoryPath()) {
      return *this;
    }
    return std::nullopt;
  }
  std::size_t start = static_cast<std::size_t>(lastStart - text.data());
  std::string result(text.substr(0, start));
  if (result.empty() || result.back() != '/') {
    // A rootless path ("mailto:x") has no directory to return.
    return std::nullopt;
  }
  result += text.substr(pathEnd(parsed, text));
  return fromString(result);
}

}  // namespace daskel::platform
