#include "platform/ipc/IpcServiceSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/errors/DKErrors.h"
#include "platform/locations/Locations.h"
#include "platform/log/Log.h"

namespace daskel::platform {

namespace {

// systemd hands activated sockets over starting at this descriptor.
constexpr int kFirstActivatedFd = 3;

ErrorPtr invalid(const std::string& why) {
  return IpcError(IpcErrorCode::ConnectionInvalid, why);
}

std::string errnoText(int error) {
  return std::strerror(error);
}

// Closes a descriptor when it goes out of scope.
class FdGuard {
 public:
  explicit FdGuard(int fd) : fd_(fd) {}
  ~FdGuard() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  FdGuard(const FdGuard&) = delete;
  FdGuard& operator=(const FdGuard&) = delete;
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

std::optional<long> parseDecimal(const char* text) {
  if (text == nullptr || *text == '\0') {
    return std::nullopt;
  }
  long value = 0;
  const char* end = text + std::strlen(text);
  auto [stop, error] = std::from_chars(text, end, value);
  if (error != std::errc() || stop != end) {
    return std::nullopt;
  }
  return value;
}

// Creates `directory` and any missing parents (mode 0755: clients of every user must reach
// the sockets inside).
Result<void> ensureDirectory(const std::string& directory) {
  for (std::size_t slash = directory.find('/', 1);; slash = directory.find('/', slash + 1)) {
    const std::string prefix = directory.substr(0, slash);
    if (!prefix.empty() && ::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
      return failure(invalid("cannot create the runtime directory " + prefix + ": " +
                             errnoText(errno)));
    }
    if (slash == std::string::npos) {
      break;
    }
  }
  struct stat st{};
  if (::stat(directory.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    return failure(invalid("the runtime directory " + directory + " is not a directory"));
  }
  return {};
}

Result<sockaddr_un> socketAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return failure(invalid(path + ": the path is too long for a socket"));
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

// An integer socket option, or -1 when it cannot be read.
int socketOption(int fd, int option) {
  int value = 0;
  socklen_t length = sizeof value;
  return ::getsockopt(fd, SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

enum class Probe { Live, Stale, Gone, Failed };

// Whether someone listens on the socket file at `address`.
Probe probe(const sockaddr_un& address, int* error) {
  FdGuard fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) {
    *error = errno;
    return Probe::Failed;
  }
  int result;
  do {
    result = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  } while (result != 0 && errno == EINTR);
  if (result == 0 || errno == EAGAIN) {
    return Probe::Live;  // accepted, or a listener with a full backlog
  }
  *error = errno;
  if (errno == ECONNREFUSED) {
    return Probe::Stale;
  }
  if (errno == ENOENT) {
    return Probe::Gone;
  }
  return Probe::Failed;
}

}  // namespace

IpcServiceSocket::Activation IpcServiceSocket::Activation::fromEnvironment() {
  return Activation{std::getenv("LISTEN_PID"), std::getenv("LISTEN_FDS"),
                    std::getenv("LISTEN_FDNAMES")};
}

Result<void> IpcServiceSocket::checkServiceName(std::string_view serviceName) {
  if (serviceName.empty() || serviceName == "." || serviceName == ".." ||
      serviceName.find('/') != std::string_view::npos ||
      serviceName.find('\0') != std::string_view::npos) {
    return failure(invalid("\"" + std::string(serviceName) + "\" is not a service name"));
  }
  return {};
}

std::string IpcServiceSocket::pathForService(std::string_view serviceName) {
  return runtimeDirectory() + "/" + std::string(serviceName);
}

std::optional<int> IpcServiceSocket::activatedDescriptor(std::string_view serviceName,
                                                        const Activation& activation,
                                                        pid_t pid) {
  const auto listenPid = parseDecimal(activation.listenPid);
  const auto count = parseDecimal(activation.listenFds);
  if (!listenPid || *listenPid != pid || !count || *count <= 0 ||
      activation.listenFdNames == nullptr) {
    return std::nullopt;
  }
  std::string_view names = activation.listenFdNames;
  for (long index = 0; index < *count; ++index) {
    const std::size_t colon = names.find(':');
    const std::string_view name = names.substr(0, colon);
    if (name == serviceName) {
      return kFirstActivatedFd + static_cast<int>(index);
    }
    if (colon == std::string_view::npos) {
      break;
    }
    names.remove_prefix(colon + 1);
  }
  return std::nullopt;
}

Result<IpcServiceSocket> IpcServiceSocket::open(const std::string& serviceName,
                                                const Activation& activation) {
  if (auto valid = checkServiceName(serviceName); !valid) {
    return failure(valid.error());
  }
  if (auto fd = activatedDescriptor(serviceName, activation, ::getpid())) {
    return openInherited(serviceName, *fd);
  }
  return bindAndListen(serviceName);
}

Result<IpcServiceSocket> IpcServiceSocket::openInherited(const std::string& serviceName, int fd) {
  const std::string what = "the inherited socket " + std::to_string(fd) + " of service " +
                           serviceName;
  struct stat st{};
  if (::fstat(fd, &st) != 0) {
    return failure(invalid(what + " cannot be used: " + errnoText(errno)));
  }
  const bool isListeningUnixStream = S_ISSOCK(st.st_mode) &&
                                     socketOption(fd, SO_DOMAIN) == AF_UNIX &&
                                     socketOption(fd, SO_TYPE) == SOCK_STREAM &&
                                     socketOption(fd, SO_ACCEPTCONN) == 1;
  if (!isListeningUnixStream) {
    return failure(invalid(what + " is not a listening Unix stream socket"));
  }
  const int flags = ::fcntl(fd, F_GETFL);
  const int fdFlags = ::fcntl(fd, F_GETFD);
  if (flags < 0 || fdFlags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0 ||
      ::fcntl(fd, F_SETFD, fdFlags | FD_CLOEXEC) != 0) {
    return failure(invalid(what + " cannot be set up: " + errnoText(errno)));
  }
  std::string path;
  sockaddr_un address{};
  socklen_t addressLength = sizeof address;
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressLength) == 0 &&
      addressLength > offsetof(sockaddr_un, sun_path) && address.sun_path[0] != '\0') {
    path.assign(address.sun_path, strnlen(address.sun_path, sizeof address.sun_path));
  }
  return IpcServiceSocket(fd, std::move(path), true, 0, 0);
}

Result<IpcServiceSocket> IpcServiceSocket::bindAndListen(const std::string& serviceName) {
  const std::string directory = runtimeDirectory();
  if (auto made = ensureDirectory(directory); !made) {
    return failure(made.error());
  }
  const std::string path = directory + "/" + serviceName;
  auto address = socketAddress(path);
  if (!address) {
    return failure(invalid("cannot listen for service " + serviceName + ": " +
                           address.error()->localizedDescription()));
  }

  // Held while the file is checked and replaced; released when this function returns, by
  // which time the socket listens and a second instance finds it live.
  FdGuard lock(::open((directory + "/." + serviceName + ".lock").c_str(),
                      O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (lock.get() >= 0) {
    while (::flock(lock.get(), LOCK_EX) != 0 && errno == EINTR) {
    }
  }

  FdGuard fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) {
    return failure(invalid("cannot listen for service " + serviceName + ": socket: " +
                           errnoText(errno)));
  }
  for (int attempt = 0;; ++attempt) {
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) == 0) {
      break;
    }
    if (errno != EADDRINUSE || attempt == 2) {
      return failure(invalid("cannot listen for service " + serviceName + " (" + path + ": " +
                             errnoText(errno) + ")"));
    }
    int probeError = 0;
    switch (probe(*address, &probeError)) {
      case Probe::Live:
        return failure(invalid("service " + serviceName + " is already running (" + path +
                               " accepts connections)"));
      case Probe::Failed:
        return failure(invalid("cannot listen for service " + serviceName + " (" + path +
                               " is in use and cannot be checked: " + errnoText(probeError) +
                               ")"));
      case Probe::Gone:
        continue;
      case Probe::Stale: {
        struct stat st{};
        if (::lstat(path.c_str(), &st) == 0 && !S_ISSOCK(st.st_mode)) {
          return failure(invalid("cannot listen for service " + serviceName + " (" + path +
                                 " exists and is not a socket)"));
        }
        if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
          return failure(invalid("cannot replace the stale socket " + path + ": " +
                                 errnoText(errno)));
        }
        DKLogInfo("Replaced the stale socket file %s of service %s", path, serviceName);
        continue;
      }
    }
  }
  // bind() honours the umask; every local process must be able to connect.
  if (::chmod(path.c_str(), 0666) != 0) {
    const int error = errno;
    ::unlink(path.c_str());
    return failure(invalid("cannot make " + path + " accessible: " + errnoText(error)));
  }
  if (::listen(fd.get(), SOMAXCONN) != 0) {
    const int error = errno;
    ::unlink(path.c_str());
    return failure(invalid("cannot listen on " + path + ": " + errnoText(error)));
  }
  struct stat st{};
  ::stat(path.c_str(), &st);
  return IpcServiceSocket(fd.release(), path, false, st.st_dev, st.st_ino);
}

IpcServiceSocket::IpcServiceSocket(IpcServiceSocket&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      path_(std::move(other.path_)),
      inherited_(other.inherited_),
      device_(other.device_),
      inode_(other.inode_) {}

IpcServiceSocket& IpcServiceSocket::operator=(IpcServiceSocket&& other) noexcept {
  if (this != &other) {
    close();
    fd_ = std::exchange(other.fd_, -1);
    path_ = std::move(other.path_);
    inherited_ = other.inherited_;
    device_ = other.device_;
    inode_ = other.inode_;
  }
  return *this;
}

IpcServiceSocket::~IpcServiceSocket() {
  close();
}

void IpcServiceSocket::close() {
  if (fd_ < 0) {
    return;
  }
  if (!inherited_) {
    // Only this socket's own file: a later instance may have bound the name since.
    struct stat st{};
    if (::lstat(path_.c_str(), &st) == 0 && st.st_dev == device_ && st.st_ino == inode_) {
      ::unlink(path_.c_str());
    }
  }
  ::close(fd_);
  fd_ = -1;
}

}  // namespace daskel::platform
