// Value: the one value model of Daskel, shared by property-list files, the IPC wire and
// Info.plist dictionaries.
//
// A Value is immutable and cheap to copy: scalars are held inline, containers and errors
// behind shared pointers to constant data, so a Value may be read from any number of threads
// at once. Build a container as an Array or Dictionary first, then wrap it.
//
// description() is the text that "%@" prints in a log line: a string as it is (no quotes),
// a URL its absolute string, null "(null)".
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "platform/url/Url.h"

namespace daskel::platform {

struct Error;
using ErrorPtr = std::shared_ptr<const Error>;

class Value {
 public:
  enum class Type { Null, Boolean, Integer, Real, String, Data, Url, Array, Dictionary, Error };

  using Array = std::vector<Value>;
  // Keys are kept sorted, which makes every serialisation of a dictionary deterministic.
  using Dictionary = std::map<std::string, Value, std::less<>>;
  using Data = std::vector<std::uint8_t>;

  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool b) : storage_(b) {}
  template <typename T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool>)
  Value(T i) : storage_(static_cast<std::int64_t>(i)) {}
  Value(double d) : storage_(d) {}
  Value(const char* s) : storage_(std::string(s)) {}
  Value(std::string s) : storage_(std::move(s)) {}
  Value(std::string_view s) : storage_(std::string(s)) {}
  Value(Data d) : storage_(std::move(d)) {}
  Value(Url u) : storage_(std::move(u)) {}
  Value(Array a);
  Value(Dictionary d);
  // A null error pointer makes a null value.
  Value(ErrorPtr e);

  Type type() const;
  bool isNull() const { return type() == Type::Null; }

  // Typed accessors: nullptr / nullopt when the value is of another type.
  std::optional<bool> boolean() const;
  std::optional<std::int64_t> integer() const;
  std::optional<double> real() const;
  const std::string* string() const;
  const Data* data() const;
  const Url* url() const;
  const Array* array() const;
  const Dictionary* dictionary() const;
  ErrorPtr error() const;

  // Dictionary look-up; nullptr when this is not a dictionary or the key is absent.
  const Value* find(std::string_view key) const;

  // Booleans, integers and reals are "numbers"; true or non-zero counts as set. A string
  // never does. This is the test applied to entitlement values.
  bool isTrueNumber() const;

  std::string description() const;

  bool operator==(const Value& other) const;

  static std::string_view typeName(Type type);

 private:
  std::variant<std::monostate,
               bool,
               std::int64_t,
               double,
               std::string,
               Data,
               Url,
               std::shared_ptr<const Array>,
               std::shared_ptr<const Dictionary>,
               ErrorPtr>
      storage_;
};

}  // namespace daskel::platform
