#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>

#include "platform/plist/PropertyList.h"
#include "platform/value/Error.h"

namespace daskel::platform {
namespace {

constexpr std::string_view kDocumentHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view kDocumentFooter = "</plist>\n";
constexpr std::size_t kBase64LineLength = 68;

// ASCII bytes that are copied as they are: printable characters but &, < and >, plus tab and
// line feed. Everything else below 0x80 is escaped (carriage return, which a conforming XML
// reader would otherwise turn into a line feed) or dropped (other control characters).
constexpr std::array<bool, 128> kPlainAscii = [] {
  std::array<bool, 128> table{};
  for (int c = 0x20; c < 0x80; ++c) {
    table[c] = true;
  }
  table['&'] = table['<'] = table['>'] = false;
  table['\t'] = table['\n'] = true;
  return table;
}();

// The length of the UTF-8 sequence at `p` (at most `available` bytes) if it encodes a
// character XML 1.0 can hold, else 0: overlong forms, surrogates, U+FFFE, U+FFFF and
// anything above U+10FFFF are refused.
std::size_t validXmlSequenceLength(const unsigned char* p, std::size_t available) {
  unsigned char lead = p[0];
  std::size_t length;
  char32_t codePoint;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    codePoint = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    codePoint = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    codePoint = lead & 0x07;
  } else {
    return 0;
  }
  if (available < length) {
    return 0;
  }
  for (std::size_t i = 1; i < length; ++i) {
    if ((p[i] & 0xC0) != 0x80) {
      return 0;
    }
    codePoint = (codePoint << 6) | (p[i] & 0x3F);
  }
  static constexpr char32_t kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
  if (codePoint < kMinimum[length] || codePoint > 0x10FFFF ||
      (codePoint >= 0xD800 && codePoint <= 0xDFFF) || codePoint == 0xFFFE || codePoint == 0xFFFF) {
    return 0;
  }
  return length;
}

void appendBase64Line(std::string& out, const std::uint8_t* bytes, std::size_t count) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::size_t i = 0;
  for (; i + 3 <= count; i += 3) {
    std::uint32_t group = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
    out += kAlphabet[(group >> 18) & 0x3F];
    out += kAlphabet[(group >> 12) & 0x3F];
    out += kAlphabet[(group >> 6) & 0x3F];
    out += kAlphabet[group & 0x3F];
  }
  if (std::size_t rest = count - i; rest > 0) {
    std::uint32_t group = bytes[i] << 16;
    if (rest == 2) {
      group |= bytes[i + 1] << 8;
    }
    out += kAlphabet[(group >> 18) & 0x3F];
    out += kAlphabet[(group >> 12) & 0x3F];
    out += rest == 2 ? kAlphabet[(group >> 6) & 0x3F] : '=';
    out += '=';
  }
}

bool endsWith(const std::string& text, std::string_view suffix) {
  return text.size() >= suffix.size() &&
         std::string_view(text).substr(text.size() - suffix.size()) == suffix;
}

}  // namespace

