#include "platform/identity/ProcessInfo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <string>
#include <vector>

#include "platform/filesystem/FileSystem.h"
#include "platform/identity/ScopedFd.h"

namespace daskel::platform {
namespace {

// .flatpak-info is a few hundred bytes; anything far larger is not one.
constexpr std::size_t kMaxFlatpakInfoSize = 256 * 1024;

std::string procPath(pid_t pid, std::string_view entry) {
  return "/proc/" + std::to_string(pid) + "/" + std::string(entry);
}

ErrorPtr contentError(const std::string& path, const std::string& what) {
  return makeError(kPosixErrorDomain, EINVAL, path + ": " + what,
                   {{kPosixErrorPathKey, Value(path)}});
}

// Reads `fd` to its end, failing past `limit` bytes.
Result<std::string> readAll(int fd, const std::string& path, std::size_t limit) {
  std::string text;
  char buffer[4096];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR)
        continue;
      return failure(posixError(errno, "Could not read", path));
    }
    if (n == 0)
      return text;
    text.append(buffer, static_cast<std::size_t>(n));
    if (text.size() > limit)
      return failure(contentError(path, "larger than expected"));
  }
}

std::string_view trim(std::string_view s) {
  const char* const kSpace = " \t\r";
  auto begin = s.find_first_not_of(kSpace);
  if (begin == std::string_view::npos)
    return {};
  auto end = s.find_last_not_of(kSpace);
  return s.substr(begin, end - begin + 1);
}

}  // namespace

std::optional<ProcessStat> parseProcessStat(std::string_view line) {
  auto close = line.rfind(')');
  if (close == std::string_view::npos)
    return std::nullopt;
  std::string_view rest = line.substr(close + 1);
  // Fields after the command name, from field 3 (state) on; field 22 is the 20th of them.
  std::vector<std::string_view> fields;
  while (fields.size() < 20) {
    auto begin = rest.find_first_not_of(' ');
    if (begin == std::string_view::npos)
      break;
    rest.remove_prefix(begin);
    auto end = rest.find_first_of(" \n");
    fields.push_back(rest.substr(0, end));
    if (end == std::string_view::npos)
      break;
    rest.remove_prefix(end);
  }
  if (fields.size() < 20 || fields[0].size() != 1)
    return std::nullopt;
  ProcessStat stat;
  stat.state = fields[0][0];
  std::string_view start = fields[19];
  auto [end, ec] = std::from_chars(start.data(), start.data() + start.size(), stat.startTime);
  if (ec != std::errc() || end != start.data() + start.size())
    return std::nullopt;
  return stat;
}

Result<ProcessStat> readProcessStat(pid_t pid) {
  std::string path = procPath(pid, "stat");
  ScopedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0)
    return failure(posixError(errno, "Could not open", path));
  auto text = readAll(fd.get(), path, 64 * 1024);
  if (!text)
    return failure(text.error());
  auto stat = parseProcessStat(*text);
  if (!stat)
    return failure(contentError(path, "cannot be parsed"));
  return *stat;
}

Result<std::string> readProcessExecutablePath(pid_t pid) {
  std::string path = procPath(pid, "exe");
  std::vector<char> buffer(4096);
  for (;;) {
    ssize_t n = ::readlink(path.c_str(), buffer.data(), buffer.size());
    if (n < 0)
      return failure(posixError(errno, "Could not read the link", path));
    if (static_cast<std::size_t>(n) < buffer.size()) {
      return std::string(buffer.data(), static_cast<std::size_t>(n));
    }
    // Possibly truncated: try again with more room.
    buffer.resize(buffer.size() * 2);
  }
}

Result<std::optional<std::string>> readFlatpakApplicationId(pid_t pid) {
  // /proc/<pid>/root is followed into the process's root as a step of the path, and the file
  // is opened there without following a final symbolic link: a link would be resolved
  // against our own root, not the process's. One open, however the process is rooted.
  std::string infoPath = procPath(pid, "root/.flatpak-info");
  ScopedFd info(
      ::open(infoPath.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (info.get() < 0) {
    // No such file, or no such process any more: either way nothing says it is a Flatpak
    // process, and one that has gone is refused by the caller's liveness check.
    if (errno == ENOENT)
      return std::optional<std::string>();
    return failure(posixError(errno, "Could not open", infoPath));
  }
  struct stat st;
  if (::fstat(info.get(), &st) != 0)
    return failure(posixError(errno, "Could not stat", infoPath));
  if (!S_ISREG(st.st_mode))
    return failure(contentError(infoPath, "not a regular file"));
  auto text = readAll(info.get(), infoPath, kMaxFlatpakInfoSize);
  if (!text)
    return failure(text.error());
  auto name = parseFlatpakApplicationId(*text);
  if (!name)
    return failure(contentError(infoPath, "no application name"));
  return name;
}

std::optional<std::string> parseFlatpakApplicationId(std::string_view keyFile) {
  bool inApplication = false;
  while (!keyFile.empty()) {
    auto newline = keyFile.find('\n');
    std::string_view line = trim(keyFile.substr(0, newline));
    keyFile.remove_prefix(newline == std::string_view::npos ? keyFile.size() : newline + 1);
    if (line.empty() || line.front() == '#')
      continue;
    if (line.front() == '[') {
      // The name belongs in the first "[Application]" group; the next group ends it.
      if (inApplication)
        return std::nullopt;
      inApplication = line == "[Application]";
      continue;
    }
    if (!inApplication)
      continue;
    auto equals = line.find('=');
    if (equals == std::string_view::npos || trim(line.substr(0, equals)) != "name")
      continue;
    std::string_view value = trim(line.substr(equals + 1));
    // Application ids are reverse-DNS names; escapes and control characters have no place
    // in one and are refused rather than interpreted.
    if (value.empty())
      return std::nullopt;
    for (char c : value) {
      if (c == '\\' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
        return std::nullopt;
    }
    return std::string(value);
  }
  return std::nullopt;
}

}  // namespace daskel::platform
