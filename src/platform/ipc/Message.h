// Message: the two shapes a frame's payload may take.
//   Request: {"op": text, "args": array, "reply": unsigned}  ("reply" only with a reply block)
//   Reply:   {"reply": unsigned, "values": array}
//
// encodeRequest/encodeReply write definite-length maps with the keys in one fixed order
// (the order of their encoded bytes: "op", "args", "reply" and "reply", "values") and values
// as WireCodec writes them. decodeMessage accepts the keys in any order, definite or
// indefinite length, and refuses every other shape: another key, a missing or repeated key,
// "op" not text, "args"/"values" not an array, "reply" not an unsigned integer (any value of
// 64 bits, 0 included), a bad value inside, or bytes after the map.
//
// Whether a reply id belongs to an unanswered request, and whether an operation and its
// arguments fit the interface, are for the connection and IpcInterface to decide.
//
// Failure: Result errors are IpcError(MessageRefused) saying what was wrong.
//
// THREADING NOTES: plain functions and value types; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel::platform {

struct Request {
  std::string op;  // the operation's full selector
  Value::Array args;
  std::optional<std::uint64_t> reply;  // present exactly when the caller passed a reply block

  bool operator==(const Request& other) const = default;
};

struct Reply {
  std::uint64_t reply = 0;
  Value::Array values;

  bool operator==(const Reply& other) const = default;
};

using Message = std::variant<Request, Reply>;

// Frame payloads (without the 4-byte header). They fail when a value cannot be encoded
// (text that is not UTF-8, nesting too deep).
Result<std::vector<std::uint8_t>> encodeRequest(const Request& request);
Result<std::vector<std::uint8_t>> encodeReply(const Reply& reply);

Result<Message> decodeMessage(std::span<const std::uint8_t> payload);

}  // namespace daskel::platform
