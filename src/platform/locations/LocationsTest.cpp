#include "platform/locations/Locations.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <optional>
#include <string>

namespace daskel::platform {
namespace {

using Paths = std::vector<std::string>;

constexpr const char* kVariables[] = {
    "DASKEL_RUNTIME_DIR",       "DASKEL_EXTENSIONS_PATH",
    "DASKEL_APPLICATIONS_PATH", "DASKEL_GROUP_CONTAINERS_DIR",
    "DASKEL_STATE_DIR",         "DASKEL_EXTENSION_IDLE_SECONDS",
    "XDG_RUNTIME_DIR",          "XDG_DATA_HOME",
    "XDG_STATE_HOME",           "HOME",
};

// Saves every variable the locations read, clears them, and restores them afterwards.
class LocationsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : kVariables) {
      const char* value = std::getenv(name);
      saved_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
      ::unsetenv(name);
    }
  }
  void TearDown() override {
    for (const auto& [name, value] : saved_) {
      if (value) {
        ::setenv(name, value->c_str(), 1);
      } else {
        ::unsetenv(name);
      }
    }
  }
  static void set(const char* name, const char* value) { ::setenv(name, value, 1); }

 private:
  std::vector<std::pair<const char*, std::optional<std::string>>> saved_;
};

// Runs `body` in a child process that is not root (as root it first becomes "nobody") and
// returns what the body printed to the pipe, or "<failed>".
std::string runAsNonRoot(const std::function<std::string()>& body) {
  int fds[2];
  if (::pipe(fds) != 0) {
    return "<failed>";
  }
  pid_t child = ::fork();
  if (child == 0) {
    ::close(fds[0]);
    if (::geteuid() == 0 &&
        (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0)) {
      ::_exit(1);
    }
    std::string text = body();
    ssize_t written = ::write(fds[1], text.data(), text.size());
    ::_exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
  }
  ::close(fds[1]);
  std::string text;
  char buffer[4096];
  ssize_t count;
  while ((count = ::read(fds[0], buffer, sizeof buffer)) > 0) {
    text.append(buffer, static_cast<std::size_t>(count));
  }
  ::close(fds[0]);
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    return "<failed>";
  }
  return text;
}

std::string allLocations() {
  std::string text = runtimeDirectory() + "\n" + groupContainersDirectory() + "\n" +
                     stateDirectory() + "\n" + notificationsDirectory() + "\n";
  for (const auto& path : extensionsPath()) {
    text += "ext " + path + "\n";
  }
  for (const auto& path : applicationsPath()) {
    text += "app " + path + "\n";
  }
  return text;
}

TEST_F(LocationsTest, EnvironmentVariablesOverrideEveryDefault) {
  set("DASKEL_RUNTIME_DIR", "/t/run");
  set("DASKEL_EXTENSIONS_PATH", "/t/ext1:/t/ext2");
  set("DASKEL_APPLICATIONS_PATH", "/t/apps");
  set("DASKEL_GROUP_CONTAINERS_DIR", "/t/groups");
  set("DASKEL_STATE_DIR", "/t/state");
  set("DASKEL_EXTENSION_IDLE_SECONDS", "5");
  EXPECT_EQ(runtimeDirectory(), "/t/run");
  EXPECT_EQ(notificationsDirectory(), "/t/run/notifications");
  EXPECT_EQ(extensionsPath(), (Paths{"/t/ext1", "/t/ext2"}));
  EXPECT_EQ(applicationsPath(), (Paths{"/t/apps"}));
  EXPECT_EQ(groupContainersDirectory(), "/t/groups");
  EXPECT_EQ(stateDirectory(), "/t/state");
  EXPECT_EQ(extensionIdleSeconds(), 5);
  // Read on every call: a change shows at once.
  set("DASKEL_RUNTIME_DIR", "/t/other");
  EXPECT_EQ(runtimeDirectory(), "/t/other");
}

TEST_F(LocationsTest, SearchPathsSkipEmptyEntries) {
  set("DASKEL_EXTENSIONS_PATH", ":/a::/b:");
  EXPECT_EQ(extensionsPath(), (Paths{"/a", "/b"}));
}

TEST_F(LocationsTest, IdleSecondsFallBackToThirtyUnlessAWholeNonNegativeNumber) {
  EXPECT_EQ(extensionIdleSeconds(), 30);
  for (const char* bad : {"abc", "12abc", "-3", "1.5", " 7", "99999999999999999999"}) {
    set("DASKEL_EXTENSION_IDLE_SECONDS", bad);
    EXPECT_EQ(extensionIdleSeconds(), 30) << bad;
  }
  set("DASKEL_EXTENSION_IDLE_SECONDS", "0");
  EXPECT_EQ(extensionIdleSeconds(), 0);
  set("DASKEL_EXTENSION_IDLE_SECONDS", "120");
  EXPECT_EQ(extensionIdleSeconds(), 120);
}

TEST_F(LocationsTest, RootUsesSystemDirectories) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "needs root";
  }
  set("HOME", "/home/ignored");
  set("XDG_RUNTIME_DIR", "/run/user/ignored");
  EXPECT_EQ(runtimeDirectory(), "/run/daskel");
  EXPECT_EQ(notificationsDirectory(), "/run/daskel/notifications");
  EXPECT_EQ(extensionsPath(),
            (Paths{"/usr/local/lib/daskel/extensions", "/usr/lib/daskel/extensions"}));
  EXPECT_EQ(applicationsPath(),
            (Paths{"/etc/daskel/applications", "/usr/share/daskel/applications"}));
  EXPECT_EQ(groupContainersDirectory(), "/var/lib/daskel/group-containers");
  EXPECT_EQ(stateDirectory(), "/var/lib/daskel");
}

TEST_F(LocationsTest, OtherUsersUseTheirXdgDirectories) {
  set("HOME", "/home/u");
  set("XDG_RUNTIME_DIR", "/run/user/1000");
  set("XDG_DATA_HOME", "/data");
  set("XDG_STATE_HOME", "/state");
  EXPECT_EQ(runAsNonRoot(allLocations),
            "/run/user/1000/daskel\n"
            "/data/daskel/group-containers\n"
            "/state/daskel\n"
            "/run/user/1000/daskel/notifications\n"
            "ext /data/daskel/extensions\n"
            "app /data/daskel/applications\n");
}

TEST_F(LocationsTest, XdgDirectoriesDefaultUnderHome) {
  set("HOME", "/home/u");
  set("XDG_RUNTIME_DIR", "/run/user/1000");
  // Relative XDG values are ignored, as if unset.
  set("XDG_STATE_HOME", "relative/state");
  EXPECT_EQ(runAsNonRoot(allLocations),
            "/run/user/1000/daskel\n"
            "/home/u/.local/share/daskel/group-containers\n"
            "/home/u/.local/state/daskel\n"
            "/run/user/1000/daskel/notifications\n"
            "ext /home/u/.local/share/daskel/extensions\n"
            "app /home/u/.local/share/daskel/applications\n");
}

TEST_F(LocationsTest, RuntimeDirectoryWithoutXdgRuntimeDirIsTheUsersRunDirectory) {
  set("HOME", "/home/u");
  std::string expected = runAsNonRoot([] { return std::to_string(::geteuid()); });
  EXPECT_EQ(runAsNonRoot(runtimeDirectory), "/run/user/" + expected + "/daskel");
}

}  // namespace
}  // namespace daskel::platform