namespace {

// The longest form a byte of text can take once escaped ("&amp;", "&#13;").
constexpr std::size_t kMaxEscapedBytesPerByte = 5;

char* copy(char* out, std::string_view text) {
  if (text.empty()) {
    return out;  // an empty view may have no data pointer at all, which memcpy must not see
  }
  std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

// Writes `text` escaped at `out`, which has room for kMaxEscapedBytesPerByte bytes per byte of
// text, and returns the end. Writing through a pointer, rather than appending piece by piece,
// is what makes a large list cheap to serialise: the appends, not the scanning, dominated.
char* writeXmlEscaped(char* out, std::string_view text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t size = text.size();
  std::size_t i = 0;
  while (i < size) {
    unsigned char c = bytes[i];
    if (c < 0x80) {
      if (kPlainAscii[c]) {
        *out++ = static_cast<char>(c);
        ++i;
        continue;
      }
      switch (c) {
        case '&':
          out = copy(out, "&amp;");
          break;
        case '<':
          out = copy(out, "&lt;");
          break;
        case '>':
          out = copy(out, "&gt;");
          break;
        case '\r':
          out = copy(out, "&#13;");
          break;
        default:
          break;  // A control character XML cannot hold.
      }
      ++i;
      continue;
    }
    if (std::size_t length = validXmlSequenceLength(bytes + i, size - i)) {
      std::memcpy(out, bytes + i, length);
      out += length;
      i += length;
      continue;
    }
    ++i;  // Drop the byte that starts no valid character.
  }
  return out;
}

// Appends indentation, `open`, the escaped text and `close` in one step.
void appendElement(std::string& out,
                   int depth,
                   std::string_view open,
                   std::string_view text,
                   std::string_view close) {
  const std::size_t start = out.size();
  const std::size_t most = static_cast<std::size_t>(depth) + open.size() +
                           text.size() * kMaxEscapedBytesPerByte + close.size();
  out.resize_and_overwrite(start + most, [&](char* buffer, std::size_t) {
    char* w = buffer + start;
    std::memset(w, '\t', static_cast<std::size_t>(depth));
    w += depth;
    w = copy(w, open);
    w = writeXmlEscaped(w, text);
    w = copy(w, close);
    return static_cast<std::size_t>(w - buffer);
  });
}

}  // namespace

void appendXmlEscaped(std::string& out, std::string_view text) {
  appendElement(out, 0, {}, text, {});
}

XmlPropertyListWriter::XmlPropertyListWriter() {
  out_ += kDocumentHeader;
}

XmlPropertyListWriter XmlPropertyListWriter::fragment(int depth) {
  XmlPropertyListWriter writer;
  writer.out_.clear();
  writer.depth_ = depth;
  writer.isFragment_ = true;
  return writer;
}

XmlPropertyListWriter::XmlPropertyListWriter(std::string&& buffer) : out_(std::move(buffer)) {
  out_.clear();
  out_ += kDocumentHeader;
}

void XmlPropertyListWriter::indent() {
  out_.append(static_cast<std::size_t>(depth_), '\t');
}

void XmlPropertyListWriter::beginDictionary() {
  indent();
  out_ += "<dict>\n";
  ++depth_;
}

void XmlPropertyListWriter::endDictionary() {
  --depth_;
  // Nothing written since the opening tag (text content never holds a raw "<"): <dict/>.
  if (endsWith(out_, "<dict>\n")) {
    out_.resize(out_.size() - 2);
    out_ += "/>\n";
    return;
  }
  indent();
  out_ += "</dict>\n";
}

void XmlPropertyListWriter::beginArray() {
  indent();
  out_ += "<array>\n";
  ++depth_;
}

void XmlPropertyListWriter::endArray() {
  --depth_;
  if (endsWith(out_, "<array>\n")) {
    out_.resize(out_.size() - 2);
    out_ += "/>\n";
    return;
  }
  indent();
  out_ += "</array>\n";
}

void XmlPropertyListWriter::key(std::string_view key) {
  appendElement(out_, depth_, "<key>", key, "</key>\n");
}

void XmlPropertyListWriter::string(std::string_view text) {
  appendElement(out_, depth_, "<string>", text, "</string>\n");
}

void XmlPropertyListWriter::integer(std::int64_t value) {
  indent();
  char buffer[24];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out_ += "<integer>";
  out_.append(buffer, result.ptr);
  out_ += "</integer>\n";
}

void XmlPropertyListWriter::real(double value) {
  indent();
  out_ += "<real>";
  if (std::isnan(value)) {
    out_ += "nan";
  } else if (std::isinf(value)) {
    out_ += value > 0 ? "+infinity" : "-infinity";
  } else {
    // The shortest text that reads back as exactly this double.
    char buffer[32];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out_.append(buffer, result.ptr);
  }
  out_ += "</real>\n";
}

void XmlPropertyListWriter::boolean(bool value) {
  indent();
  out_ += value ? "<true/>\n" : "<false/>\n";
}

void XmlPropertyListWriter::data(std::span<const std::uint8_t> bytes) {
  indent();
  if (bytes.empty()) {
    out_ += "<data></data>\n";
    return;
  }
  out_ += "<data>\n";
  // Each line holds kBase64LineLength characters, that is three quarters as many bytes.
  constexpr std::size_t kBytesPerLine = kBase64LineLength / 4 * 3;
  for (std::size_t offset = 0; offset < bytes.size(); offset += kBytesPerLine) {
    indent();
    appendBase64Line(out_, bytes.data() + offset, std::min(kBytesPerLine, bytes.size() - offset));
    out_ += '\n';
  }
  indent();
  out_ += "</data>\n";
}

void XmlPropertyListWriter::value(const Value& value) {
  switch (value.type()) {
    case Value::Type::Null:
      string("");
      return;
    case Value::Type::Boolean:
      boolean(*value.boolean());
      return;
    case Value::Type::Integer:
      integer(*value.integer());
      return;
    case Value::Type::Real:
      real(*value.real());
      return;
    case Value::Type::String:
      string(*value.string());
      return;
    case Value::Type::Data:
      data(*value.data());
      return;
    case Value::Type::Url:
      string(value.url()->absoluteString());
      return;
    case Value::Type::Array:
      beginArray();
      for (const Value& element : *value.array()) {
        this->value(element);
      }
      endArray();
      return;
    case Value::Type::Dictionary:
      beginDictionary();
      for (const auto& [name, element] : *value.dictionary()) {
        key(name);
        this->value(element);
      }
      endDictionary();
      return;
    case Value::Type::Error: {
      ErrorPtr error = value.error();
      beginDictionary();
      key("code");
      integer(error->code);
      key("domain");
      string(error->domain);
      key("userInfo");
      beginDictionary();
      for (const auto& [name, element] : error->userInfo) {
        key(name);
        this->value(element);
      }
      endDictionary();
      endDictionary();
      return;
    }
  }
}

void XmlPropertyListWriter::reserve(std::size_t bytes) {
  out_.reserve(bytes);
}

std::string XmlPropertyListWriter::finish() {
  if (isFragment_) {
    return std::move(out_);
  }
  out_ += kDocumentFooter;
  std::string document = std::move(out_);
  // Ready for the next document.
  out_ = std::string(kDocumentHeader);
  depth_ = 0;
  return document;
}

}  // namespace daskel::platform
