#include "platform/extensions/ExtensionControlChannel.h"

#include <cbor.h>
#include <pthread.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/errors/DKErrors.h"
#include "platform/filesystem/FileSystem.h"

namespace daskel::platform {

namespace {

constexpr char kReadyKey[] = "ready";
constexpr char kBeginKey[] = "begin";
constexpr char kCancelKey[] = "cancel";

// Room for the largest valid packet with plenty to spare; anything longer is refused.
constexpr std::size_t kMaximumPacketSize = 256;
// A "begin" carries one descriptor; room for a few more so that extras are received (and
// closed) rather than silently truncated away.
constexpr std::size_t kMaximumDescriptors = 8;

// Bumped in every forked child, so that per-thread batches of random bytes copied from the
// parent are not used again (see makeRequestUuid).
std::atomic<std::uint64_t> forkGeneration{1};
[[maybe_unused]] const int forkHandlerInstalled = ::pthread_atfork(nullptr, nullptr, [] {
  forkGeneration.fetch_add(1, std::memory_order_relaxed);
});

ErrorPtr socketError(int errorNumber, const char* what) {
  return makeError(kPosixErrorDomain, errorNumber,
                   std::string("control socket: ") + what + ": " + std::strerror(errorNumber));
}

ErrorPtr refused(const std::string& why) {
  return IpcError(IpcErrorCode::MessageRefused, "control socket: refused a packet: " + why);
}

// {"<key>": <value>} with a text or boolean value; the packets are small enough to build by
// hand around libcbor's head encoders.
std::vector<unsigned char> encodeMap(const char* key, const std::string* text, bool boolean) {
  std::vector<unsigned char> out;
  unsigned char head[9];
  const std::size_t keyLength = std::strlen(key);
  // One allocation: three heads of at most nine bytes, the key and the text.
  out.reserve(3 * sizeof head + keyLength + (text != nullptr ? text->size() : 0));
  auto append = [&](std::size_t n) { out.insert(out.end(), head, head + n); };
  append(cbor_encode_map_start(1, head, sizeof head));
  append(cbor_encode_string_start(keyLength, head, sizeof head));
  out.insert(out.end(), key, key + keyLength);
  if (text != nullptr) {
    append(cbor_encode_string_start(text->size(), head, sizeof head));
    out.insert(out.end(), text->begin(), text->end());
  } else {
    append(cbor_encode_bool(boolean, head, sizeof head));
  }
  return out;
}

struct CborItemDeleter {
  void operator()(cbor_item_t* item) const { cbor_decref(&item); }
};
using CborItem = std::unique_ptr<cbor_item_t, CborItemDeleter>;

std::optional<std::string> definiteText(cbor_item_t* item) {
  if (!cbor_isa_string(item) || !cbor_string_is_definite(item))
    return std::nullopt;
  return std::string(reinterpret_cast<const char*>(cbor_string_handle(item)),
                     cbor_string_length(item));
}

// A packet of the one shape the daemon and the SDK send, {"<key>": <text or boolean>}, read
// head by head with libcbor's streaming decoder, without building an item tree: control
// packets come two per request. nullopt for anything else, which the general reading below
// then refuses in so many words.
struct SimplePacket {
  std::string_view key;
  std::optional<std::string_view> text;
  std::optional<bool> flag;
};

std::optional<SimplePacket> readSimplePacket(const unsigned char* data, std::size_t size) {
  struct Head {
    enum class Kind { Other, MapOfOne, Text, Boolean } kind = Kind::Other;
    std::string_view text;
    bool flag = false;
  };
  static const cbor_callbacks callbacks = [] {
    cbor_callbacks c = cbor_empty_callbacks;
    c.map_start = [](void* context, std::size_t entries) {
      if (entries == 1)
        static_cast<Head*>(context)->kind = Head::Kind::MapOfOne;
    };
    // Only definite strings come here; an indefinite one starts with string_start.
    c.string = [](void* context, cbor_data text, std::uint64_t length) {
      auto* head = static_cast<Head*>(context);
      head->kind = Head::Kind::Text;
      head->text = std::string_view(reinterpret_cast<const char*>(text), length);
    };
    c.boolean = [](void* context, bool value) {
      auto* head = static_cast<Head*>(context);
      head->kind = Head::Kind::Boolean;
      head->flag = value;
    };
    return c;
  }();
  std::size_t offset = 0;
  auto next = [&]() -> Head {
    Head head;
    const cbor_decoder_result result =
        cbor_stream_decode(data + offset, size - offset, &callbacks, &head);
    if (result.status != CBOR_DECODER_FINISHED)
      return Head{};
    offset += result.read;
    return head;
  };
  if (next().kind != Head::Kind::MapOfOne)
    return std::nullopt;
  const Head key = next();
  if (key.kind != Head::Kind::Text)
    return std::nullopt;
  const Head value = next();
  if (offset != size)
    return std::nullopt;
  if (value.kind == Head::Kind::Text)
    return SimplePacket{key.text, value.text, std::nullopt};
  if (value.kind == Head::Kind::Boolean)
    return SimplePacket{key.text, std::nullopt, value.flag};
  return std::nullopt;
}

Result<void> sendPacket(int fd, const std::vector<unsigned char>& packet, int descriptor) {
  iovec iov{const_cast<unsigned char*>(packet.data()), packet.size()};
  msghdr message{};
  message.msg_iov = &iov;
  message.msg_iovlen = 1;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  if (descriptor >= 0) {
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof(int));
  }
  for (;;) {
    if (::sendmsg(fd, &message, MSG_NOSIGNAL) >= 0)
      return {};
    if (errno != EINTR)
      return failure(socketError(errno, "sendmsg"));
  }
}

}  // namespace

