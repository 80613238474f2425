// daskel_scripted_extension: a provider extension whose behaviour comes from the script in its
// bundle (see ExtensionScript.h), for real-process tests of the daemon's extension handling.
#include <limits.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "ExtensionScript.h"
#include "ScriptedProvider.h"
#include "platform/log/Log.h"
#include "sdk/ProviderExtension.h"

namespace {

// Waits until the peer closes the control socket at `fd` (whatever it sends is ignored).
int waitForControlSocketToClose(int fd) {
  char buffer[512];
  for (;;) {
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n == 0 || (n < 0 && errno != EINTR)) {
      return 0;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  daskel::platform::DKLoggingInitialize();
  char cwd[PATH_MAX];
  if (::getcwd(cwd, sizeof cwd) == nullptr) {
    DKLogError("scripted extension: no working directory");
    return 1;
  }
  auto script = daskel::testing::ExtensionScript::load(cwd);
  if (!script) {
    DKLogError("scripted extension: %@", script.error());
    return 1;
  }
  daskel::testing::ScriptedProvider provider(*script);
  if (script->recordsLaunches()) {
    provider.record("launch");
  }
  if (script->exitAtStart()) {
    return *script->exitAtStart();
  }
  if (!script->sendsReady()) {
    const char* fd = std::getenv("DASKEL_EXTENSION_CONTROL_FD");
    return waitForControlSocketToClose(fd ? std::atoi(fd) : 3);
  }
  return daskel::sdk::run(provider, argc, argv);
}
