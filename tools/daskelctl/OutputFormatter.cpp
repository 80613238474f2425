#include "tools/daskelctl/OutputFormatter.h"

#include <cstdio>

namespace daskel::ctl {

using platform::ErrorPtr;
using platform::Value;

namespace {

constexpr char kIndent[] = "  ";
constexpr char kNone[] = "(none)";

std::string hex(const Value::Data& data) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(data.size() * 2);
  for (std::uint8_t byte : data) {
    text.push_back(kDigits[byte >> 4]);
    text.push_back(kDigits[byte & 0x0f]);
  }
  return text;
}

void appendError(std::string& out,
                 const ErrorPtr& error,
                 const std::string& indent,
                 bool withDescription = true);

// One value under `name`: scalars on the name's line, containers and errors below it.
void appendNamed(std::string& out,
                 const std::string& name,
                 const Value& value,
                 const std::string& indent) {
  out += indent + OutputFormatter::printable(name) + ":";
  switch (value.type()) {
    case Value::Type::Null:
      out += std::string(" ") + kNone + "\n";
      return;
    case Value::Type::Boolean:
      out += *value.boolean() ? " true\n" : " false\n";
      return;
    case Value::Type::Integer:
    case Value::Type::Real:
    case Value::Type::String:
    case Value::Type::Url:
      out += " " + OutputFormatter::printable(value.description()) + "\n";
      return;
    case Value::Type::Data:
      out += " <" + std::to_string(value.data()->size()) + " bytes: " + hex(*value.data()) + ">\n";
      return;
    case Value::Type::Array: {
      const auto& array = *value.array();
      if (array.empty()) {
        out += " (empty)\n";
        return;
      }
      out += "\n";
      for (std::size_t i = 0; i < array.size(); ++i) {
        appendNamed(out, "[" + std::to_string(i) + "]", array[i], indent + kIndent);
      }
      return;
    }
    case Value::Type::Dictionary: {
      const auto& dictionary = *value.dictionary();
      if (dictionary.empty()) {
        out += " (empty)\n";
        return;
      }
      out += "\n";
      for (const auto& [key, entry] : dictionary) {
        appendNamed(out, key, entry, indent + kIndent);
      }
      return;
    }
    case Value::Type::Error:
      out += "\n";
      appendError(out, value.error(), indent + kIndent);
      return;
  }
}

// The error's description (unless the caller showed it already), domain and code, then its
// other userInfo entries.
void appendError(std::string& out,
                 const ErrorPtr& error,
                 const std::string& indent,
                 bool withDescription) {
  if (withDescription) {
    out +=
        indent + "description: " + OutputFormatter::printable(error->localizedDescription()) + "\n";
  }
  out += indent + "domain: " + OutputFormatter::printable(error->domain) + "\n";
  out += indent + "code: " + std::to_string(error->code) + "\n";
  for (const auto& [key, value] : error->userInfo) {
    if (key != platform::kErrorDescriptionKey) {
      appendNamed(out, key, value, indent);
    }
  }
}

}  // namespace

std::string OutputFormatter::printable(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\\') {
      out += "\\\\";
    } else if (byte < 0x20 || byte == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out;
}

nlohmann::json OutputFormatter::toJson(const Value& value) {
  switch (value.type()) {
    case Value::Type::Null:
      return nullptr;
    case Value::Type::Boolean:
      return *value.boolean();
    case Value::Type::Integer:
      return *value.integer();
    case Value::Type::Real:
      return *value.real();
    case Value::Type::String:
      return *value.string();
    case Value::Type::Url:
      return value.url()->absoluteString();
    case Value::Type::Data:
      return nlohmann::json{{"hex", hex(*value.data())}};
    case Value::Type::Array: {
      nlohmann::json array = nlohmann::json::array();
      for (const Value& element : *value.array()) {
        array.push_back(toJson(element));
      }
      return array;
    }
    case Value::Type::Dictionary: {
      nlohmann::json object = nlohmann::json::object();
      for (const auto& [key, entry] : *value.dictionary()) {
        object[key] = toJson(entry);
      }
      return object;
    }
    case Value::Type::Error:
      return errorToJson(value.error());
  }
  return nullptr;
}

nlohmann::json OutputFormatter::errorToJson(const ErrorPtr& error) {
  if (!error) {
    return nullptr;
  }
  nlohmann::json userInfo = nlohmann::json::object();
  for (const auto& [key, value] : error->userInfo) {
    userInfo[key] = toJson(value);
  }
  return nlohmann::json{{"domain", error->domain},
                        {"code", error->code},
                        {"description", error->localizedDescription()},
                        {"userInfo", std::move(userInfo)}};
}

std::string OutputFormatter::readableOutput(const CommandOutcome& outcome) {
  if (outcome.succeeded() && outcome.rawOutput) {
    return *outcome.rawOutput;
  }
  if (outcome.succeeded() && !outcome.summary.empty()) {
    return printable(outcome.summary) + "\n";
  }
  std::string out;
  for (const auto& [name, value] : outcome.fields) {
    if (outcome.succeeded() || !value.isNull()) {
      appendNamed(out, name, value, "");
    }
  }
  return out;
}

std::string OutputFormatter::jsonOutput(const CommandOutcome& outcome) {
  nlohmann::json result = nlohmann::json::object();
  for (const auto& [name, value] : outcome.fields) {
    result[name] = toJson(value);
  }
  nlohmann::json document{{"command", outcome.command},
                          {"ok", outcome.succeeded()},
                          {"exitStatus", exitCode(outcome.status)},
                          {"result", std::move(result)}};
  if (outcome.error) {
    document["error"] = errorToJson(outcome.error);
  }
  // Replace, not throw, on bytes that are not UTF-8: paths and tokens are bytes.
  return document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string OutputFormatter::standardOutput(const CommandOutcome& outcome, bool json) {
  return json ? jsonOutput(outcome) : readableOutput(outcome);
}

std::string OutputFormatter::errorReport(const std::string& command, const ErrorPtr& error) {
  std::string out =
      "daskelctl: " + command + ": " + printable(error->localizedDescription()) + "\n";
  appendError(out, error, kIndent, /*withDescription=*/false);
  return out;
}

std::string OutputFormatter::standardError(const CommandOutcome& outcome) {
  if (!outcome.error) {
    return {};
  }
  return errorReport(outcome.command, outcome.error);
}

}  // namespace daskel::ctl
