// ipc_bench_raw_server MODE PATH [REPLY]: the raw baselines of the benchmarks. Listens on the
// Unix socket PATH and answers every frame (4-byte big-endian length, then that many bytes)
// with one reply frame: REPLY, the whole frame in hexadecimal, or by default the IPC
// benchmark's reply frame; the very bytes the Daskel service would send. It decodes nothing
// and checks nothing beyond the length: what is left is the cost of the kernel.
//   pingpong  one connection at a time, blocking reads and writes
//   epoll     a single-threaded, level-triggered epoll loop over all connections
// Prints "ready" once listening; runs until SIGTERM.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "IpcBenchProtocol.h"
#include "helpers/HelperProcess.h"
#include "helpers/RawPingPong.h"

namespace {

// What every frame is answered with; set once in main(), before serving.
std::vector<std::uint8_t> replyFrame = daskel::bench::ipcBenchReplyFrame();

int listenOn(const std::string& path, bool nonblocking) {
  const int fd =
      ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (nonblocking ? SOCK_NONBLOCK : 0), 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (fd < 0 || path.size() >= sizeof address.sun_path) {
    return -1;
  }
  std::strcpy(address.sun_path, path.c_str());
  ::unlink(path.c_str());
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd, SOMAXCONN) != 0) {
    std::fprintf(stderr, "ipc_bench_raw_server: %s: %s\n", path.c_str(), std::strerror(errno));
    ::close(fd);
    return -1;
  }
  return fd;
}

bool readExactly(int fd, std::uint8_t* buffer, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = ::read(fd, buffer + done, size - done);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

bool writeAll(int fd, const std::uint8_t* bytes, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = ::send(fd, bytes + done, size - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

std::uint32_t frameLength(const std::uint8_t* header) {
  return (std::uint32_t{header[0]} << 24) | (std::uint32_t{header[1]} << 16) |
         (std::uint32_t{header[2]} << 8) | std::uint32_t{header[3]};
}

void servePingPong(int listenFd) {
  std::vector<std::uint8_t> payload;
  for (;;) {
    const int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) {
        continue;
      }
      return;
    }
    std::uint8_t header[4];
    while (readExactly(fd, header, sizeof header)) {
      payload.resize(frameLength(header));
      if (!readExactly(fd, payload.data(), payload.size()) ||
          !writeAll(fd, replyFrame.data(), replyFrame.size())) {
        break;
      }
    }
    ::close(fd);
  }
}

// One connection of the epoll server: bytes in, replies out.
struct Peer {
  int fd = -1;
  std::vector<std::uint8_t> in;
  std::vector<std::uint8_t> out;
  std::size_t outOffset = 0;
  bool watchingOut = false;
};

void serveEpoll(int listenFd) {
  const int epollFd = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = listenFd;
  ::epoll_ctl(epollFd, EPOLL_CTL_ADD, listenFd, &event);
  std::unordered_map<int, Peer> peers;
  std::uint8_t chunk[65536];
  epoll_event events[256];

  auto drop = [&](int fd) {
    ::epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, nullptr);
    ::close(fd);
    peers.erase(fd);
  };
  // Writes what the socket takes; false when the peer has gone.
  auto flush = [&](Peer& peer) {
    while (peer.outOffset < peer.out.size()) {
      const ssize_t n = ::send(peer.fd, peer.out.data() + peer.outOffset,
                               peer.out.size() - peer.outOffset, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        break;
      }
      if (n <= 0) {
        return false;
      }
      peer.outOffset += static_cast<std::size_t>(n);
    }
    if (peer.outOffset == peer.out.size()) {
      peer.out.clear();
      peer.outOffset = 0;
    }
    const bool wantOut = !peer.out.empty();
    if (wantOut != peer.watchingOut) {
      epoll_event change{};
      change.events = EPOLLIN | (wantOut ? std::uint32_t{EPOLLOUT} : 0u);
      change.data.fd = peer.fd;
      ::epoll_ctl(epollFd, EPOLL_CTL_MOD, peer.fd, &change);
      peer.watchingOut = wantOut;
    }
    return true;
  };

  for (;;) {
    const int count = ::epoll_wait(epollFd, events, 256, -1);
    if (count < 0) {
      if (errno == EINTR) {
        continue;
      }
      return;
    }
    for (int i = 0; i < count; ++i) {
      const int fd = events[i].data.fd;
      if (fd == listenFd) {
        for (;;) {
          const int peerFd = ::accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
          if (peerFd < 0) {
            break;
          }
          epoll_event add{};
          add.events = EPOLLIN;
          add.data.fd = peerFd;
          ::epoll_ctl(epollFd, EPOLL_CTL_ADD, peerFd, &add);
          peers[peerFd].fd = peerFd;
        }
        continue;
      }
      auto found = peers.find(fd);
      if (found == peers.end()) {
        continue;
      }
      Peer& peer = found->second;
      bool alive = true;
      if (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
        for (;;) {
          const ssize_t n = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
          if (n < 0 && errno == EINTR) {
            continue;
          }
          if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
          }
          if (n <= 0) {
            alive = false;
            break;
          }
          peer.in.insert(peer.in.end(), chunk, chunk + n);
          if (static_cast<std::size_t>(n) < sizeof chunk) {
            break;
          }
        }
        std::size_t at = 0;
        while (peer.in.size() - at >= 4) {
          const std::size_t length = frameLength(peer.in.data() + at);
          if (peer.in.size() - at - 4 < length) {
            break;
          }
          at += 4 + length;
          peer.out.insert(peer.out.end(), replyFrame.begin(), replyFrame.end());
        }
        peer.in.erase(peer.in.begin(), peer.in.begin() + static_cast<std::ptrdiff_t>(at));
      }
      if (alive) {
        alive = flush(peer);
      }
      if (!alive) {
        drop(fd);
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  daskel::bench::prepareHelperProcess();
  if (argc != 3 && argc != 4) {
    std::fprintf(stderr, "usage: ipc_bench_raw_server pingpong|epoll PATH [REPLY-FRAME-HEX]\n");
    return 2;
  }
  if (argc == 4) {
    auto reply = daskel::bench::fromHex(argv[3]);
    if (!reply || reply->size() < 4) {
      std::fprintf(stderr, "ipc_bench_raw_server: the reply frame is not hexadecimal bytes\n");
      return 2;
    }
    replyFrame = std::move(*reply);
  }
  const std::string mode = argv[1];
  const bool epoll = mode == "epoll";
  if (!epoll && mode != "pingpong") {
    std::fprintf(stderr, "ipc_bench_raw_server: unknown mode %s\n", mode.c_str());
    return 2;
  }
  const int listenFd = listenOn(argv[2], epoll);
  if (listenFd < 0) {
    return 1;
  }
  daskel::bench::say("ready");
  if (epoll) {
    serveEpoll(listenFd);
  } else {
    servePingPong(listenFd);
  }
  return 0;
}
