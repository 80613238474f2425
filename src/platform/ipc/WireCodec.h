// WireCodec: turns one Value into one CBOR data item and back, the value layer of the wire
// format every Daskel connection speaks.
//
// Mapping: null, booleans, integers (major types 0/1; an integer outside int64 decodes as a
// real), floats (half, single, double), text (valid UTF-8), byte strings, tag 32 + text for a
// URL (an absolute URI with a scheme), arrays, maps with text keys, and tag 27 +
// ["error", domain, code, userInfo] for an error.
//
// Encoding is deterministic: definite lengths only, the shortest integer and length heads,
// the shortest float width that holds the real exactly (NaN as the half 0x7e00), and map keys
// ordered by their encoded bytes (shorter keys first, then bytewise). Encoding refuses what
// the decoder would refuse: text that is not UTF-8 and nesting deeper than kMaxDepth.
//
// Decoding reads input that a peer sent and trusts none of it: every malformation, every
// shape outside the mapping above, a nesting deeper than kMaxDepth levels (each array, map
// and tag is one level) and bytes left over after the item are refused. Nothing is reserved
// in proportion to a claimed length beyond what the remaining input could hold. It runs on
// libcbor's streaming decoder, building Values directly from its callbacks.
//
// Failure: Result errors are IpcError(MessageRefused) whose description says what was wrong.
//
// THREADING NOTES: stateless; every function may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel::platform {

class WireCodec {
 public:
  // The deepest nesting accepted: an array, map or tag counts one level each.
  static constexpr int kMaxDepth = 64;

  // Appends the encoding of `value` to `out`. `enclosingDepth` levels are already open around
  // it (a message map and its argument array, say). On failure `out` may hold a partial item.
  static Result<void> encode(const Value& value,
                             std::vector<std::uint8_t>& out,
                             int enclosingDepth = 0);
  static Result<std::vector<std::uint8_t>> encode(const Value& value);

  // Decodes `bytes`, which must hold exactly one item.
  static Result<Value> decode(std::span<const std::uint8_t> bytes);
  // Decodes the one item at the start of `bytes`, inside `enclosingDepth` open levels, and
  // stores in `*consumed` how many bytes it took. Bytes after it are left alone.
  static Result<Value> decodePrefix(std::span<const std::uint8_t> bytes,
                                    int enclosingDepth,
                                    std::size_t* consumed);
  // decodePrefix for an item that must be an array, handing over its elements without
  // copying them out of a Value.
  static Result<Value::Array> decodeArrayPrefix(std::span<const std::uint8_t> bytes,
                                                int enclosingDepth,
                                                std::size_t* consumed);

  // Heads and text items, for writers of fixed shapes (the message maps).
  static void appendUnsigned(std::vector<std::uint8_t>& out, std::uint64_t value);
  static void appendArrayHead(std::vector<std::uint8_t>& out, std::size_t count);
  static void appendMapHead(std::vector<std::uint8_t>& out, std::size_t count);
  // Appends a text item; the caller vouches for the UTF-8 (or checks it with isValidUtf8).
  static void appendText(std::vector<std::uint8_t>& out, std::string_view text);

  // Well-formed UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above U+10FFFF.
  static bool isValidUtf8(std::string_view text);
};

}  // namespace daskel::platform
