// Url: an absolute URL, kept exactly as its absolute string was given (no side normalises
// URLs), with the few questions Daskel asks of it. Parsing uses uriparser (RFC 3986).
//
// Immutable value type; safe to share between threads.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace daskel::platform {

class Url {
 public:
  // Parses an absolute URI (it must have a scheme). nullopt when the text is not one.
  static std::optional<Url> fromString(std::string_view absoluteString);
  // fromString() without its shortcut for plain file URLs: every text through uriparser. For
  // tests, which check that both read every text alike.
  static std::optional<Url> fromStringParsedInFull(std::string_view absoluteString);
  // A file URL for an absolute path, percent-encoded ("a b" -> "a%20b"). A directory URL
  // ends in "/". nullopt for a relative path or one holding a NUL.
  static std::optional<Url> fileUrlWithPath(std::string_view path, bool isDirectory);

  const std::string& absoluteString() const { return parts_->absoluteString; }
  const std::string& scheme() const { return parts_->scheme; }  // lower case
  bool isFileUrl() const { return parts_->scheme == "file"; }
  // The percent-decoded path; for a file URL, the file-system path ("" when none).
  const std::string& path() const { return parts_->path; }
  // The last non-empty path component, percent-decoded ("" for "/").
  std::string lastPathComponent() const;
  bool hasDirectoryPath() const;  // the path ends in "/"
  // This URL's path with one component appended; nullopt if the result is not a valid URL.
  std::optional<Url> appendingPathComponent(std::string_view component, bool isDirectory) const;
  // The same URL without its last path component, ending in "/".
  std::optional<Url> deletingLastPathComponent() const;

  const std::string& description() const { return parts_->absoluteString; }

  // The same text is the same URL (the rest is derived from it).
  bool operator==(const Url& other) const {
    return parts_ == other.parts_ || parts_->absoluteString == other.parts_->absoluteString;
  }

  // Copies share the parsed text (a URL goes through many hands per request, and copying
  // three strings each time was most of what it cost). No moves: a copy is as cheap, and a
  // URL is never left empty.
  Url(const Url&) = default;
  Url& operator=(const Url&) = default;

 private:
  struct Parts {
    std::string absoluteString;
    // Derived from absoluteString when it is parsed.
    std::string scheme;
    std::string path;
  };
  Url(std::string absoluteString, std::string scheme, std::string path)
      : parts_(std::make_shared<const Parts>(
            Parts{std::move(absoluteString), std::move(scheme), std::move(path)})) {}
  std::shared_ptr<const Parts> parts_;  // never null
};

}  // namespace daskel::platform