ExtensionControlChannel::ExtensionControlChannel(int fd) : fd_(fd) {}

Result<std::pair<ScopedFd, ScopedFd>> ExtensionControlChannel::makeSocketPair() {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0)
    return failure(socketError(errno, "socketpair"));
  return std::pair<ScopedFd, ScopedFd>(ScopedFd(fds[0]), ScopedFd(fds[1]));
}

Result<void> ExtensionControlChannel::sendReady() {
  return sendPacket(fd_.get(), encodeMap(kReadyKey, nullptr, true), -1);
}

Result<void> ExtensionControlChannel::sendBegin(const std::string& requestUuid, int requestSocket) {
  return sendPacket(fd_.get(), encodeMap(kBeginKey, &requestUuid, false), requestSocket);
}

Result<void> ExtensionControlChannel::sendCancel(const std::string& requestUuid) {
  return sendPacket(fd_.get(), encodeMap(kCancelKey, &requestUuid, false), -1);
}

Result<std::optional<ControlMessage>> ExtensionControlChannel::receive() {
  std::array<unsigned char, kMaximumPacketSize> buffer;
  iovec iov{buffer.data(), buffer.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * kMaximumDescriptors)> control{};
  msghdr message{};
  ssize_t received;
  for (;;) {
    message = msghdr{};
    message.msg_iov = &iov;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    received = ::recvmsg(fd_.get(), &message, MSG_CMSG_CLOEXEC);
    if (received >= 0)
      break;
    if (errno != EINTR)
      return failure(socketError(errno, "recvmsg"));
  }

  // Take every descriptor first, so that none leaks whatever the verdict on the packet.
  std::vector<ScopedFd> descriptors;
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
       header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
      continue;
    const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
      descriptors.emplace_back(fd);
    }
  }

  if (received == 0 && descriptors.empty())
    return std::optional<ControlMessage>();  // The peer closed the socket.
  if ((message.msg_flags & MSG_TRUNC) != 0)
    return failure(refused("longer than " + std::to_string(kMaximumPacketSize) + " bytes"));
  if ((message.msg_flags & MSG_CTRUNC) != 0)
    return failure(refused("too many descriptors"));

  // The usual packets, well formed, are taken without building an item tree.
  if (std::optional<SimplePacket> simple =
          readSimplePacket(buffer.data(), static_cast<std::size_t>(received))) {
    const bool isBegin = simple->key == kBeginKey;
    if ((isBegin || simple->key == kCancelKey) && simple->text && isWellFormedUuid(*simple->text) &&
        descriptors.size() == (isBegin ? 1u : 0u)) {
      ControlMessage result;
      result.kind = isBegin ? ControlMessage::Kind::Begin : ControlMessage::Kind::Cancel;
      result.requestUuid = std::string(*simple->text);
      if (isBegin)
        result.requestSocket = std::move(descriptors.front());
      return std::optional<ControlMessage>(std::move(result));
    }
    if (simple->key == kReadyKey && simple->flag == true && descriptors.empty()) {
      ControlMessage result;
      result.kind = ControlMessage::Kind::Ready;
      return std::optional<ControlMessage>(std::move(result));
    }
  }
  // Anything else is read in full, to say what is wrong with it.
  cbor_load_result load;
  CborItem item(cbor_load(buffer.data(), static_cast<std::size_t>(received), &load));
  if (!item || load.error.code != CBOR_ERR_NONE)
    return failure(refused("not a CBOR item"));
  if (load.read != static_cast<std::size_t>(received))
    return failure(refused("bytes after the CBOR item"));
  if (!cbor_isa_map(item.get()) || cbor_map_size(item.get()) != 1)
    return failure(refused("not a map with one key"));
  const cbor_pair pair = cbor_map_handle(item.get())[0];
  const std::optional<std::string> key = definiteText(pair.key);
  if (!key)
    return failure(refused("the key is not a text string"));

  ControlMessage result;
  if (*key == kReadyKey) {
    if (!cbor_is_bool(pair.value) || !cbor_get_bool(pair.value))
      return failure(refused("\"ready\" is not true"));
    if (!descriptors.empty())
      return failure(refused("\"ready\" came with descriptors"));
    result.kind = ControlMessage::Kind::Ready;
    return std::optional<ControlMessage>(std::move(result));
  }
  if (*key != kBeginKey && *key != kCancelKey)
    return failure(refused("unknown key \"" + *key + "\""));

  const bool isBegin = *key == kBeginKey;
  std::optional<std::string> uuid = definiteText(pair.value);
  if (!uuid || !isWellFormedUuid(*uuid))
    return failure(refused("\"" + *key + "\" does not hold a well-formed UUID"));
  if (isBegin && descriptors.size() != 1)
    return failure(refused("\"begin\" came with " + std::to_string(descriptors.size()) +
                           " descriptors instead of one"));
  if (!isBegin && !descriptors.empty())
    return failure(refused("\"cancel\" came with descriptors"));

  result.kind = isBegin ? ControlMessage::Kind::Begin : ControlMessage::Kind::Cancel;
  result.requestUuid = std::move(*uuid);
  if (isBegin)
    result.requestSocket = std::move(descriptors.front());
  return std::optional<ControlMessage>(std::move(result));
}

