// IpcStream: the transport under one IpcConnection. It owns one connected Unix-domain stream
// socket, cuts what arrives into frames, and writes frames whole and in
// the order they were queued.
//
// Reading runs on the IoLoop's threads after start(): every complete frame payload goes to
// the frame handler, then at most once the end handler says why the stream ended (the peer
// closed cleanly, or a framing violation: a bad length, or the peer stopping in mid-frame).
// Both are called in stream order, one call at a time, on whichever loop thread delivers:
// what a loop thread reads goes to an inbox, and the one thread that is delivering drains it,
// so a handler that takes long (IpcConnection may run a whole request in it) holds back only
// this stream, and a second loop thread that reads more meanwhile only adds to the inbox.
//
// Writing: send() queues a frame and writes at once as much as the socket takes; the rest
// goes out when the loop reports the socket writable. Frames are never interleaved. A failing
// write (the peer has gone) drops what is queued and shuts the socket down, so the reading
// side reports the end in its place in the stream.
//
// Reading on a caller's thread: a thread that is about to block until a frame arrives (a
// synchronous call waiting for its reply) may take the read side of the stream for the time
// of its wait: takeReadSide(), then readHere() until what it waits for has come, then
// releaseReadSide(). Meanwhile that thread both reads and delivers, and the loop leaves the
// stream's input alone (it still serves blocked writes). So the arriving frame wakes the
// waiting thread itself instead of a loop thread that would then have to wake it. The read
// side is only handed over when nobody delivers and nothing read waits to be delivered, so
// frames still reach the handlers one at a time and in stream order.
// The socket is left in blocking mode and every read and write the loop makes passes
// MSG_DONTWAIT, so such a thread waits in recv() itself (one system call per reply, as a
// plain blocking client would make) unless its wait has a deadline, when it polls first.
//
// Reading by the loop while nobody holds the read side can be turned off
// (setLoopReading(false)): a connection that only makes blocking calls reads its replies on
// the caller's thread anyway, and keeping the loop away from its input spares two epoll_ctl
// calls per call. The loop still hears of a hang-up (one-shot), so a peer that goes away
// still ends the stream while nobody reads.
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
// under the stream's lock, and loop threads read only under it, so a descriptor is never
// used after it was closed (one that a thread polls in readHere() is shut down instead and
// closed when that poll returns). Handlers are called without the lock; they may call send(),
// consumed() and close().
#pragma once

#include <sys/types.h>

#include <chrono>
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
  // blocking and close-on-exec (the loop's reads and writes never block: see above).
  // `alreadyBlockingCloseOnExec`: the caller made it so (socketpair or accept4 with
  // SOCK_CLOEXEC and without SOCK_NONBLOCK, a descriptor received with MSG_CMSG_CLOEXEC from
  // such a socketpair), which spares checking its flags.
  static Result<std::shared_ptr<IpcStream>> adopt(int fd, bool alreadyBlockingCloseOnExec = false);

  ~IpcStream();
  IpcStream(const IpcStream&) = delete;
  IpcStream& operator=(const IpcStream&) = delete;

  // The socket, for reading its peer credentials; -1 once closed.
  int fd() const;

  // Starts reading. Call at most once. With `inputSent` (the peer has most likely sent the
  // first message already), a loop thread calling this reads the socket right after its
  // current handler (IoLoop::handleSoon) rather than when the kernel reports it.
  Result<void> start(FrameHandler onFrame, EndHandler onEnd, bool inputSent = false);

  // Queues one complete frame (header included). Dropped once the stream is closed or a
  // write has failed.
  void send(std::vector<std::uint8_t> frame);

  // The consumer is done with `bytes` payload bytes it was handed.
  void consumed(std::size_t bytes);

  // Closes the socket, drops queued writes and releases the handlers. Idempotent. No handler
  // starts afterwards.
  void close();

  bool isClosed() const;

  // Gives the calling thread the reading and delivering of the stream until
  // releaseReadSide(). False, and nothing changes, when the stream is not reading (not
  // started, ended, closed, paused), another thread holds the read side, or another thread is
  // delivering or has read frames it has not delivered yet: then the loop goes on reading.
  bool takeReadSide();
  // For the holder of the read side: waits for input, reads it and hands it to the handlers
  // on the calling thread, until `stop()` holds after a delivery, the stream ends or closes,
  // reading pauses, or `deadline` passes. Handlers run as they would on a loop thread
  // (without the lock; they may call close()).
  void readHere(const std::function<bool()>& stop,
                std::optional<std::chrono::steady_clock::time_point> deadline);
  // Hands reading back to the loop.
  void releaseReadSide();

  // Whether the loop reads the input while nobody holds the read side (the default). While
  // off, input waits in the socket for the next holder of the read side; a hang-up is still
  // reported and read by the loop.
  void setLoopReading(bool on);

 private:
  explicit IpcStream(int fd);

  void handleEvents(std::uint32_t events);
  // Reads what is available into inbox_ and, when the stream ended, end_.
  void readLocked();
  // Takes the outcome of one recv() (`count` bytes of `data`, or -1 with `error`) into
  // inbox_ or end_. False when reading stops here: nothing more to read now, or the end.
  bool absorbLocked(ssize_t count, int error, const std::uint8_t* data, std::size_t capacity);
  // For the holder of the read side: one blocking recv() without the lock. False when it
  // could not block (the socket was made nonblocking behind the stream's back).
  bool receiveBlockingLocked(std::unique_lock<std::mutex>& lock);
  // Runs `wait` (a poll() or recv() on fd_ by the holder of the read side) without the lock,
  // marked so that close() shuts the socket down rather than closing it under the wait, and
  // closes it afterwards if close() came meanwhile. Returns what `wait` returned.
  template <typename Wait>
  auto waitUnlocked(std::unique_lock<std::mutex>& lock, Wait wait);
  // After reading: notes the end or a pause and updates the loop registration.
  void finishReadLocked();
  // Hands inbox_ and end_ to the handlers unless another thread is doing so. Called with the
  // lock held; may return with it released.
  void deliverLocked(std::unique_lock<std::mutex>& lock);
  struct Handlers;
  // Hands inbox_ and end_ to `handlers` until both are empty or the stream closed; the
  // calling thread must be the one delivering. Called and returns with the lock held.
  void drainLocked(std::unique_lock<std::mutex>& lock, const Handlers& handlers);
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
  bool delivering_ = false;   // a thread is handing out inbox_
  bool readHeld_ = false;     // a caller's thread reads and delivers (takeReadSide)
  bool loopReading_ = true;   // the loop reads while nobody holds the read side
  bool pollingHere_ = false;  // ... and waits in poll() or recv() on fd_ without the lock
  int closedWhilePolled_ = -1;  // closed while polled: shut down, closed when the poll returns
  std::size_t outstandingBytes_ = 0;
  std::deque<std::vector<std::uint8_t>> writes_;
  std::size_t writeOffset_ = 0;  // bytes of writes_.front() already written
  FrameReader reader_;
  // Read, not yet handed out. A vector, which costs nothing while empty (most connections
  // are idle most of the time).
  std::vector<std::vector<std::uint8_t>> inbox_;
  std::optional<std::pair<End, ErrorPtr>> end_;   // read, not yet handed out
  // Set by start(), cleared by close(); shared so that a delivering thread can hold them
  // without copying the functions.
  struct Handlers {
    FrameHandler onFrame;
    EndHandler onEnd;
  };
  std::shared_ptr<const Handlers> handlers_;
  std::optional<IoLoop::RegistrationId> registration_;
  std::uint32_t registeredEvents_ = 0;
};

}  // namespace daskel::platform
