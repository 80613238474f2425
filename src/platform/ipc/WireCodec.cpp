#include "platform/ipc/WireCodec.h"

#include <cbor.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "platform/errors/DKErrors.h"

namespace daskel::platform {

namespace {

constexpr std::uint64_t kTagError = 27;
constexpr std::uint64_t kTagUrl = 32;
constexpr char kErrorMarker[] = "error";

ErrorPtr refused(const std::string& why) {
  return IpcError(IpcErrorCode::MessageRefused, why);
}

// A peer-chosen text quoted in a refusal, cut short (at a character boundary) so that a
// megabyte key does not become a megabyte log line.
std::string quoted(std::string_view text) {
  constexpr std::size_t kLimit = 64;
  if (text.size() <= kLimit) {
    return "\"" + std::string(text) + "\"";
  }
  std::size_t cut = kLimit;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) {
    --cut;
  }
  return "\"" + std::string(text.substr(0, cut)) + "...\"";
}

std::string depthRefusal() {
  return "nesting deeper than " + std::to_string(WireCodec::kMaxDepth) + " levels";
}

// ---- Encoding -----------------------------------------------------------------------------

double halfToDouble(std::uint16_t half) {
  const int exponent = (half >> 10) & 0x1F;
  const int mantissa = half & 0x3FF;
  double magnitude;
  if (exponent == 0) {
    magnitude = std::ldexp(mantissa, -24);
  } else if (exponent == 31) {
    magnitude = mantissa == 0 ? std::numeric_limits<double>::infinity()
                              : std::numeric_limits<double>::quiet_NaN();
  } else {
    magnitude = std::ldexp(mantissa + 1024, exponent - 25);
  }
  return (half & 0x8000) ? -magnitude : magnitude;
}

bool sameReal(double a, double b) {
  return a == b && std::signbit(a) == std::signbit(b);
}

class Encoder {
 public:
  explicit Encoder(std::vector<std::uint8_t>& out) : out_(out) {}

  // Runs one libcbor head encoder into the buffer's tail; 9 bytes hold any head.
  template <typename Function, typename... Arguments>
  void head(Function function, Arguments... arguments) {
    const std::size_t start = out_.size();
    out_.resize(start + 9);
    const std::size_t written = function(arguments..., out_.data() + start, 9);
    out_.resize(start + written);
  }

  void raw(const void* bytes, std::size_t size) {
    const auto* begin = static_cast<const std::uint8_t*>(bytes);
    out_.insert(out_.end(), begin, begin + size);
  }

  void text(std::string_view text) {
    head(cbor_encode_string_start, text.size());
    raw(text.data(), text.size());
  }

  void integer(std::int64_t value) {
    if (value >= 0) {
      head(cbor_encode_uint, static_cast<std::uint64_t>(value));
    } else {
      // -1 - value cannot overflow for any negative int64.
      head(cbor_encode_negint, static_cast<std::uint64_t>(-1 - value));
    }
  }

  // The shortest of half, single and double that gives back exactly `value`.
  void real(double value) {
    if (std::isnan(value)) {
      static constexpr std::uint8_t kCanonicalNaN[] = {0xF9, 0x7E, 0x00};
      raw(kCanonicalNaN, sizeof kCanonicalNaN);
      return;
    }
    const float single = static_cast<float>(value);
    if (!sameReal(static_cast<double>(single), value)) {
      head(cbor_encode_double, value);
      return;
    }
    // libcbor's half conversion rounds when the value does not fit; keep its bytes only when
    // they decode to the very same value.
    std::uint8_t half[3];
    if (cbor_encode_half(single, half, sizeof half) == 3 &&
        sameReal(halfToDouble(static_cast<std::uint16_t>((half[1] << 8) | half[2])), value)) {
      raw(half, sizeof half);
      return;
    }
    head(cbor_encode_single, single);
  }

