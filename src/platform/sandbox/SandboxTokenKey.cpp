#include "platform/sandbox/SandboxTokenKey.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "platform/filesystem/FileSystem.h"
#include "platform/identity/ScopedFd.h"
#include "platform/sandbox/SandboxToken.h"

namespace daskel::platform {
namespace {

// A creator that lost the race to link() finds the winner's file; one that finds no file
// after losing (the winner's file was removed at that very moment) tries again, a few times.
constexpr int kCreateAttempts = 5;

ErrorPtr unavailable(const std::string& path, const std::string& what, int errorNumber) {
  return sandboxTokenError(
      SandboxTokenError::KeyUnavailable,
      "The sandbox token key " + path + " is unavailable: " + what + ".",
      {{"path", Value(path)}, {"underlyingError", Value(posixError(errorNumber, what, path))}});
}

ErrorPtr rejected(const std::string& path, const std::string& why) {
  return sandboxTokenError(SandboxTokenError::KeyRejected,
                           "The sandbox token key " + path + " may not be used: " + why + ".",
                           {{"path", Value(path)}});
}

std::string octalMode(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "0%03o", static_cast<unsigned>(mode & 07777));
  return text;
}

// Reads exactly the whole of `fd` into `bytes`; false with errno set, or with errno 0 when
// the file has not exactly kSize bytes.
bool readExactly(int fd, SandboxTokenKey::Bytes& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      if (n == 0) {
        errno = 0;
      }
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  std::uint8_t extra;
  ssize_t n;
  do {
    n = ::read(fd, &extra, 1);
  } while (n < 0 && errno == EINTR);
  if (n != 0) {
    errno = n < 0 ? errno : 0;
    return false;
  }
  return true;
}

bool writeAll(int fd, const std::uint8_t* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, bytes, size);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    bytes += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// Creates `directory` and its missing parents, each 0700. An existing directory is left as
// it is: it may be shared (XDG_STATE_HOME), and the key file protects itself.
Result<void> createPrivateDirectory(const std::filesystem::path& directory) {
  if (directory.empty()) {
    return {};
  }
  struct stat status;
  if (::stat(directory.c_str(), &status) == 0) {
    if (!S_ISDIR(status.st_mode)) {
      return failure(posixError(ENOTDIR, "Not a directory", directory.string()));
    }
    return {};
  }
  if (errno != ENOENT) {
    return failure(posixError(errno, "Could not look at", directory.string()));
  }
  if (directory.has_parent_path() && directory.parent_path() != directory) {
    if (auto made = createPrivateDirectory(directory.parent_path()); !made) {
      return made;
    }
  }
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    return failure(posixError(errno, "Could not create", directory.string()));
  }
  return {};
}

}  // namespace

SandboxTokenKey::Secret::~Secret() {
  OPENSSL_cleanse(bytes.data(), bytes.size());
}

Result<SandboxTokenKey> SandboxTokenKey::load(const std::string& path) {
  // O_NOFOLLOW: the key is the file itself, never wherever a link points.
  ScopedFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (!fd.valid()) {
    const int error = errno;
    if (error == ENOENT) {
      return failure(sandboxTokenError(
          SandboxTokenError::KeyMissing,
          "There is no sandbox token key at " + path + "; no token was issued under it.",
          {{"path", Value(path)}}));
    }
    if (error == ELOOP) {
      return failure(rejected(path, "it is a symbolic link"));
    }
    return failure(unavailable(path, "Could not open", error));
  }
  struct stat status;
  if (::fstat(fd.get(), &status) != 0) {
    return failure(unavailable(path, "Could not look at", errno));
  }
  if (!S_ISREG(status.st_mode)) {
    return failure(rejected(path, "it is not a regular file"));
  }
  if (status.st_uid != ::geteuid()) {
    return failure(rejected(path, "it is owned by uid " + std::to_string(status.st_uid) +
                                      ", not by uid " + std::to_string(::geteuid())));
  }
  if ((status.st_mode & 077) != 0) {
    return failure(rejected(path, "group or others have permissions on it (mode " +
                                      octalMode(status.st_mode) + ", must be 0600)"));
  }
  if (status.st_size != static_cast<off_t>(kSize)) {
    return failure(rejected(path, "it holds " + std::to_string(status.st_size) +
                                      " bytes instead of " + std::to_string(kSize)));
  }
  auto secret = std::make_shared<Secret>();
  if (!readExactly(fd.get(), secret->bytes)) {
    if (errno == 0) {
      return failure(rejected(path, "it changed size while it was read"));
    }
    return failure(unavailable(path, "Could not read", errno));
  }
  return SandboxTokenKey(std::move(secret));
}

