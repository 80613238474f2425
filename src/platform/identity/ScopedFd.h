// ScopedFd: sole owner of one file descriptor, closed on destruction. Move-only.
//
// THREADING NOTES: not synchronised; share a ScopedFd between threads only read-only (for
// example behind a shared_ptr<const ScopedFd>), never while it is moved or reset.
#pragma once

#include <unistd.h>

#include <utility>

namespace daskel::platform {

class ScopedFd {
 public:
  ScopedFd() = default;
  explicit ScopedFd(int fd) : fd_(fd) {}
  ~ScopedFd() { reset(); }
  ScopedFd(ScopedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  ScopedFd& operator=(ScopedFd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // The descriptor, now the caller's to close; -1 when there is none.
  int release() { return std::exchange(fd_, -1); }
  void reset() {
    if (fd_ >= 0)
      ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

}  // namespace daskel::platform
