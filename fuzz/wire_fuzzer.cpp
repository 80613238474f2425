// Fuzzes what a peer controls on a Daskel connection: the byte stream (framing, in chunks of
// any size), the message map, the CBOR values inside, and the interface check that follows.
//
// Input layout: the first byte seeds the chunk sizes; the rest is the stream. The rest is
// also decoded as one payload, unframed, so raw CBOR inputs reach the value decoder directly.
//
// Beyond "no crash, no sanitizer report", it checks that whatever decodes re-encodes, that
// the re-encoding decodes to an equal value, and that encoding that again gives the same
// bytes (the encoding is deterministic).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <variant>
#include <vector>

#include "platform/ipc/Frame.h"
#include "platform/ipc/IpcInterface.h"
#include "platform/ipc/Message.h"
#include "platform/ipc/WireCodec.h"

namespace {

using namespace daskel::platform;
using Bytes = std::vector<std::uint8_t>;
using Type = Value::Type;

const IpcInterface& sampleInterface() {
  static const IpcInterface interface =
      IpcInterface::Builder("DKFuzzSample")
          .operation("wakeUpCompletion:", {}, {})
          .operation("startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:",
                     {Type::Url, Type::String, Type::String}, {Type::Error})
          .operation("fetchItemsWithOptions:completionHandler:",
                     {Type::Dictionary | Type::Array | Type::String | Type::Integer},
                     {Type::Array | Type::Url, Type::Error})
          .operationWithoutReply("itemChangedAtURL:", {Type::Url})
          .build();
  return interface;
}

[[noreturn]] void invariantBroken(const char* what) {
  std::fprintf(stderr, "wire_fuzzer: %s\n", what);
  std::abort();
}

void checkValueRoundTrip(const Value& value) {
  Result<Bytes> encoded = WireCodec::encode(value);
  if (!encoded) {
    invariantBroken("a decoded value does not encode");
  }
  Result<Value> again = WireCodec::decode(*encoded);
  if (!again || !(*again == value)) {
    invariantBroken("a re-encoded value does not decode to itself");
  }
  Result<Bytes> reencoded = WireCodec::encode(*again);
  if (!reencoded || *reencoded != *encoded) {
    invariantBroken("encoding is not deterministic");
  }
}

void checkMessage(const Message& message) {
  const IpcInterface& interface = sampleInterface();
  if (const Request* request = std::get_if<Request>(&message)) {
    (void)interface.check(*request);
    Result<Bytes> encoded = encodeRequest(*request);
    if (!encoded) {
      invariantBroken("a decoded request does not encode");
    }
    Result<Message> again = decodeMessage(*encoded);
    if (!again || !(*again == message)) {
      invariantBroken("a re-encoded request does not decode to itself");
    }
    return;
  }
  const Reply& reply = std::get<Reply>(message);
  // Check the reply as an answer to each operation in turn, as a connection would for the one
  // its id names.
  (void)interface.checkReply("wakeUpCompletion:", reply.values);
  (void)interface.checkReply("fetchItemsWithOptions:completionHandler:", reply.values);
  (void)interface.checkReply("itemChangedAtURL:", reply.values);
  Result<Bytes> encoded = encodeReply(reply);
  if (!encoded) {
    invariantBroken("a decoded reply does not encode");
  }
  Result<Message> again = decodeMessage(*encoded);
  if (!again || !(*again == message)) {
    invariantBroken("a re-encoded reply does not decode to itself");
  }
}

void handlePayload(std::span<const std::uint8_t> payload) {
  if (Result<Value> value = WireCodec::decode(payload)) {
    checkValueRoundTrip(*value);
  }
  if (Result<Message> message = decodeMessage(payload)) {
    checkMessage(*message);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  std::uint32_t state = data[0] * 2654435761u + 1;
  const std::span<const std::uint8_t> stream(data + 1, size - 1);

  FrameReader reader;
  bool violated = false;
  std::size_t position = 0;
  while (position < stream.size() && !violated) {
    state = state * 1103515245u + 12345u;
    const std::size_t chunk =
        std::min<std::size_t>(1 + (state >> 16) % 97, stream.size() - position);
    if (!reader.append(stream.subspan(position, chunk))) {
      violated = true;
      break;
    }
    position += chunk;
    while (true) {
      auto next = reader.nextFrame();
      if (!next) {
        violated = true;
        break;
      }
      if (!*next) {
        break;
      }
      if ((*next)->empty() || (*next)->size() > kMaxFrameSize) {
        invariantBroken("the reader yielded a frame of a length it must refuse");
      }
      handlePayload(**next);
    }
  }
  if (!violated) {
    const bool clean = reader.finish().has_value();
    if (clean != (reader.bufferedSize() == 0)) {
      invariantBroken("finish disagrees with the bytes left");
    }
  }

  handlePayload(stream);
  return 0;
}
