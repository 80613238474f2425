// InotifyNotifyCenter: the live SystemNotifyCenter. A notification is a file in one
// directory; posting creates the file or touches it again, and an inotify watch on the
// directory turns each such change into calls of that name's observers.
//
// Ownership: owns its inotify descriptor, an eventfd used to stop the watcher, and the watcher
// thread, all released by the destructor (which joins the thread). Observer callbacks are
// submitted with async on their queue and capture only the callback and the name, so blocks
// still pending when the center is destroyed run safely.
//
// THREADING NOTES: every member may be called from any thread. The watcher thread reads
// events and submits callbacks; it never runs a callback itself. One post may reach an
// observer more than once (creation, attribute change and close after writing are each an
// event). If the kernel's event queue overflows, every observer is called once, since the
// lost events can no longer be told apart.
//
// Failures: create() and post() return POSIX-domain errors (errno, its text, the path).
// Failures of the watcher thread itself are logged.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/notify/SystemNotifyCenter.h"

namespace daskel::platform {

class InotifyNotifyCenter final : public SystemNotifyCenter {
 public:
  // Creates `directory` (and missing parents) with mode 0755 if it is missing, and starts
  // watching it.
  static Result<std::shared_ptr<InotifyNotifyCenter>> create(std::string directory);

  ~InotifyNotifyCenter() override;
  InotifyNotifyCenter(const InotifyNotifyCenter&) = delete;
  InotifyNotifyCenter& operator=(const InotifyNotifyCenter&) = delete;

  void addObserver(std::string name,
                   Callback callback,
                   std::shared_ptr<DispatchQueue> queue = nullptr) override;
  Result<void> post(std::string_view name) override;

  const std::string& directory() const { return directory_; }

 private:
  struct Observer {
    std::shared_ptr<const Callback> callback;
    std::shared_ptr<DispatchQueue> queue;
  };

  InotifyNotifyCenter(std::string directory, int inotifyFd, int stopFd);

  // The watcher thread: waits for inotify events or the stop signal.
  void watch();
  // Reads every queued event; false when reading failed for good.
  bool drainEvents();
  void deliver(const std::string& name);
  void deliverToEveryObserver();

  const std::string directory_;
  const int inotifyFd_;
  const int stopFd_;

  std::mutex mutex_;  // guards observers_
  std::unordered_map<std::string, std::vector<Observer>> observers_;

  std::thread watcher_;
};

}  // namespace daskel::platform