  Result<void> value(const Value& value, int depth) {
    switch (value.type()) {
      case Value::Type::Null:
        head(cbor_encode_null);
        return {};
      case Value::Type::Boolean:
        head(cbor_encode_bool, *value.boolean());
        return {};
      case Value::Type::Integer:
        integer(*value.integer());
        return {};
      case Value::Type::Real:
        real(*value.real());
        return {};
      case Value::Type::String:
        return checkedText(*value.string(), "a string");
      case Value::Type::Data: {
        const Value::Data& data = *value.data();
        head(cbor_encode_bytestring_start, data.size());
        raw(data.data(), data.size());
        return {};
      }
      case Value::Type::Url:
        if (depth + 1 > WireCodec::kMaxDepth) {
          return failure(refused("cannot encode " + depthRefusal()));
        }
        head(cbor_encode_tag, kTagUrl);
        return checkedText(value.url()->absoluteString(), "a URL");
      case Value::Type::Array: {
        if (depth + 1 > WireCodec::kMaxDepth) {
          return failure(refused("cannot encode " + depthRefusal()));
        }
        const Value::Array& array = *value.array();
        head(cbor_encode_array_start, array.size());
        for (const Value& element : array) {
          if (auto result = this->value(element, depth + 1); !result) {
            return result;
          }
        }
        return {};
      }
      case Value::Type::Dictionary:
        return dictionary(*value.dictionary(), depth);
      case Value::Type::Error: {
        // Tag, array and userInfo map: three levels.
        if (depth + 3 > WireCodec::kMaxDepth) {
          return failure(refused("cannot encode " + depthRefusal()));
        }
        const ErrorPtr error = value.error();
        head(cbor_encode_tag, kTagError);
        head(cbor_encode_array_start, std::size_t{4});
        text(kErrorMarker);
        if (auto result = checkedText(error->domain, "an error domain"); !result) {
          return result;
        }
        integer(error->code);
        return dictionary(error->userInfo, depth + 2);
      }
    }
    return failure(refused("cannot encode a value of unknown type"));
  }

 private:
  Result<void> checkedText(std::string_view value, const char* what) {
    if (!WireCodec::isValidUtf8(value)) {
      return failure(refused(std::string("cannot encode ") + what + " that is not valid UTF-8"));
    }
    text(value);
    return {};
  }

  Result<void> entry(const std::string& key, const Value& value, int depth) {
    if (auto result = checkedText(key, "a dictionary key"); !result) {
      return result;
    }
    return this->value(value, depth + 1);
  }

  // Keys go out in the order of their encoded bytes: the head carries the length, so shorter
  // keys first and keys of one length bytewise. The dictionary already holds them bytewise,
  // so only a dictionary whose key lengths are out of order needs sorting.
  Result<void> dictionary(const Value::Dictionary& dictionary, int depth) {
    if (depth + 1 > WireCodec::kMaxDepth) {
      return failure(refused("cannot encode " + depthRefusal()));
    }
    head(cbor_encode_map_start, dictionary.size());
    bool lengthsAscend = true;
    std::size_t previousLength = 0;
    for (const auto& [key, unused] : dictionary) {
      if (key.size() < previousLength) {
        lengthsAscend = false;
        break;
      }
      previousLength = key.size();
    }
    if (lengthsAscend) {
      for (const auto& [key, element] : dictionary) {
        if (auto result = entry(key, element, depth); !result) {
          return result;
        }
      }
      return {};
    }
    std::vector<const Value::Dictionary::value_type*> entries;
    entries.reserve(dictionary.size());
    for (const auto& pair : dictionary) {
      entries.push_back(&pair);
    }
    std::stable_sort(entries.begin(), entries.end(), [](const auto* a, const auto* b) {
      return a->first.size() < b->first.size();
    });
    for (const auto* pair : entries) {
      if (auto result = entry(pair->first, pair->second, depth); !result) {
        return result;
      }
    }
    return {};
  }

  std::vector<std::uint8_t>& out_;
};

// ---- Decoding -----------------------------------------------------------------------------

// What a callback is about to deliver, for the checks that its container makes.
enum class ItemClass { Text, Array, Other };

enum class OpenKind : std::uint8_t {
  Array,
  Map,
  ErrorTag,
  UrlTag,
  IndefiniteText,
  IndefiniteBytes,
};

// One item that has begun and not yet ended.
struct OpenItem {
  OpenKind kind;
  bool indefinite = false;
  bool haveKey = false;         // maps: `text` holds a key awaiting its value
  std::uint64_t remaining = 0;  // definite arrays: elements to come; definite maps: pairs
  Value::Array array;
  Value::Dictionary dictionary;
  std::string text;  // a map's pending key, or an indefinite text string's chunks
  Value::Data bytes;
  Value tagged;
};

// Builds one Value from libcbor's stream of events. Each cbor_stream_decode call delivers at
// most one event; the first refusal is latched and the driver stops there.
class Decoder {
 public:
  Decoder(int enclosingDepth, bool arrayWanted)
      : depth_(enclosingDepth), arrayWanted_(arrayWanted) {}

