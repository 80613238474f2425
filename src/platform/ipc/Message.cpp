#include "platform/ipc/Message.h"

#include <cbor.h>

#include <algorithm>
#include <string_view>

#include "platform/errors/DKErrors.h"
#include "platform/ipc/WireCodec.h"

namespace daskel::platform {

namespace {

constexpr std::string_view kOpKey = "op";
constexpr std::string_view kArgsKey = "args";
constexpr std::string_view kReplyKey = "reply";
constexpr std::string_view kValuesKey = "values";

// Values inside "args" or "values" sit in the message map and that array.
constexpr int kMessageValueDepth = 2;

ErrorPtr refused(const std::string& why) {
  return IpcError(IpcErrorCode::MessageRefused, why);
}

int majorType(std::uint8_t initialByte) {
  return initialByte >> 5;
}

// The head of the message map, read with one streaming event.
struct MapHead {
  bool isMap = false;
  bool indefinite = false;
  std::size_t count = 0;
};

// The value of "reply", read with one streaming event.
struct UnsignedValue {
  bool present = false;
  std::uint64_t value = 0;
};

const cbor_callbacks& mapHeadCallbacks() {
  static const cbor_callbacks callbacks = [] {
    cbor_callbacks c = cbor_empty_callbacks;
    c.map_start = [](void* context, std::size_t count) {
      *static_cast<MapHead*>(context) = MapHead{true, false, count};
    };
    c.indef_map_start = [](void* context) {
      *static_cast<MapHead*>(context) = MapHead{true, true, 0};
    };
    return c;
  }();
  return callbacks;
}

const cbor_callbacks& unsignedCallbacks() {
  static const cbor_callbacks callbacks = [] {
    cbor_callbacks c = cbor_empty_callbacks;
    c.uint8 = [](void* context, std::uint8_t v) {
      *static_cast<UnsignedValue*>(context) = UnsignedValue{true, v};
    };
    c.uint16 = [](void* context, std::uint16_t v) {
      *static_cast<UnsignedValue*>(context) = UnsignedValue{true, v};
    };
    c.uint32 = [](void* context, std::uint32_t v) {
      *static_cast<UnsignedValue*>(context) = UnsignedValue{true, v};
    };
    c.uint64 = [](void* context, std::uint64_t v) {
      *static_cast<UnsignedValue*>(context) = UnsignedValue{true, v};
    };
    return c;
  }();
  return callbacks;
}

// A definite text string, read with one streaming event without copying.
struct TextView {
  bool present = false;
  std::string_view text;
};

const cbor_callbacks& textCallbacks() {
  static const cbor_callbacks callbacks = [] {
    cbor_callbacks c = cbor_empty_callbacks;
    c.string = [](void* context, cbor_data data, std::size_t size) {
      *static_cast<TextView*>(context) =
          TextView{true, std::string_view(reinterpret_cast<const char*>(data), size)};
    };
    return c;
  }();
  return callbacks;
}

// Runs one streaming event over `rest`; refuses malformed or truncated input.
Result<std::size_t> streamOne(std::span<const std::uint8_t> rest,
                              const cbor_callbacks& callbacks,
                              void* context) {
  if (rest.empty()) {
    return failure(refused("the message is truncated"));
  }
  const cbor_decoder_result step =
      cbor_stream_decode(rest.data(), rest.size(), &callbacks, context);
  if (step.status == CBOR_DECODER_NEDATA) {
    return failure(refused("the message is truncated"));
  }
  if (step.status == CBOR_DECODER_ERROR) {
    return failure(refused("the message is not well-formed CBOR"));
  }
  return step.read;
}

// The fields of a message map as they are found.
struct Fields {
  std::optional<std::string> op;
  std::optional<Value::Array> args;
  std::optional<std::uint64_t> reply;
  std::optional<Value::Array> values;
};

class MessageDecoder {
 public:
  explicit MessageDecoder(std::span<const std::uint8_t> payload) : payload_(payload) {}

  Result<Message> run() {
    MapHead head;
    auto headSize = streamOne(payload_, mapHeadCallbacks(), &head);
    if (!headSize) {
      return failure(headSize.error());
    }
    if (!head.isMap) {
      return failure(refused("the message is not a map"));
    }
    position_ = *headSize;
    // A definite count can claim anything; the loop ends when the input does, and a map
    // with more than the four known keys repeats or adds a key, which is refused.
    for (std::size_t entry = 0; head.indefinite || entry < head.count; ++entry) {
      if (position_ == payload_.size()) {
        return failure(refused("the message is truncated"));
      }
      if (head.indefinite && payload_[position_] == 0xFF) {
        ++position_;
        break;
      }
      if (auto result = readEntry(); !result) {
        return failure(result.error());
      }
    }
    if (position_ != payload_.size()) {
      return failure(refused(std::to_string(payload_.size() - position_) +
                             " trailing bytes after the message"));
    }
    return shape();
  }

 private:
  std::span<const std::uint8_t> rest() const { return payload_.subspan(position_); }

  // A text item (the caller has seen major type 3). Definite strings, the usual case, are
  // read in place; an indefinite one goes through the value decoder.
  Result<std::string> readText() {
    if (payload_[position_] == 0x7F) {
      std::size_t consumed = 0;
      Result<Value> value = WireCodec::decodePrefix(rest(), 1, &consumed);
      if (!value) {
        return failure(value.error());
      }
      position_ += consumed;
      return *value->string();
    }
    TextView view;
    auto size = streamOne(rest(), textCallbacks(), &view);
    if (!size) {
      return failure(size.error());
    }
    if (!view.present || !WireCodec::isValidUtf8(view.text)) {
      return failure(refused("a text string is not valid UTF-8"));
    }
    position_ += *size;
    return std::string(view.text);
  }