Result<SandboxTokenKey> SandboxTokenKey::loadOrCreate(const std::string& path) {
  const std::filesystem::path keyPath(path);
  if (auto made = createPrivateDirectory(keyPath.parent_path()); !made) {
    return failure(sandboxTokenError(
        SandboxTokenError::KeyUnavailable,
        "The directory of the sandbox token key " + path + " could not be created.",
        {{"path", Value(path)}, {"underlyingError", Value(made.error())}}));
  }

  for (int attempt = 0; attempt < kCreateAttempts; ++attempt) {
    auto existing = load(path);
    if (existing ||
        existing.error()->code != static_cast<std::int64_t>(SandboxTokenError::KeyMissing)) {
      return existing;
    }

    Secret fresh;
    if (RAND_bytes(fresh.bytes.data(), static_cast<int>(fresh.bytes.size())) != 1) {
      return failure(sandboxTokenError(SandboxTokenError::KeyUnavailable,
                                       "No random bytes for a new sandbox token key.",
                                       {{"path", Value(path)}}));
    }
    std::string temporary = path + ".XXXXXX";
    // mkostemp opens with O_EXCL and mode 0600: nobody else has this file.
    ScopedFd fd(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!fd.valid()) {
      return failure(unavailable(temporary, "Could not create", errno));
    }
    const bool written =
        writeAll(fd.get(), fresh.bytes.data(), fresh.bytes.size()) && ::fsync(fd.get()) == 0;
    const int writeError = errno;
    fd.reset();
    if (!written) {
      ::unlink(temporary.c_str());
      return failure(unavailable(temporary, "Could not write", writeError));
    }
    // link(), unlike rename(), never replaces: of racing creators exactly one succeeds.
    const bool linked = ::link(temporary.c_str(), path.c_str()) == 0;
    const int linkError = errno;
    ::unlink(temporary.c_str());
    if (!linked && linkError != EEXIST) {
      return failure(unavailable(path, "Could not publish", linkError));
    }
    if (linked) {
      // Make the new name durable before anything is signed with the key.
      const std::string directory =
          keyPath.has_parent_path() ? keyPath.parent_path().string() : std::string(".");
      ScopedFd dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      if (dir.valid()) {
        ::fsync(dir.get());
      }
    }
    // Winner or not: read back whatever the file holds now.
  }
  return failure(sandboxTokenError(
      SandboxTokenError::KeyUnavailable,
      "The sandbox token key " + path + " kept disappearing while it was being created.",
      {{"path", Value(path)}}));
}

std::string SandboxTokenKey::mac(std::string_view text) const {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (HMAC(EVP_sha256(), secret_->bytes.data(), static_cast<int>(secret_->bytes.size()),
           reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest,
           &length) == nullptr) {
    return {};
  }
  return lowerHex(std::string_view(reinterpret_cast<const char*>(digest), length));
}

bool SandboxTokenKey::equalInConstantTime(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

bool SandboxTokenKey::operator==(const SandboxTokenKey& other) const {
  return CRYPTO_memcmp(secret_->bytes.data(), other.secret_->bytes.data(), kSize) == 0;
}

}  // namespace daskel::platform