  bool done() const { return done_; }
  bool failed() const { return failed_; }
  const std::string& refusal() const { return refusal_; }
  Value takeResult() { return std::move(result_); }
  // With arrayWanted: the top-level array's elements (its emptiness included).
  std::optional<Value::Array> takeArray() {
    if (topArray_) {
      return std::move(topArray_);
    }
    if (const Value::Array* array = result_.array()) {
      return *array;
    }
    return std::nullopt;
  }
  void setRemainingInput(std::size_t size) { remainingInput_ = size; }

  static const cbor_callbacks kCallbacks;

 private:
  static Decoder& self(void* context) { return *static_cast<Decoder*>(context); }

  static void onUint8(void* c, std::uint8_t v) { self(c).unsignedInteger(v); }
  static void onUint16(void* c, std::uint16_t v) { self(c).unsignedInteger(v); }
  static void onUint32(void* c, std::uint32_t v) { self(c).unsignedInteger(v); }
  static void onUint64(void* c, std::uint64_t v) { self(c).unsignedInteger(v); }
  static void onNegint8(void* c, std::uint8_t v) { self(c).negativeInteger(v); }
  static void onNegint16(void* c, std::uint16_t v) { self(c).negativeInteger(v); }
  static void onNegint32(void* c, std::uint32_t v) { self(c).negativeInteger(v); }
  static void onNegint64(void* c, std::uint64_t v) { self(c).negativeInteger(v); }
  static void onBytes(void* c, cbor_data d, std::size_t n) { self(c).byteString(d, n); }
  static void onBytesStart(void* c) { self(c).openString(OpenKind::IndefiniteBytes); }
  static void onText(void* c, cbor_data d, std::size_t n) { self(c).textString(d, n); }
  static void onTextStart(void* c) { self(c).openString(OpenKind::IndefiniteText); }
  static void onArray(void* c, std::size_t n) { self(c).openArray(n, false); }
  static void onIndefiniteArray(void* c) { self(c).openArray(0, true); }
  static void onMap(void* c, std::size_t n) { self(c).openMap(n, false); }
  static void onIndefiniteMap(void* c) { self(c).openMap(0, true); }
  static void onTag(void* c, std::uint64_t v) { self(c).openTag(v); }
  static void onFloat(void* c, float v) { self(c).scalar(Value(static_cast<double>(v))); }
  static void onDouble(void* c, double v) { self(c).scalar(Value(v)); }
  static void onUndefined(void* c) { self(c).fail("the simple value undefined is not allowed"); }
  static void onNull(void* c) { self(c).scalar(Value()); }
  static void onBoolean(void* c, bool v) { self(c).scalar(Value(v)); }
  static void onBreak(void* c) { self(c).breakCode(); }

  void fail(std::string why) {
    if (!failed_) {
      failed_ = true;
      refusal_ = std::move(why);
    }
  }

  // Checks that an item of class `itemClass` may begin where the decoder stands.
  bool beginItem(ItemClass itemClass) {
    if (failed_ || stack_.empty()) {
      return !failed_;
    }
    const OpenItem& top = stack_.back();
    switch (top.kind) {
      case OpenKind::Array:
        return true;
      case OpenKind::Map:
        if (!top.haveKey && itemClass != ItemClass::Text) {
          fail("a map key is not a text string");
          return false;
        }
        return true;
      case OpenKind::UrlTag:
        if (itemClass != ItemClass::Text) {
          fail("tag 32 does not hold a text string");
          return false;
        }
        return true;
      case OpenKind::ErrorTag:
        if (itemClass != ItemClass::Array) {
          fail("tag 27 does not hold an array");
          return false;
        }
        return true;
      case OpenKind::IndefiniteText:
      case OpenKind::IndefiniteBytes:
        fail(
            "an indefinite-length string holds a chunk that is not a definite string of its "
            "own type");
        return false;
    }
    return false;
  }

  bool openLevel() {
    if (depth_ >= WireCodec::kMaxDepth) {
      fail(depthRefusal());
      return false;
    }
    ++depth_;
    return true;
  }

  void push(OpenKind kind, bool indefinite, std::uint64_t remaining) {
    OpenItem& item = stack_.emplace_back();
    item.kind = kind;
    item.indefinite = indefinite;
    item.remaining = remaining;
  }

  void scalar(Value value) {
    if (beginItem(ItemClass::Other)) {
      emit(std::move(value));
    }
  }

