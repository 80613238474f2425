// What the IPC benchmark and its helper processes agree on: the benchmark service's name and
// interface, the string that travels, and the exact frames of one request and its reply.
//
// The raw baselines (ping-pong server, epoll echo server, raw clients) send and answer these
// very bytes, so that every comparison moves frames of the same sizes. A raw client may send
// the request frame to the Daskel service too: its reply id is fixed, which the protocol
// allows for a client that waits for each reply before the next request.
//
// THREADING NOTES: plain functions; safe from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/ipc/Frame.h"
#include "platform/ipc/IpcInterface.h"
#include "platform/ipc/Message.h"

namespace daskel::bench {

inline constexpr char kIpcBenchService[] = "com.orvane.IpcBench";
inline constexpr char kIpcBenchEcho[] = "echoString:completion:";
inline constexpr char kIpcBenchConnectionCount[] = "connectionCountCompletion:";
// A typical argument: a bookmarkable-string-sized text.
inline constexpr char kIpcBenchPayload[] = "com.example.provider/Documents/Quarterly Report.txt";
// The id raw clients put in every request; three bytes of CBOR, as most ids a Daskel client
// uses in a run (256 to 65535).
inline constexpr std::uint64_t kIpcBenchRawReplyId = 1000;

// echoString: answers with its string; connectionCount: with the number of open connections.
inline platform::IpcInterface ipcBenchInterface() {
  using Type = platform::Value::Type;
  return platform::IpcInterface::Builder("IpcBench")
      .operation(kIpcBenchEcho, {Type::String}, {Type::String})
      .operation(kIpcBenchConnectionCount, {}, {Type::Integer})
      .build();
}

// The whole frame (header included) of echoString: with the payload and the fixed id.
inline std::vector<std::uint8_t> ipcBenchRequestFrame() {
  platform::Request request{
      kIpcBenchEcho, {platform::Value(kIpcBenchPayload)}, kIpcBenchRawReplyId};
  return *platform::encodeFrame(*platform::encodeRequest(request));
}

// The whole frame of the Daskel service's reply to ipcBenchRequestFrame().
inline std::vector<std::uint8_t> ipcBenchReplyFrame() {
  platform::Reply reply{kIpcBenchRawReplyId, {platform::Value(kIpcBenchPayload)}};
  return *platform::encodeFrame(*platform::encodeReply(reply));
}

}  // namespace daskel::bench
