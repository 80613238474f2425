// ExtensionControlChannel: the control socket between the daemon and one extension process, a
// SOCK_SEQPACKET socket on which every packet is one CBOR map:
//   extension -> daemon  {"ready": true}                      once, when the extension can serve
//   daemon -> extension  {"begin": "<request UUID>"} + 1 fd   a stream socket for that request
//   daemon -> extension  {"cancel": "<request UUID>"}         the request has ended
// UUIDs are in the lower-case 8-4-4-4-12 form. The extension exits when the socket closes.
//
// Both sides use this class: the daemon's extension supervisor and the provider SDK. It only
// encodes, decodes and moves packets and descriptors; what they mean is the callers' business.
//
// Ownership: owns its socket descriptor (closed by the destructor) and any descriptor it
// receives until the caller takes it out of the ControlMessage.
// THREADING NOTES: send() may be called from several threads at once (one packet is one
// sendmsg); receive() from one thread at a time.
// Failure: Result errors in the POSIX domain for socket failures; a packet that is not one of
// the three messages (bad CBOR, unknown key, a "begin" without exactly one descriptor, a UUID
// that is not well formed) is an error in the IPC domain (message refused) naming what was
// wrong, and any descriptor that came with it is closed.
#pragma once

#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/identity/ScopedFd.h"
#include "platform/value/Result.h"

namespace daskel::platform {

struct ControlMessage {
  enum class Kind { Ready, Begin, Cancel };
  Kind kind = Kind::Ready;
  std::string requestUuid;   // Begin and Cancel
  // Begin only. Closed with the message unless the receiver takes it with release(), so a
  // request's socket can be handed to a connection without a duplicate.
  ScopedFd requestSocket;
};

class ExtensionControlChannel {
 public:
  // Takes ownership of `fd`, a connected SOCK_SEQPACKET socket.
  explicit ExtensionControlChannel(int fd);

  // A connected pair: (daemon side, extension side), both close-on-exec.
  static Result<std::pair<ScopedFd, ScopedFd>> makeSocketPair();

  int fd() const { return fd_.get(); }

  Result<void> sendReady();
  // Sends {"begin": uuid} with `requestSocket` attached (the caller keeps its descriptor).
  Result<void> sendBegin(const std::string& requestUuid, int requestSocket);
  Result<void> sendCancel(const std::string& requestUuid);

  // Blocks for the next packet. nullopt (not an error) when the peer closed the socket.
  Result<std::optional<ControlMessage>> receive();

  // A fresh random request UUID, lower case 8-4-4-4-12. The random bytes come from the
  // kernel in batches kept per thread, so most calls make no system call.
  static std::string makeRequestUuid();
  static bool isWellFormedUuid(std::string_view text);

 private:
  ScopedFd fd_;
};

}  // namespace daskel::platform