  void unsignedInteger(std::uint64_t value) {
    if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      scalar(Value(static_cast<std::int64_t>(value)));
    } else {
      scalar(Value(static_cast<double>(value)));
    }
  }

  // The item's value is -1 - n.
  void negativeInteger(std::uint64_t n) {
    if (n <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      scalar(Value(-1 - static_cast<std::int64_t>(n)));
    } else {
      scalar(Value(-1.0 - static_cast<double>(n)));
    }
  }

  void byteString(cbor_data data, std::size_t size) {
    if (!stack_.empty() && stack_.back().kind == OpenKind::IndefiniteBytes) {
      Value::Data& bytes = stack_.back().bytes;
      bytes.insert(bytes.end(), data, data + size);
      return;
    }
    if (beginItem(ItemClass::Other)) {
      emit(Value(Value::Data(data, data + size)));
    }
  }

  void textString(cbor_data data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (!WireCodec::isValidUtf8(text)) {
      fail("a text string is not valid UTF-8");
      return;
    }
    if (!stack_.empty() && stack_.back().kind == OpenKind::IndefiniteText) {
      stack_.back().text.append(text);
      return;
    }
    if (beginItem(ItemClass::Text)) {
      completeText(std::string(text));
    }
  }

  void openString(OpenKind kind) {
    if (beginItem(kind == OpenKind::IndefiniteText ? ItemClass::Text : ItemClass::Other)) {
      push(kind, true, 0);
    }
  }

  void openArray(std::size_t count, bool indefinite) {
    if (!beginItem(ItemClass::Array) || !openLevel()) {
      return;
    }
    if (!indefinite && count == 0) {
      --depth_;
      emit(Value(Value::Array{}));
      return;
    }
    push(OpenKind::Array, indefinite, count);
    // Every element takes at least one byte, so the input left bounds what is worth reserving.
    if (!indefinite) {
      stack_.back().array.reserve(std::min<std::uint64_t>(count, remainingInput_));
    }
  }

  void openMap(std::size_t count, bool indefinite) {
    if (!beginItem(ItemClass::Other) || !openLevel()) {
      return;
    }
    if (!indefinite && count == 0) {
      --depth_;
      emit(Value(Value::Dictionary{}));
      return;
    }
    push(OpenKind::Map, indefinite, count);
  }

  void openTag(std::uint64_t tag) {
    if (!beginItem(ItemClass::Other)) {
      return;
    }
    if (tag != kTagError && tag != kTagUrl) {
      fail("tag " + std::to_string(tag) + " is not allowed");
      return;
    }
    if (openLevel()) {
      push(tag == kTagError ? OpenKind::ErrorTag : OpenKind::UrlTag, false, 0);
    }
  }

  void breakCode() {
    if (failed_) {
      return;
    }
    if (stack_.empty() || !stack_.back().indefinite) {
      fail("a break code outside an indefinite-length item");
      return;
    }
    close();
  }

  // A complete text string goes to a map waiting for a key, or on as a value.
  void completeText(std::string text) {
    if (!stack_.empty() && stack_.back().kind == OpenKind::Map && !stack_.back().haveKey) {
      OpenItem& map = stack_.back();
      if (map.dictionary.contains(text)) {
        fail("the map key " + quoted(text) + " appears twice");
        return;
      }
      map.text = std::move(text);
      map.haveKey = true;
      return;
    }
    emit(Value(std::move(text)));
  }

  // Hands a complete value to the innermost open item, or makes it the result.
  void emit(Value value) {
    if (failed_) {
      return;
    }
    if (stack_.empty()) {
      result_ = std::move(value);
      done_ = true;
      return;
    }
    OpenItem& top = stack_.back();
    switch (top.kind) {
      case OpenKind::Array:
        top.array.push_back(std::move(value));
        if (!top.indefinite && --top.remaining == 0) {
          close();
        }
        return;
      case OpenKind::Map:
        if (!top.haveKey) {
          // Text keys arrive through completeText; anything else here is not a text key.
          fail("a map key is not a text string");
          return;
        }
        top.dictionary.emplace(std::move(top.text), std::move(value));
        top.text.clear();
        top.haveKey = false;
        if (!top.indefinite && --top.remaining == 0) {
          close();
        }
        return;
      case OpenKind::ErrorTag:
      case OpenKind::UrlTag:
        top.tagged = std::move(value);
        close();
        return;
      case OpenKind::IndefiniteText:
      case OpenKind::IndefiniteBytes:
        fail(
            "an indefinite-length string holds a chunk that is not a definite string of its "
            "own type");
        return;
    }
  }

