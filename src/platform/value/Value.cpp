#include "platform/value/Value.h"

#include <charconv>
#include <cmath>
#include <string>

#include "platform/value/Error.h"

namespace daskel::platform {
namespace {

constexpr std::string_view kIndentUnit = "    ";
// Data longer than this prints its first and last bytes only.
constexpr std::size_t kDataFullDescriptionLimit = 24;
constexpr std::size_t kDataHeadBytes = 16;
constexpr std::size_t kDataTailBytes = 4;

void appendHex(std::string& out, const std::uint8_t* bytes, std::size_t count) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (std::size_t i = 0; i < count; ++i) {
    out += kDigits[bytes[i] >> 4];
    out += kDigits[bytes[i] & 0x0f];
  }
}

void appendIndent(std::string& out, int level) {
  for (int i = 0; i < level; ++i) {
    out += kIndentUnit;
  }
}

// Inside a container a string is quoted when it could be misread (empty, or holding anything
// but letters, digits and "_$/:.-"), so that "a, b" is told apart from two elements.
bool needsQuotes(std::string_view text) {
  if (text.empty()) {
    return true;
  }
  for (unsigned char c : text) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '_' || c == '$' || c == '/' || c == ':' || c == '.' || c == '-' || c >= 0x80;
    if (!plain) {
      return true;
    }
  }
  return false;
}

void appendQuotedIfNeeded(std::string& out, std::string_view text) {
  if (!needsQuotes(text)) {
    out += text;
    return;
  }
  out += '"';
  for (char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        out += c;
    }
  }
  out += '"';
}

void appendDescription(std::string& out, const Value& value, int level, bool nested);

void appendContainerElement(std::string& out, const Value& value, int level) {
  if (const std::string* text = value.string()) {
    appendQuotedIfNeeded(out, *text);
  } else {
    appendDescription(out, value, level, true);
  }
}

void appendDescription(std::string& out, const Value& value, int level, bool nested) {
  switch (value.type()) {
    case Value::Type::Null:
      out += "(null)";
      return;
    case Value::Type::Boolean:
      out += *value.boolean() ? "1" : "0";
      return;
    case Value::Type::Integer: {
      char buffer[24];
      auto result = std::to_chars(buffer, buffer + sizeof buffer, *value.integer());
      out.append(buffer, result.ptr);
      return;
    }
    case Value::Type::Real: {
      char buffer[32];
      auto result = std::to_chars(buffer, buffer + sizeof buffer, *value.real());
      out.append(buffer, result.ptr);
      return;
    }
    case Value::Type::String:
      if (nested) {
        appendQuotedIfNeeded(out, *value.string());
      } else {
        out += *value.string();
      }
      return;
    case Value::Type::Data: {
      const Value::Data& data = *value.data();
      out += "{length = ";
      out += std::to_string(data.size());
      out += ", bytes = 0x";
      if (data.size() <= kDataFullDescriptionLimit) {
        appendHex(out, data.data(), data.size());
      } else {
        appendHex(out, data.data(), kDataHeadBytes);
        out += " ... ";
        appendHex(out, data.data() + data.size() - kDataTailBytes, kDataTailBytes);
      }
      out += '}';
      return;
    }
    case Value::Type::Url:
      out += value.url()->absoluteString();
      return;
    case Value::Type::Array: {
      const Value::Array& array = *value.array();
      out += "(\n";
      for (std::size_t i = 0; i < array.size(); ++i) {
        appendIndent(out, level + 1);
        appendContainerElement(out, array[i], level + 1);
        out += i + 1 < array.size() ? ",\n" : "\n";
      }
      appendIndent(out, level);
      out += ')';
      return;
    }
    case Value::Type::Dictionary: {
      out += "{\n";
      for (const auto& [key, element] : *value.dictionary()) {
        appendIndent(out, level + 1);
        appendQuotedIfNeeded(out, key);
        out += " = ";
        appendContainerElement(out, element, level + 1);
        out += ";\n";
      }
      appendIndent(out, level);
      out += '}';
      return;
    }
    case Value::Type::Error:
      out += value.error()->description();
      return;
  }
}

}  // namespace

