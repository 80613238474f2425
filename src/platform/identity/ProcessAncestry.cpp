#include "platform/identity/ProcessAncestry.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <string>

#include "platform/filesystem/FileSystem.h"
#include "platform/identity/ScopedFd.h"

namespace daskel::platform {

std::optional<pid_t> parseParentProcessId(std::string_view statLine) {
  const auto close = statLine.rfind(')');
  if (close == std::string_view::npos)
    return std::nullopt;
  std::string_view rest = statLine.substr(close + 1);
  // " S 1234 ...": the state, then the parent's pid.
  if (rest.size() < 4 || rest[0] != ' ' || rest[1] == ' ' || rest[2] != ' ')
    return std::nullopt;
  rest.remove_prefix(3);
  const std::string_view field = rest.substr(0, rest.find_first_of(" \n"));
  pid_t parent = -1;
  const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), parent);
  if (error != std::errc() || end != field.data() + field.size() || parent < 0)
    return std::nullopt;
  return parent;
}

Result<pid_t> readParentProcessId(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/stat";
  ScopedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid())
    return failure(posixError(errno, "Could not open", path));
  // The parent is among the first fields, after a command name of at most 64 bytes: one
  // read of this size holds them.
  char buffer[512];
  ssize_t length;
  do {
    length = ::read(fd.get(), buffer, sizeof buffer);
  } while (length < 0 && errno == EINTR);
  if (length < 0)
    return failure(posixError(errno, "Could not read", path));
  const auto parent =
      parseParentProcessId(std::string_view(buffer, static_cast<std::size_t>(length)));
  if (!parent) {
    return failure(makeError(kPosixErrorDomain, EINVAL, path + ": cannot be parsed",
                             {{kPosixErrorPathKey, Value(path)}}));
  }
  return *parent;
}

bool isProcessOrDescendantOf(pid_t pid,
                             const std::function<bool(pid_t)>& matches,
                             int maximumGenerations) {
  if (pid <= 0)
    return false;
  if (matches(pid))
    return true;
  pid_t current = pid;
  for (int generation = 0; generation < maximumGenerations; ++generation) {
    const auto parent = readParentProcessId(current);
    if (!parent || *parent <= 0)
      return false;
    if (matches(*parent))
      return true;
    current = *parent;
  }
  return false;
}

}  // namespace daskel::platform
