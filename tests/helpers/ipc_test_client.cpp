// ipc_test_client SERVICE echo TEXT: sends echo: with TEXT, writes the answer to standard
// output and exits 0 (1 when the service cannot be reached or fails the request).
// ipc_test_client SERVICE hold: sends hold:, writes "sent" and waits to be killed, so a test
// can kill a client while its request is outstanding.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcTestSupport.h"
#include "platform/log/Log.h"

using namespace daskel::platform;

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s SERVICE echo TEXT | SERVICE hold\n", argv[0]);
    return 2;
  }
  DKLoggingInitialize();
  const std::string mode = argv[2];
  auto connection = IpcConnection::connectToService(argv[1]);
  if (!connection) {
    std::fprintf(stderr, "%s\n", connection.error()->localizedDescription().c_str());
    return 1;
  }
  (*connection)->setRemoteInterface(daskel::platform::testing::ipcTestInterface());
  (*connection)->resume();
  if (mode == "echo" && argc == 4) {
    auto answer = daskel::platform::testing::ipcEcho(*connection, argv[3]);
    if (!answer) {
      return 1;
    }
    std::printf("%s\n", answer->c_str());
    return 0;
  }
  if (mode == "hold") {
    (*connection)->remoteObjectProxy()->call("hold:completion:", {Value("from a client")},
                                             [](Value::Array) {});
    std::printf("sent\n");
    std::fflush(stdout);
    for (;;) {
      ::pause();
    }
  }
  std::fprintf(stderr, "unknown mode %s\n", mode.c_str());
  return 2;
}
