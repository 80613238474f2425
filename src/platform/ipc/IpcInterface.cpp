#include "platform/ipc/IpcInterface.h"

#include <algorithm>
#include <cassert>

#include "platform/errors/DKErrors.h"

namespace daskel::platform {

namespace {

ErrorPtr refused(const std::string& why) {
  return IpcError(IpcErrorCode::MessageRefused, why);
}

constexpr Value::Type kAllTypes[] = {
    Value::Type::Null,       Value::Type::Boolean, Value::Type::Integer, Value::Type::Real,
    Value::Type::String,     Value::Type::Data,    Value::Type::Url,     Value::Type::Array,
    Value::Type::Dictionary, Value::Type::Error,
};

const char* className(Value::Type type) {
  switch (type) {
    case Value::Type::Null:
      return "nil";
    case Value::Type::Boolean:
      return "Boolean";
    case Value::Type::Integer:
      return "Integer";
    case Value::Type::Real:
      return "Real";
    case Value::Type::String:
      return "String";
    case Value::Type::Data:
      return "Data";
    case Value::Type::Url:
      return "URL";
    case Value::Type::Array:
      return "Array";
    case Value::Type::Dictionary:
      return "Dictionary";
    case Value::Type::Error:
      return "Error";
  }
  return "?";
}

std::string withArticle(Value::Type type) {
  // By sound: "an Integer", "a URL".
  const bool an =
      type == Value::Type::Integer || type == Value::Type::Array || type == Value::Type::Error;
  return (an ? "an " : "a ") + std::string(className(type));
}

// Where a value sits, for a refusal text; built only when one is needed.
struct Place {
  std::string_view selector;
  std::size_t index;
  bool isReply;

  std::string text() const {
    return std::string(isReply ? "reply value " : "argument ") + std::to_string(index) + " of " +
           std::string(selector);
  }
};

Result<void> checkValue(const Value& value, ClassSet allowed, const Place& place, int depth) {
  const Value::Type type = value.type();
  if (!allowed.allows(type)) {
    std::string why = place.text() + ": ";
    why += depth == 0 ? "is " : "holds ";
    why += withArticle(type) + " where only " + allowed.description() + " is allowed";
    if (depth > 0) {
      why += " (depth " + std::to_string(depth) + ")";
    }
    return failure(refused(why));
  }
  if (type == Value::Type::Array) {
    for (const Value& element : *value.array()) {
      if (auto result = checkValue(element, allowed, place, depth + 1); !result) {
        return result;
      }
    }
  } else if (type == Value::Type::Dictionary) {
    for (const auto& [key, element] : *value.dictionary()) {
      if (auto result = checkValue(element, allowed, place, depth + 1); !result) {
        return result;
      }
    }
  }
  return {};
}

Result<void> checkValues(const Value::Array& values,
                         const std::vector<ClassSet>& allowed,
                         std::string_view selector,
                         bool isReply) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (auto result = checkValue(values[i], allowed[i], Place{selector, i, isReply}, 0); !result) {
      return result;
    }
  }
  return {};
}

std::string count(std::size_t n, const char* noun) {
  return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}

}  // namespace

std::string ClassSet::description() const {
  std::vector<const char*> names;
  for (Value::Type type : kAllTypes) {
    if (type != Value::Type::Null && allows(type)) {
      names.push_back(className(type));
    }
  }
  if (names.empty()) {
    return "nil";
  }
  std::string text = names.front();
  for (std::size_t i = 1; i < names.size(); ++i) {
    text += (i + 1 == names.size()) ? " or " : ", ";
    text += names[i];
  }
  return text;
}

IpcInterface::Builder::Builder(std::string protocolName) : name_(std::move(protocolName)) {}

IpcInterface::Builder& IpcInterface::Builder::operation(std::string selector,
                                                        std::vector<ClassSet> arguments,
                                                        std::vector<ClassSet> replyValues) {
  return add(Operation{std::move(selector), std::move(arguments), true, std::move(replyValues)});
}

IpcInterface::Builder& IpcInterface::Builder::operationWithoutReply(
    std::string selector,
    std::vector<ClassSet> arguments) {
  return add(Operation{std::move(selector), std::move(arguments), false, {}});
}

IpcInterface::Builder& IpcInterface::Builder::add(Operation operation) {
  // A selector has one piece per argument, the reply block included.
  assert(static_cast<std::size_t>(
             std::count(operation.selector.begin(), operation.selector.end(), ':')) ==
             operation.arguments.size() + (operation.hasReply ? 1 : 0) &&
         "selector pieces do not match the declared arguments");
  assert(!operations_.contains(operation.selector) && "operation declared twice");
  std::string selector = operation.selector;
  operations_.insert_or_assign(std::move(selector), std::move(operation));
  return *this;
}

IpcInterface IpcInterface::Builder::build() const {
  return IpcInterface(name_, operations_);
}

IpcInterface::IpcInterface(std::string protocolName) : name_(std::move(protocolName)) {}

IpcInterface::IpcInterface(std::string protocolName,
                           std::map<std::string, Operation, std::less<>> operations)
    : name_(std::move(protocolName)), operations_(std::move(operations)) {}

const IpcInterface::Operation* IpcInterface::operation(std::string_view selector) const {
  const auto found = operations_.find(selector);
  return found == operations_.end() ? nullptr : &found->second;
}

Result<void> IpcInterface::setClasses(ClassSet classes,
                                      std::string_view selector,
                                      std::size_t index,
                                      bool isReply) {
  const auto found = operations_.find(selector);
  if (found == operations_.end()) {
    return failure(refused(name_ + " has no operation " + std::string(selector)));
  }
  std::vector<ClassSet>& places = isReply ? found->second.replyValues : found->second.arguments;
  if (index >= places.size()) {
    return failure(refused(std::string(selector) + " has no " +
                           (isReply ? "reply value " : "argument ") + std::to_string(index)));
  }
  places[index] = classes;
  return {};
}

Result<void> IpcInterface::check(const Request& request) const {
  const Operation* declared = operation(request.op);
  if (declared == nullptr) {
    return failure(refused(name_ + " has no operation \"" +
                           request.op.substr(0, std::min<std::size_t>(request.op.size(), 128)) +
                           "\""));
  }
  if (request.args.size() != declared->arguments.size()) {
    return failure(refused(request.op + " takes " + count(declared->arguments.size(), "argument") +
                           ", the message has " + std::to_string(request.args.size())));
  }
  if (declared->hasReply && !request.reply) {
    return failure(refused(request.op + " takes a reply block, the message has no reply id"));
  }
  if (!declared->hasReply && request.reply) {
    return failure(refused(request.op + " takes no reply block, the message has a reply id"));
  }
  return checkValues(request.args, declared->arguments, request.op, false);
}

Result<void> IpcInterface::checkReply(std::string_view selector, const Value::Array& values) const {
  const Operation* declared = operation(selector);
  if (declared == nullptr) {
    return failure(refused(name_ + " has no operation \"" + std::string(selector) + "\""));
  }
  if (!declared->hasReply) {
    return failure(refused(std::string(selector) + " takes no reply block"));
  }
  if (values.size() != declared->replyValues.size()) {
    return failure(refused("the reply to " + std::string(selector) + " takes " +
                           count(declared->replyValues.size(), "value") + ", the message has " +
                           std::to_string(values.size())));
  }
  return checkValues(values, declared->replyValues, selector, true);
}

}  // namespace daskel::platform
