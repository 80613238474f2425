#include "platform/locations/Locations.h"

#include "platform/filesystem/FileSystem.h"

#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace daskel::platform {
namespace {

constexpr int kDefaultExtensionIdleSeconds = 30;

std::optional<std::string> environment(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') {
    return std::nullopt;
  }
  return std::string(value);
}

bool runningAsRoot() {
  return ::geteuid() == 0;
}

std::string home() {
  return homeDirectory();
}

// An XDG base directory: the variable when it holds an absolute path (relative ones are to
// be ignored), else the default under the home directory.
std::string xdgDirectory(const char* name, std::string_view defaultUnderHome) {
  if (auto value = environment(name); value && value->front() == '/') {
    return *value;
  }
  return home() + "/" + std::string(defaultUnderHome);
}

std::string xdgRuntimeDirectory() {
  if (auto value = environment("XDG_RUNTIME_DIR"); value && value->front() == '/') {
    return *value;
  }
  // Where the login manager puts it when the session did not say.
  return "/run/user/" + std::to_string(::geteuid());
}

std::string xdgDataHome() {
  return xdgDirectory("XDG_DATA_HOME", ".local/share");
}

std::string xdgStateHome() {
  return xdgDirectory("XDG_STATE_HOME", ".local/state");
}

std::vector<std::string> splitSearchPath(std::string_view text) {
  std::vector<std::string> result;
  while (!text.empty()) {
    std::size_t colon = text.find(':');
    std::string_view entry = text.substr(0, colon);
    if (!entry.empty()) {
      result.emplace_back(entry);
    }
    if (colon == std::string_view::npos) {
      break;
    }
    text.remove_prefix(colon + 1);
  }
  return result;
}

}  // namespace

std::string runtimeDirectory() {
  if (auto value = environment("DASKEL_RUNTIME_DIR")) {
    return *value;
  }
  return runningAsRoot() ? "/run/daskel" : xdgRuntimeDirectory() + "/daskel";
}

std::vector<std::string> extensionsPath() {
  if (auto value = environment("DASKEL_EXTENSIONS_PATH")) {
    return splitSearchPath(*value);
  }
  if (runningAsRoot()) {
    return {"/usr/local/lib/daskel/extensions", "/usr/lib/daskel/extensions"};
  }
  return {xdgDataHome() + "/daskel/extensions"};
}

std::vector<std::string> applicationsPath() {
  if (auto value = environment("DASKEL_APPLICATIONS_PATH")) {
    return splitSearchPath(*value);
  }
  if (runningAsRoot()) {
    return {"/etc/daskel/applications", "/usr/share/daskel/applications"};
  }
  return {xdgDataHome() + "/daskel/applications"};
}

std::string groupContainersDirectory() {
  if (auto value = environment("DASKEL_GROUP_CONTAINERS_DIR")) {
    return *value;
  }
  return runningAsRoot() ? "/var/lib/daskel/group-containers"
                         : xdgDataHome() + "/daskel/group-containers";
}

std::string stateDirectory() {
  if (auto value = environment("DASKEL_STATE_DIR")) {
    return *value;
  }
  return runningAsRoot() ? "/var/lib/daskel" : xdgStateHome() + "/daskel";
}

std::string notificationsDirectory() {
  return runtimeDirectory() + "/notifications";
}

int extensionIdleSeconds() {
  auto value = environment("DASKEL_EXTENSION_IDLE_SECONDS");
  if (!value) {
    return kDefaultExtensionIdleSeconds;
  }
  int seconds = 0;
  const char* end = value->data() + value->size();
  auto [ptr, ec] = std::from_chars(value->data(), end, seconds);
  // Anything but a whole non-negative number falls back to the default.
  if (ec != std::errc() || ptr != end || seconds < 0) {
    return kDefaultExtensionIdleSeconds;
  }
  return seconds;
}

}  // namespace daskel::platform