  // Ends the innermost open item and hands its value on.
  void close() {
    OpenItem item = std::move(stack_.back());
    stack_.pop_back();
    switch (item.kind) {
      case OpenKind::Array:
        --depth_;
        if (arrayWanted_ && stack_.empty() && !failed_) {
          topArray_ = std::move(item.array);
          done_ = true;
          return;
        }
        emit(Value(std::move(item.array)));
        return;
      case OpenKind::Map:
        --depth_;
        if (item.haveKey) {
          fail("a map ends between a key and its value");
          return;
        }
        emit(Value(std::move(item.dictionary)));
        return;
      case OpenKind::UrlTag: {
        --depth_;
        const std::string* text = item.tagged.string();
        if (text == nullptr) {
          fail("tag 32 does not hold a text string");
          return;
        }
        std::optional<Url> url = Url::fromString(*text);
        if (!url) {
          fail("tag 32 holds " + quoted(*text) + ", which is not an absolute URI");
          return;
        }
        emit(Value(std::move(*url)));
        return;
      }
      case OpenKind::ErrorTag:
        --depth_;
        closeError(item.tagged);
        return;
      case OpenKind::IndefiniteText:
        completeText(std::move(item.text));
        return;
      case OpenKind::IndefiniteBytes:
        emit(Value(std::move(item.bytes)));
        return;
    }
  }

  void closeError(const Value& tagged) {
    const Value::Array* fields = tagged.array();
    if (fields == nullptr || fields->size() != 4) {
      fail("tag 27 does not hold an array of 4 items");
      return;
    }
    const std::string* marker = (*fields)[0].string();
    if (marker == nullptr || *marker != kErrorMarker) {
      fail("tag 27 holds an array that does not start with \"error\"");
      return;
    }
    const std::string* domain = (*fields)[1].string();
    if (domain == nullptr) {
      fail("an error's domain is not a text string");
      return;
    }
    if ((*fields)[2].type() != Value::Type::Integer) {
      fail("an error's code is not an integer");
      return;
    }
    const Value::Dictionary* userInfo = (*fields)[3].dictionary();
    if (userInfo == nullptr) {
      fail("an error's userInfo is not a map");
      return;
    }
    auto error = std::make_shared<Error>();
    error->domain = *domain;
    error->code = *(*fields)[2].integer();
    error->userInfo = *userInfo;
    emit(Value(ErrorPtr(std::move(error))));
  }

  std::vector<OpenItem> stack_;
  int depth_;
  const bool arrayWanted_;
  std::optional<Value::Array> topArray_;
  std::size_t remainingInput_ = 0;
  bool done_ = false;
  bool failed_ = false;
  std::string refusal_;
  Value result_;
};

const cbor_callbacks Decoder::kCallbacks = {
    .uint8 = &Decoder::onUint8,
    .uint16 = &Decoder::onUint16,
    .uint32 = &Decoder::onUint32,
    .uint64 = &Decoder::onUint64,
    .negint64 = &Decoder::onNegint64,
    .negint32 = &Decoder::onNegint32,
    .negint16 = &Decoder::onNegint16,
    .negint8 = &Decoder::onNegint8,
    // libcbor's names: *_start is the indefinite-length head, the plain name a definite
    // string (or one chunk of an indefinite one).
    .byte_string_start = &Decoder::onBytesStart,
    .byte_string = &Decoder::onBytes,
    .string = &Decoder::onText,
    .string_start = &Decoder::onTextStart,
    .indef_array_start = &Decoder::onIndefiniteArray,
    .array_start = &Decoder::onArray,
    .indef_map_start = &Decoder::onIndefiniteMap,
    .map_start = &Decoder::onMap,
    .tag = &Decoder::onTag,
    .float2 = &Decoder::onFloat,
    .float4 = &Decoder::onFloat,
    .float8 = &Decoder::onDouble,
    .undefined = &Decoder::onUndefined,
    .null = &Decoder::onNull,
    .boolean = &Decoder::onBoolean,
    .indef_break = &Decoder::onBreak,
};

}  // namespace

Result<void> WireCodec::encode(const Value& value,
                               std::vector<std::uint8_t>& out,
                               int enclosingDepth) {
  return Encoder(out).value(value, enclosingDepth);
}

