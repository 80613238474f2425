// IpcInterface: what one side of a connection accepts, built from a protocol description.
// For every operation (named by its full selector) it knows the classes allowed for each
// argument, whether the operation takes a reply block, and the classes allowed for each value
// passed to that block. Nil is allowed everywhere.
//
// A class set applies to the value itself and, for arrays and dictionaries, to every element
// at every depth (dictionary keys are always strings). An error is checked as an error: its
// userInfo may hold anything, since errors carry their constructors' arguments and the errors
// of extensions.
//
//   const IpcInterface daemon = IpcInterface::Builder("DKDaemon")
//       .operation("wakeUpCompletion:", {}, {})
//       .operation("fetchItemAtURL:completionHandler:", {Type::Url}, {Type::Url, Type::Error})
//       .operationWithoutReply("ping:", {Type::String})
//       .build();
//
// check/checkReply answer whether an incoming message fits; a refusal names the operation,
// the place and the offending class, ready for the one error line that precedes closing the
// connection. Failure: Result errors are IpcError(MessageRefused).
//
// THREADING NOTES: a built interface is immutable apart from setClasses; configure it before
// handing it to a connection, after which any thread may call check concurrently.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ipc/Message.h"
#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel::platform {

// A set of Value::Type; nil is always allowed whatever the set holds.
class ClassSet {
 public:
  constexpr ClassSet() = default;  // nil only
  constexpr ClassSet(Value::Type type) : bits_(bit(type)) {}
  constexpr ClassSet(std::initializer_list<Value::Type> types) {
    for (Value::Type type : types) {
      bits_ |= bit(type);
    }
  }
  static constexpr ClassSet any() {
    ClassSet all;
    all.bits_ = 0x3FF;
    return all;
  }

  constexpr bool allows(Value::Type type) const {
    return type == Value::Type::Null || (bits_ & bit(type)) != 0;
  }
  constexpr ClassSet operator|(ClassSet other) const {
    ClassSet both;
    both.bits_ = bits_ | other.bits_;
    return both;
  }
  constexpr bool operator==(const ClassSet& other) const = default;

  // "String", "String or URL", "Array, Dictionary or String"; "nil" for the empty set.
  std::string description() const;

 private:
  static constexpr std::uint16_t bit(Value::Type type) {
    return static_cast<std::uint16_t>(1u << static_cast<unsigned>(type));
  }
  std::uint16_t bits_ = 0;
};

constexpr ClassSet operator|(Value::Type a, Value::Type b) {
  return ClassSet(a) | ClassSet(b);
}

class IpcInterface {
 public:
  struct Operation {
    std::string selector;
    std::vector<ClassSet> arguments;  // without the reply block
    bool hasReply = false;
    std::vector<ClassSet> replyValues;
  };

  // Declares the operations of one protocol, then builds the interface.
  class Builder {
   public:
    explicit Builder(std::string protocolName);
    // An operation whose last selector piece is a reply block taking `replyValues`.
    Builder& operation(std::string selector,
                       std::vector<ClassSet> arguments,
                       std::vector<ClassSet> replyValues);
    // An operation without a reply block.
    Builder& operationWithoutReply(std::string selector, std::vector<ClassSet> arguments);
    IpcInterface build() const;

   private:
    Builder& add(Operation operation);
    std::string name_;
    std::map<std::string, Operation, std::less<>> operations_;
  };

  // An interface with no operations (a side that exports nothing).
  explicit IpcInterface(std::string protocolName);

  const std::string& name() const { return name_; }
  // nullptr when the interface has no such operation.
  const Operation* operation(std::string_view selector) const;

  // Replaces the classes of one argument (or, with isReply, one reply value) of `selector`.
  // Fails when there is no such operation or place.
  Result<void> setClasses(ClassSet classes,
                          std::string_view selector,
                          std::size_t index,
                          bool isReply = false);

  // Whether a request fits: a known operation, the declared number of arguments, a reply id
  // exactly when the operation takes a reply block, and allowed classes at every depth.
  Result<void> check(const Request& request) const;
  // Whether the values of a reply to `selector` fit its reply block.
  Result<void> checkReply(std::string_view selector, const Value::Array& values) const;

 private:
  IpcInterface(std::string protocolName, std::map<std::string, Operation, std::less<>> operations);

  std::string name_;
  std::map<std::string, Operation, std::less<>> operations_;
};

}  // namespace daskel::platform
