// The raw side of the benchmarks' round-trip baselines: a blocking Unix-socket connection that
// sends one fixed request frame and reads one fixed reply frame, with nothing between the
// bytes and the kernel. Against ipc_bench_raw_server (pingpong mode) it measures what a round
// trip of those bytes costs between two processes; against a Daskel service it measures the
// service alone, without the client library.
//
// Frames travel to ipc_bench_raw_server as hexadecimal text on its command line (toHex,
// fromHex), so every benchmark can have the raw server answer with the very reply bytes of the
// operation it compares with.
//
// THREADING NOTES: a RawPeer belongs to one thread; the free functions are safe anywhere.
// Failure: connectTo() returns -1 (errno tells why); ok() is false when the connect failed;
// roundTrip() returns false when the reply is missing or differs from the expected bytes.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace daskel::bench {

// A blocking connection to the Unix socket at `path`; -1 on failure.
inline int connectTo(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return -1;
  }
  return fd;
}

inline std::string toHex(const std::vector<std::uint8_t>& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const std::uint8_t byte : bytes) {
    text.push_back(kDigits[byte >> 4]);
    text.push_back(kDigits[byte & 0xf]);
  }
  return text;
}

// The bytes of `text` (pairs of hexadecimal digits); nullopt when it is not that.
inline std::optional<std::vector<std::uint8_t>> fromHex(const std::string& text) {
  auto digit = [](char c) -> int {
    if (c >= '0' && c <= '9') {
      return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
      return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
      return c - 'A' + 10;
    }
    return -1;
  };
  if (text.size() % 2 != 0) {
    return std::nullopt;
  }
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const int high = digit(text[i]);
    const int low = digit(text[i + 1]);
    if (high < 0 || low < 0) {
      return std::nullopt;
    }
    bytes.push_back(static_cast<std::uint8_t>(high << 4 | low));
  }
  return bytes;
}

// Sends `request` and reads a reply of exactly the size of `expected`, one at a time.
class RawPeer {
 public:
  RawPeer(const std::string& path,
          std::vector<std::uint8_t> request,
          std::vector<std::uint8_t> expected)
      : fd_(connectTo(path)),
        request_(std::move(request)),
        expected_(std::move(expected)),
        reply_(expected_.size()) {}
  ~RawPeer() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  bool ok() const { return fd_ >= 0; }

  // One round trip; false when the reply is missing or not the expected bytes.
  bool roundTrip() {
    std::size_t done = 0;
    while (done < request_.size()) {
      const ssize_t n = ::send(fd_, request_.data() + done, request_.size() - done, MSG_NOSIGNAL);
      if (n <= 0 && errno != EINTR) {
        return false;
      }
      done += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    done = 0;
    while (done < reply_.size()) {
      const ssize_t n = ::read(fd_, reply_.data() + done, reply_.size() - done);
      if (n <= 0 && errno != EINTR) {
        return false;
      }
      done += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    return reply_ == expected_;
  }

 private:
  const int fd_;
  const std::vector<std::uint8_t> request_;
  const std::vector<std::uint8_t> expected_;
  std::vector<std::uint8_t> reply_;
};

}  // namespace daskel::bench