std::string ExtensionControlChannel::makeRequestUuid() {
  // Every UUID takes 16 bytes out of a per-thread batch, refilled from the kernel when it
  // runs out: one getrandom() per 32 UUIDs rather than per UUID. The bytes are used once. A
  // forked child's copy of the batch is the parent's too: the child refills before using it.
  struct RandomBatch {
    std::array<std::uint8_t, 512> bytes;
    std::size_t used = sizeof bytes;
    std::uint64_t forkGeneration = 0;
  };
  thread_local RandomBatch batch;
  const std::uint64_t generation = forkGeneration.load(std::memory_order_relaxed);
  if (batch.used == batch.bytes.size() || batch.forkGeneration != generation) {
    batch.forkGeneration = generation;
    std::size_t filled = 0;
    while (filled < batch.bytes.size()) {
      const ssize_t n = ::getrandom(batch.bytes.data() + filled, batch.bytes.size() - filled, 0);
      if (n > 0)
        filled += static_cast<std::size_t>(n);
      // EINTR only: getrandom without GRND_NONBLOCK blocks until the pool is ready.
    }
    batch.used = 0;
  }
  std::array<std::uint8_t, 16> bytes;
  std::memcpy(bytes.data(), batch.bytes.data() + batch.used, bytes.size());
  batch.used += bytes.size();
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10)
      text.push_back('-');
    text.push_back(kHex[bytes[i] >> 4]);
    text.push_back(kHex[bytes[i] & 0x0F]);
  }
  return text;
}

bool ExtensionControlChannel::isWellFormedUuid(std::string_view text) {
  if (text.size() != 36)
    return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (c != '-')
        return false;
    } else if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
      return false;
    }
  }
  return true;
}

}  // namespace daskel::platform