Result<std::vector<std::uint8_t>> WireCodec::encode(const Value& value) {
  std::vector<std::uint8_t> out;
  if (auto result = encode(value, out); !result) {
    return failure(result.error());
  }
  return out;
}

Result<Value> WireCodec::decode(std::span<const std::uint8_t> bytes) {
  std::size_t consumed = 0;
  Result<Value> value = decodePrefix(bytes, 0, &consumed);
  if (value && consumed != bytes.size()) {
    return failure(
        refused(std::to_string(bytes.size() - consumed) + " trailing bytes after the CBOR item"));
  }
  return value;
}

namespace {

// Feeds `bytes` to `decoder` one streaming event at a time until its item is complete.
Result<std::size_t> drive(Decoder& decoder, std::span<const std::uint8_t> bytes) {
  std::size_t position = 0;
  while (!decoder.done()) {
    if (position == bytes.size()) {
      return failure(refused("the CBOR item is truncated"));
    }
    decoder.setRemainingInput(bytes.size() - position);
    const cbor_decoder_result step = cbor_stream_decode(
        bytes.data() + position, bytes.size() - position, &Decoder::kCallbacks, &decoder);
    if (step.status == CBOR_DECODER_NEDATA) {
      return failure(refused("the CBOR item is truncated"));
    }
    if (step.status == CBOR_DECODER_ERROR) {
      return failure(refused("malformed CBOR at byte " + std::to_string(position)));
    }
    if (decoder.failed()) {
      return failure(refused(decoder.refusal()));
    }
    position += step.read;
  }
  return position;
}

}  // namespace

Result<Value> WireCodec::decodePrefix(std::span<const std::uint8_t> bytes,
                                      int enclosingDepth,
                                      std::size_t* consumed) {
  Decoder decoder(enclosingDepth, false);
  Result<std::size_t> size = drive(decoder, bytes);
  if (!size) {
    return failure(size.error());
  }
  *consumed = *size;
  return decoder.takeResult();
}

Result<Value::Array> WireCodec::decodeArrayPrefix(std::span<const std::uint8_t> bytes,
                                                  int enclosingDepth,
                                                  std::size_t* consumed) {
  Decoder decoder(enclosingDepth, true);
  Result<std::size_t> size = drive(decoder, bytes);
  if (!size) {
    return failure(size.error());
  }
  std::optional<Value::Array> array = decoder.takeArray();
  if (!array) {
    return failure(refused("an item that should be an array is not one"));
  }
  *consumed = *size;
  return std::move(*array);
}

void WireCodec::appendUnsigned(std::vector<std::uint8_t>& out, std::uint64_t value) {
  Encoder(out).head(cbor_encode_uint, value);
}

void WireCodec::appendArrayHead(std::vector<std::uint8_t>& out, std::size_t count) {
  Encoder(out).head(cbor_encode_array_start, count);
}

void WireCodec::appendMapHead(std::vector<std::uint8_t>& out, std::size_t count) {
  Encoder(out).head(cbor_encode_map_start, count);
}

void WireCodec::appendText(std::vector<std::uint8_t>& out, std::string_view text) {
  Encoder(out).text(text);
}

bool WireCodec::isValidUtf8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = p + text.size();
  while (p < end) {
    // Most text on the wire is ASCII: skip it eight bytes at a time.
    if (end - p >= 8) {
      std::uint64_t word;
      std::memcpy(&word, p, 8);
      if ((word & 0x8080808080808080ULL) == 0) {
        p += 8;
        continue;
      }
    }
    const unsigned char lead = *p;
    if (lead < 0x80) {
      ++p;
      continue;
    }
    int continuation;
    std::uint32_t codePoint;
    if (lead >= 0xC2 && lead <= 0xDF) {
      continuation = 1;
      codePoint = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      continuation = 2;
      codePoint = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      continuation = 3;
      codePoint = lead & 0x07;
    } else {
      return false;
    }
    if (end - p <= continuation) {
      return false;
    }
    for (int i = 1; i <= continuation; ++i) {
      if ((p[i] & 0xC0) != 0x80) {
        return false;
      }
      codePoint = (codePoint << 6) | (p[i] & 0x3F);
    }
    if (continuation == 2 && (codePoint < 0x800 || (codePoint >= 0xD800 && codePoint <= 0xDFFF))) {
      return false;
    }
    if (continuation == 3 && (codePoint < 0x10000 || codePoint > 0x10FFFF)) {
      return false;
    }
    p += continuation + 1;
  }
  return true;
}

}  // namespace daskel::platform
