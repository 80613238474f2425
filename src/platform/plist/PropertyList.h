// Property lists: reading XML or binary property lists (libplist) into Values, and writing
// XML property lists, atomically, with a streaming writer of our own (libplist's tree builder
// costs several times the write itself for large lists).
//
// THREADING NOTES: free functions without shared state; safe from any thread.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel::platform {

// Errors of property-list parsing that are not POSIX errors.
inline constexpr char kPropertyListErrorDomain[] = "com.orvane.plist";
enum class PropertyListErrorCode : std::int64_t {
  Malformed = 1,  // not a property list, or a damaged one
  TooDeep = 2,    // containers nested deeper than kMaxPropertyListNesting
  TooLarge = 3,   // more bytes or (binary) objects than a reader takes on
};
// Arrays and dictionaries nested deeper than this are refused on input.
inline constexpr int kMaxPropertyListNesting = 512;

// Parses XML or binary property-list bytes. Dates become reals (seconds since 2001-01-01),
// unsigned integers above INT64_MAX reals, UIDs integers. Fails with an error that says why.
Result<Value> parsePropertyList(std::span<const std::uint8_t> bytes);
// Reads and parses a whole file. A missing file fails with an error whose code is ENOENT in
// the POSIX domain.
Result<Value> readPropertyListFile(const std::string& path);

// The XML form of `value`. Errors are written as dictionaries (domain, code, userInfo), URLs
// as their absolute strings, null as an empty string.
std::string serializeXmlPropertyList(const Value& value);

// Writes the XML form of `value` to `path` atomically (see writeFileAtomically).
Result<void> writePropertyListAtomically(const Value& value, const std::string& path);

// Replaces `path` with `bytes` so that a reader or a crash (even kill -9 or power loss after
// this returns) sees either the old or the new content: writes a temporary file in the same
// directory, fsyncs it, renames it over `path`, fsyncs the directory.
Result<void> writeFileAtomically(const std::string& path, std::string_view bytes);

// A streaming writer of XML property lists with correct escaping. The caller emits a
// well-formed sequence (a key before every dictionary value); finish() returns the document.
class XmlPropertyListWriter {
 public:
  XmlPropertyListWriter();
  // Writes into `buffer` (cleared first), reusing its memory: a caller that serialises often
  // hands back the string finish() gave it last time and saves the page faults of a fresh one.
  explicit XmlPropertyListWriter(std::string&& buffer);
  // A writer of a fragment: no document header or footer, elements indented as if `depth`
  // containers were open. finish() returns just the fragment.
  static XmlPropertyListWriter fragment(int depth);
  void beginDictionary();
  void endDictionary();
  void beginArray();
  void endArray();
  void key(std::string_view key);
  void string(std::string_view text);
  void integer(std::int64_t value);
  void real(double value);
  void boolean(bool value);
  void data(std::span<const std::uint8_t> bytes);
  void value(const Value& value);
  // Appends XML that a fragment writer produced at this writer's depth.
  void raw(std::string_view xml) { out_ += xml; }
  // Reserves room for about `bytes` of output.
  void reserve(std::size_t bytes);
  std::string finish();

 private:
  void indent();
  std::string out_;
  int depth_ = 0;
  bool isFragment_ = false;
};

// Appends `text` to `out` with &, <, > escaped; characters XML 1.0 cannot hold are dropped.
void appendXmlEscaped(std::string& out, std::string_view text);

}  // namespace daskel::platform
