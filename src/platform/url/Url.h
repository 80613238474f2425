// Url: an absolute URL, kept exactly as its absolute string was given (no side normalises
// URLs), with the few questions Daskel asks of it. Parsing uses uriparser (RFC 3986).
//
// Immutable value type; safe to share between threads.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace daskel::platform {

class Url {
 public:
  // Parses an absolute URI (it must have a scheme). nullopt when the text is not one.
  static std::optional<Url> fromString(std::string_view absoluteString);
  // A file URL for an absolute path, percent-encoded ("a b" -> "a%20b"). A directory URL
  // ends in "/". nullopt for a relative path or one holding a NUL.
  static std::optional<Url> fileUrlWithPath(std::string_view path, bool isDirectory);

  const std::string& absoluteString() const { return absoluteString_; }
  const std::string& scheme() const { return scheme_; }  // lower case
  bool isFileUrl() const { return scheme_ == "file"; }
  // The percent-decoded path; for a file URL, the file-system path ("" when none).
  const std::string& path() const { return path_; }
  // The last non-empty path component, percent-decoded ("" for "/").
  std::string lastPathComponent() const;
  bool hasDirectoryPath() const;  // the path ends in "/"
  // This URL's path with one component appended; nullopt if the result is not a valid URL.
  std::optional<Url> appendingPathComponent(std::string_view component, bool isDirectory) const;
  // The same URL without its last path component, ending in "/".
  std::optional<Url> deletingLastPathComponent() const;

  const std::string& description() const { return absoluteString_; }

  bool operator==(const Url& other) const = default;

 private:
  Url(std::string absoluteString, std::string scheme, std::string path)
      : absoluteString_(std::move(absoluteString)),
        scheme_(std::move(scheme)),
        path_(std::move(path)) {}
  std::string absoluteString_;
  // Derived from absoluteString_ when it is parsed, so equality still means the same text.
  std::string scheme_;
  std::string path_;
};

}  // namespace daskel::platform
