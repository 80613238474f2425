// ipc_test_service SERVICE: serves the IPC test protocol on the named service (in
// DASKEL_RUNTIME_DIR) until killed, logging through the logging facility (so DASKEL_LOG_FILE
// collects its error lines). Standard output reports, one line each:
//   "ready"              the listener is resumed
//   "held <pid>"         a hold: request of the client with that pid arrived
//   "interrupted <pid>"  the connection of that client ended because the client closed or died
// hold: keeps its reply block; releaseHeldCompletion: calls every kept block (whether or not
// its connection still exists) and answers with how many there were.
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcHandlerTable.h"
#include "platform/ipc/IpcListener.h"
#include "platform/ipc/IpcTestSupport.h"
#include "platform/log/Log.h"

namespace {

using namespace daskel::platform;

std::mutex gOutputMutex;

void say(const std::string& line) {
  std::lock_guard lock(gOutputMutex);
  const std::string text = line + "\n";
  (void)!::write(STDOUT_FILENO, text.data(), text.size());
}

class HeldReplies {
 public:
  void add(ReplyBlock reply) {
    std::lock_guard lock(mutex_);
    replies_.push_back(std::move(reply));
  }
  std::vector<ReplyBlock> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(replies_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<ReplyBlock> replies_;
};

class ServiceDelegate : public IpcListenerDelegate {
 public:
  bool shouldAcceptNewConnection(std::shared_ptr<IpcConnection> connection) override {
    const std::string pid = std::to_string(connection->processIdentifier());
    auto table = daskel::platform::testing::ipcEchoService();
    table->on("hold:completion:", [this, pid](Value::Array, std::optional<ReplyBlock> reply) {
      if (reply) {
        held_.add(std::move(*reply));
      }
      say("held " + pid);
    });
    table->on("store:completion:", [](Value::Array args, std::optional<ReplyBlock> reply) {
      const auto* dictionary = args[0].dictionary();
      (*reply)({Value(dictionary ? dictionary->size() : 0)});
    });
    table->on("releaseHeldCompletion:", [this](Value::Array, std::optional<ReplyBlock> reply) {
      auto held = held_.take();
      for (const ReplyBlock& block : held) {
        block({});
      }
      (*reply)({Value(held.size())});
    });
    table->on("blob:", [](Value::Array, std::optional<ReplyBlock>) {});
    connection->setExportedInterface(daskel::platform::testing::ipcTestInterface());
    connection->setExportedObject(table);
    connection->setInterruptionHandler([pid] { say("interrupted " + pid); });
    connection->resume();
    return true;
  }

 private:
  HeldReplies held_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s SERVICE\n", argv[0]);
    return 2;
  }
  DKLoggingInitialize();
  auto listener = IpcListener::create(argv[1]);
  if (!listener) {
    return 1;
  }
  auto delegate = std::make_shared<ServiceDelegate>();
  (*listener)->setDelegate(delegate);
  (*listener)->resume();
  say("ready");
  for (;;) {
    ::pause();
  }
}
