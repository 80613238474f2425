// ipc_bench_service: serves the benchmark protocol (IpcBenchProtocol.h) on the named service
// com.orvane.IpcBench in DASKEL_RUNTIME_DIR, the way the daemon serves its clients: an
// IpcListener whose delegate configures and resumes every connection. Prints "ready" once the
// listener is resumed; runs until SIGTERM.
#include <atomic>
#include <cstdio>
#include <memory>

#include "IpcBenchProtocol.h"
#include "helpers/HelperProcess.h"
#include "platform/ipc/IpcConnection.h"
#include "platform/ipc/IpcHandlerTable.h"
#include "platform/ipc/IpcListener.h"
#include "platform/log/Log.h"

namespace {

using namespace daskel::platform;

class BenchDelegate : public IpcListenerDelegate {
 public:
  BenchDelegate() : table_(std::make_shared<IpcHandlerTable>()) {
    table_->on(daskel::bench::kIpcBenchEcho,
               [](Value::Array arguments, std::optional<ReplyBlock> reply) {
                 (*reply)({std::move(arguments[0])});
               });
    table_->on(daskel::bench::kIpcBenchConnectionCount,
               [open = open_](Value::Array, std::optional<ReplyBlock> reply) {
                 (*reply)({Value(open->load())});
               });
  }

  bool shouldAcceptNewConnection(std::shared_ptr<IpcConnection> connection) override {
    open_->fetch_add(1);
    connection->setExportedInterface(interface_);
    connection->setExportedObject(table_);
    connection->setInvalidationHandler([open = open_] { open->fetch_sub(1); });
    connection->resume();
    return true;
  }

 private:
  const std::shared_ptr<std::atomic<long>> open_ = std::make_shared<std::atomic<long>>(0);
  const IpcInterface interface_ = daskel::bench::ipcBenchInterface();
  const std::shared_ptr<IpcHandlerTable> table_;
};

}  // namespace

int main() {
  daskel::bench::prepareHelperProcess();
  daskel::bench::blockTerminationSignals();  // before any thread starts
  setLogLevels({kLogError, kLogError, kLogError});
  auto listener = IpcListener::create(daskel::bench::kIpcBenchService);
  if (!listener) {
    std::fprintf(stderr, "ipc_bench_service: %s\n", listener.error()->description().c_str());
    return 1;
  }
  auto delegate = std::make_shared<BenchDelegate>();
  (*listener)->setDelegate(delegate);
  (*listener)->resume();
  daskel::bench::say("ready " + (*listener)->socketPath());
  daskel::bench::waitForTermination();
  return 0;
}
