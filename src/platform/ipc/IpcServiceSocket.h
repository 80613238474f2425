// IpcServiceSocket: the listening socket of one named service, at <runtime dir>/<name>.
//
// open() takes the name at once:
// - Under systemd socket activation (LISTEN_PID is this process, and LISTEN_FDS /
//   LISTEN_FDNAMES name a descriptor, counted from 3, whose name is the service name) it
//   uses that inherited socket, after checking it is a listening Unix stream socket.
// - Otherwise it creates the runtime directory if missing, binds, sets the socket file to mode
//   0666 (any local process may connect; authorisation is per request) and listens. A socket
//   file left behind by a process that is gone (a connect is refused) is replaced; one with a
//   live listener (a connect succeeds) makes open() fail. The check-and-replace runs under an
//   flock on "<runtime dir>/.<name>.lock", so two starting instances cannot both replace the
//   same stale file and leave one of them listening on an unlinked socket.
//
// Ownership: owns the descriptor. close() (or the destructor) closes it and, for a socket it
// bound itself, removes the socket file if the file is still this socket's.
//
// THREADING NOTES: not thread safe; its owner (IpcListener) serialises access.
// Failure: Result errors are IpcError(ConnectionInvalid) whose description names the service,
// the path and the errno text.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/value/Result.h"

namespace daskel::platform {

class IpcServiceSocket {
 public:
  // What systemd passed, as found in LISTEN_PID, LISTEN_FDS and LISTEN_FDNAMES (null when
  // unset).
  struct Activation {
    const char* listenPid = nullptr;
    const char* listenFds = nullptr;
    const char* listenFdNames = nullptr;

    static Activation fromEnvironment();
  };

  // A service name is one non-empty path component.
  static Result<void> checkServiceName(std::string_view serviceName);
  // <runtime dir>/<serviceName>.
  static std::string pathForService(std::string_view serviceName);
  // The descriptor that `activation` names for `serviceName` when it is meant for process
  // `pid`; nullopt when it names none.
  static std::optional<int> activatedDescriptor(std::string_view serviceName,
                                                const Activation& activation,
                                                pid_t pid);

  static Result<IpcServiceSocket> open(const std::string& serviceName,
                                       const Activation& activation = Activation::fromEnvironment());

  IpcServiceSocket(IpcServiceSocket&& other) noexcept;
  IpcServiceSocket& operator=(IpcServiceSocket&& other) noexcept;
  IpcServiceSocket(const IpcServiceSocket&) = delete;
  IpcServiceSocket& operator=(const IpcServiceSocket&) = delete;
  ~IpcServiceSocket();

  // Nonblocking, close-on-exec; -1 once closed.
  int fd() const { return fd_; }
  const std::string& path() const { return path_; }
  bool isInherited() const { return inherited_; }

  void close();

 private:
  IpcServiceSocket(int fd, std::string path, bool inherited, dev_t device, ino_t inode)
      : fd_(fd), path_(std::move(path)), inherited_(inherited), device_(device), inode_(inode) {}

  static Result<IpcServiceSocket> openInherited(const std::string& serviceName, int fd);
  static Result<IpcServiceSocket> bindAndListen(const std::string& serviceName);

  int fd_ = -1;
  std::string path_;
  bool inherited_ = false;
  // The socket file this socket bound, to recognise it when removing it.
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace daskel::platform
