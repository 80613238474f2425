// Frame: the framing of every Daskel stream connection. A frame is a 4-byte unsigned
// big-endian length N, 1 <= N <= kMaxFrameSize, then N bytes of payload (one CBOR item).
//
// FrameReader reassembles frames from bytes as they arrive from a nonblocking socket, in
// chunks of any size. It never allocates for a length it has only been told about: a header
// is checked as soon as its 4 bytes are in, and the buffer only ever holds bytes actually
// received. A bad length is reported at once and latched: every later call reports it again.
//
// Typical use, after each read:
//   if (auto r = reader.append(chunk); !r) { refuse(r.error()); }
//   while (auto frame = reader.nextFrame()) { if (!*frame) break; handle(**frame); }
// and at end of stream, reader.finish() says whether the peer stopped in mid-frame.
//
// Failure: Result errors are IpcError(MessageRefused) saying what was wrong.
//
// THREADING NOTES: a FrameReader is not thread safe; use it from the one queue that reads
// its socket. encodeFrame is stateless.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/value/Result.h"

namespace daskel::platform {

inline constexpr std::size_t kFrameHeaderSize = 4;
inline constexpr std::size_t kMaxFrameSize = 4194304;

// Header and payload in one buffer, ready for one write. Refuses an empty payload or one
// over kMaxFrameSize.
Result<std::vector<std::uint8_t>> encodeFrame(std::span<const std::uint8_t> payload);

class FrameReader {
 public:
  FrameReader() = default;
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;
  FrameReader(FrameReader&&) = default;
  FrameReader& operator=(FrameReader&&) = default;

  // Takes the next bytes of the stream. Fails when the header of the frame being assembled
  // holds a length of 0 or over kMaxFrameSize (later headers are checked by nextFrame).
  Result<void> append(std::span<const std::uint8_t> bytes);

  // The next complete payload; nullopt while it is incomplete. Fails on a bad length.
  Result<std::optional<std::vector<std::uint8_t>>> nextFrame();

  // The peer closed the stream. Fails when bytes of an unfinished frame are left (call it
  // once nextFrame has no more complete frames to give).
  Result<void> finish();

  // Bytes held for frames not yet returned.
  std::size_t bufferedSize() const { return buffer_.size() - consumed_; }

 private:
  Result<void> checkHeader();

  std::vector<std::uint8_t> buffer_;
  std::size_t consumed_ = 0;       // bytes of buffer_ already handed out
  std::size_t pendingLength_ = 0;  // checked payload length of the frame at consumed_, or 0
  ErrorPtr violation_;
};

}  // namespace daskel::platform