Value::Value(Array a) : storage_(std::make_shared<const Array>(std::move(a))) {}

Value::Value(Dictionary d) : storage_(std::make_shared<const Dictionary>(std::move(d))) {}

Value::Value(ErrorPtr e) {
  if (e) {
    storage_ = std::move(e);
  }
}

Value::Type Value::type() const {
  // The variant's alternatives are declared in the order of Type.
  return static_cast<Type>(storage_.index());
}

std::optional<bool> Value::boolean() const {
  if (const bool* b = std::get_if<bool>(&storage_)) {
    return *b;
  }
  return std::nullopt;
}

std::optional<std::int64_t> Value::integer() const {
  if (const std::int64_t* i = std::get_if<std::int64_t>(&storage_)) {
    return *i;
  }
  return std::nullopt;
}

std::optional<double> Value::real() const {
  if (const double* d = std::get_if<double>(&storage_)) {
    return *d;
  }
  return std::nullopt;
}

const std::string* Value::string() const {
  return std::get_if<std::string>(&storage_);
}

const Value::Data* Value::data() const {
  return std::get_if<Data>(&storage_);
}

const Url* Value::url() const {
  return std::get_if<Url>(&storage_);
}

const Value::Array* Value::array() const {
  if (const auto* p = std::get_if<std::shared_ptr<const Array>>(&storage_)) {
    return p->get();
  }
  return nullptr;
}

const Value::Dictionary* Value::dictionary() const {
  if (const auto* p = std::get_if<std::shared_ptr<const Dictionary>>(&storage_)) {
    return p->get();
  }
  return nullptr;
}

ErrorPtr Value::error() const {
  if (const ErrorPtr* p = std::get_if<ErrorPtr>(&storage_)) {
    return *p;
  }
  return nullptr;
}

const Value* Value::find(std::string_view key) const {
  const Dictionary* dict = dictionary();
  if (dict == nullptr) {
    return nullptr;
  }
  auto it = dict->find(key);
  return it == dict->end() ? nullptr : &it->second;
}

bool Value::isTrueNumber() const {
  switch (type()) {
    case Type::Boolean:
      return *boolean();
    case Type::Integer:
      return *integer() != 0;
    case Type::Real: {
      // NaN is not a number that anyone set on purpose; it grants nothing.
      double d = *real();
      return !std::isnan(d) && d != 0.0;
    }
    default:
      return false;
  }
}

std::string Value::description() const {
  std::string out;
  appendDescription(out, *this, 0, false);
  return out;
}

bool Value::operator==(const Value& other) const {
  if (storage_.index() != other.storage_.index()) {
    return false;
  }
  switch (type()) {
    case Type::Array: {
      const Array* a = array();
      const Array* b = other.array();
      return a == b || *a == *b;
    }
    case Type::Dictionary: {
      const Dictionary* a = dictionary();
      const Dictionary* b = other.dictionary();
      return a == b || *a == *b;
    }
    case Type::Error: {
      ErrorPtr a = error();
      ErrorPtr b = other.error();
      return a == b || *a == *b;
    }
    case Type::Real: {
      // A value equals its own copy, NaN included.
      double a = *real();
      double b = *other.real();
      return a == b || (std::isnan(a) && std::isnan(b));
    }
    default:
      return storage_ == other.storage_;
  }
}

std::string_view Value::typeName(Type type) {
  switch (type) {
    case Type::Null:
      return "null";
    case Type::Boolean:
      return "boolean";
    case Type::Integer:
      return "integer";
    case Type::Real:
      return "real";
    case Type::String:
      return "string";
    case Type::Data:
      return "data";
    case Type::Url:
      return "URL";
    case Type::Array:
      return "array";
    case Type::Dictionary:
      return "dictionary";
    case Type::Error:
      return "error";
  }
  return "unknown";
}

}  // namespace daskel::platform
