// IpcStream: the transport under one IpcConnection. It owns one connected, nonblocking
// Unix-domain stream socket, cuts what arrives into frames, and writes frames whole and in
// the order they were queued.
//
// Reading runs on the IoLoop thread after start(): every complete frame payload goes to the
// frame handler, then at most once the end handler says why the stream ended (the peer closed
// cleanly, or a framing violation: a bad length, or the peer stopping in mid-frame). Both run
// on the loop thread, in stream order, and must only hand work on (to a dispatch queue).
//
// Writing: send() queues a frame and writes at once as much as the socket takes; the rest
// goes out when the loop reports the socket writable. Frames are never interleaved. A failing
// write (the peer has gone) drops what is queued and shuts the socket down, so the reading
// side reports the end in its place in the stream.
//
// Flow control: the consumer reports with consumed() when it has dealt with the bytes of
// frames it was given; while more than kReadPauseBytes are outstanding, reading pauses, so a
// peer that sends faster than its requests are served cannot make the process buffer without
// bound.
//
// Ownership: the stream owns the socket and closes it in close() or its destructor. While
// registered with the loop, the loop holds the stream (and so the handlers and what they
// capture); close() releases that.
//
// THREADING NOTES: every member may be called from any thread. The socket is only closed
// under the stream's lock, and the loop thread reads only under it, so a descriptor is never
// used after it was closed.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/ipc/Frame.h"
#include "platform/ipc/IoLoop.h"
#include "platform/value/Result.h"

namespace daskel::platform {

class IpcStream : public std::enable_shared_from_this<IpcStream> {
 public:
  enum class End {
    // The peer closed (or reset) the connection at a frame boundary.
    PeerClosed,
    // The bytes broke the framing rules; the reason says how.
    Violation,
  };

  using FrameHandler = std::function<void(std::vector<std::uint8_t> payload)>;
  using EndHandler = std::function<void(End end, ErrorPtr reason)>;

  // Reading pauses while more bytes than this were handed out and not yet consumed.
  static constexpr std::size_t kReadPauseBytes = 2 * kMaxFrameSize;

  // Takes ownership of the connected socket `fd` (closed on failure too) and makes it
  // nonblocking and close-on-exec.
  static Result<std::shared_ptr<IpcStream>> adopt(int fd);

  ~IpcStream();
  IpcStream(const IpcStream&) = delete;
  IpcStream& operator=(const IpcStream&) = delete;

  // The socket, for reading its peer credentials; -1 once closed.
  int fd() const;

  // Starts reading. Call at most once.
  Result<void> start(FrameHandler onFrame, EndHandler onEnd);

  // Queues one complete frame (header included). Dropped once the stream is closed or a
  // write has failed.
  void send(std::vector<std::uint8_t> frame);

  // The consumer is done with `bytes` payload bytes it was handed.
  void consumed(std::size_t bytes);

  // Closes the socket, drops queued writes and releases the handlers. Idempotent. No handler
  // starts afterwards.
  void close();

  bool isClosed() const;

 private:
  explicit IpcStream(int fd);

  void handleEvents(std::uint32_t events);
  // Reads what is available; fills `frames` and, when the stream ended, `end`.
  void readLocked(std::vector<std::vector<std::uint8_t>>& frames,
                  std::optional<std::pair<End, ErrorPtr>>& end);
  void flushLocked();
  void failWritesLocked();
  // Brings the loop registration in line with what the stream waits for.
  void updateInterestLocked();

  mutable std::mutex mutex_;
  int fd_;
  bool closed_ = false;
  bool reading_ = false;      // started and not ended
  bool readPaused_ = false;   // too many bytes outstanding
  bool writeBlocked_ = false; // the socket took no more; waiting for EPOLLOUT
  bool writeFailed_ = false;
  std::size_t outstandingBytes_ = 0;
  std::deque<std::vector<std::uint8_t>> writes_;
  std::size_t writeOffset_ = 0;  // bytes of writes_.front() already written
  FrameReader reader_;
  FrameHandler onFrame_;
  EndHandler onEnd_;
  std::optional<IoLoop::RegistrationId> registration_;
  std::uint32_t registeredEvents_ = 0;
};

}  // namespace daskel::platform