  Result<void> readEntry() {
    if (majorType(payload_[position_]) != 3) {
      return failure(refused("a message key is not a text string"));
    }
    Result<std::string> key = readText();
    if (!key) {
      return failure(key.error());
    }
    const std::string& name = *key;
    if (position_ == payload_.size()) {
      return failure(refused("the message is truncated"));
    }
    if (name == kOpKey) {
      return readTextField(fields_.op, kOpKey);
    }
    if (name == kArgsKey) {
      return readArray(fields_.args, kArgsKey);
    }
    if (name == kValuesKey) {
      return readArray(fields_.values, kValuesKey);
    }
    if (name == kReplyKey) {
      return readReplyId();
    }
    return failure(refused("the message has an unknown key \"" +
                           name.substr(0, std::min<std::size_t>(name.size(), 64)) + "\""));
  }

  static ErrorPtr repeated(std::string_view key) {
    return refused("the message has the key \"" + std::string(key) + "\" twice");
  }

  Result<void> readTextField(std::optional<std::string>& field, std::string_view key) {
    if (field) {
      return failure(repeated(key));
    }
    if (majorType(payload_[position_]) != 3) {
      return failure(refused("\"" + std::string(key) + "\" is not a text string"));
    }
    Result<std::string> text = readText();
    if (!text) {
      return failure(text.error());
    }
    field = std::move(*text);
    return {};
  }

  Result<void> readArray(std::optional<Value::Array>& field, std::string_view key) {
    if (field) {
      return failure(repeated(key));
    }
    if (majorType(payload_[position_]) != 4) {
      return failure(refused("\"" + std::string(key) + "\" is not an array"));
    }
    std::size_t consumed = 0;
    Result<Value::Array> array = WireCodec::decodeArrayPrefix(rest(), 1, &consumed);
    if (!array) {
      return failure(array.error());
    }
    position_ += consumed;
    field = std::move(*array);
    return {};
  }

  Result<void> readReplyId() {
    if (fields_.reply) {
      return failure(repeated(kReplyKey));
    }
    if (majorType(payload_[position_]) != 0) {
      return failure(refused("\"reply\" is not an unsigned integer"));
    }
    UnsignedValue id;
    auto size = streamOne(rest(), unsignedCallbacks(), &id);
    if (!size) {
      return failure(size.error());
    }
    if (!id.present) {
      return failure(refused("\"reply\" is not an unsigned integer"));
    }
    position_ += *size;
    fields_.reply = id.value;
    return {};
  }

  Result<Message> shape() {
    if (fields_.op || fields_.args) {
      if (!fields_.op) {
        return failure(refused("a request without \"op\""));
      }
      if (!fields_.args) {
        return failure(refused("a request without \"args\""));
      }
      if (fields_.values) {
        return failure(refused("a request with \"values\""));
      }
      return Message(Request{std::move(*fields_.op), std::move(*fields_.args), fields_.reply});
    }
    if (fields_.values) {
      if (!fields_.reply) {
        return failure(refused("a reply without \"reply\""));
      }
      return Message(Reply{*fields_.reply, std::move(*fields_.values)});
    }
    return failure(refused("the message is neither a request nor a reply"));
  }

  std::span<const std::uint8_t> payload_;
  std::size_t position_ = 0;
  Fields fields_;
};

Result<void> appendValues(std::vector<std::uint8_t>& out, const Value::Array& values) {
  WireCodec::appendArrayHead(out, values.size());
  for (const Value& value : values) {
    if (auto result = WireCodec::encode(value, out, kMessageValueDepth); !result) {
      return result;
    }
  }
  return {};
}

}  // namespace

Result<std::vector<std::uint8_t>> encodeRequest(const Request& request) {
  if (!WireCodec::isValidUtf8(request.op)) {
    return failure(refused("cannot encode an operation name that is not valid UTF-8"));
  }
  std::vector<std::uint8_t> out;
  out.reserve(16 + request.op.size() + 16 * request.args.size());
  WireCodec::appendMapHead(out, request.reply ? 3 : 2);
  WireCodec::appendText(out, kOpKey);
  WireCodec::appendText(out, request.op);
  WireCodec::appendText(out, kArgsKey);
  if (auto result = appendValues(out, request.args); !result) {
    return failure(result.error());
  }
  if (request.reply) {
    WireCodec::appendText(out, kReplyKey);
    WireCodec::appendUnsigned(out, *request.reply);
  }
  return out;
}

Result<std::vector<std::uint8_t>> encodeReply(const Reply& reply) {
  std::vector<std::uint8_t> out;
  out.reserve(24 + 16 * reply.values.size());
  WireCodec::appendMapHead(out, 2);
  WireCodec::appendText(out, kReplyKey);
  WireCodec::appendUnsigned(out, reply.reply);
  WireCodec::appendText(out, kValuesKey);
  if (auto result = appendValues(out, reply.values); !result) {
    return failure(result.error());
  }
  return out;
}

Result<Message> decodeMessage(std::span<const std::uint8_t> payload) {
  return MessageDecoder(payload).run();
}

}  // namespace daskel::platform
