// SystemNotifyCenter: named, cross-process notifications.
//
// A notification is posted by creating the file <DASKEL_RUNTIME_DIR>/notifications/<name>,
// or by touching it again. The live center watches that directory with inotify on a thread of
// its own and calls observers at once on a dispatch queue. One post may reach an observer once
// or a few times (creation, attribute change, close after writing), never zero times, so
// observers must tolerate repeats.
//
// THREADING NOTES: every member may be called from any thread; callbacks run on the queue
// given to addObserver (the global queue when none).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/value/Result.h"

namespace daskel::platform {

inline constexpr char kFirstUnlockNotification[] = "com.orvane.first-unlock";

class SystemNotifyCenter {
 public:
  using Callback = std::function<void(const std::string& name)>;

  virtual ~SystemNotifyCenter() = default;

  // Observers are never removed; the center keeps the callback for its lifetime.
  virtual void addObserver(std::string name,
                           Callback callback,
                           std::shared_ptr<DispatchQueue> queue = nullptr) = 0;
  virtual Result<void> post(std::string_view name) = 0;

  // The live center on <DASKEL_RUNTIME_DIR>/notifications/ (created if missing). Created once
  // and kept for the life of the process. If it cannot be set up, one error line is logged and
  // the center returned never delivers; its post() logs and returns that error.
  static std::shared_ptr<SystemNotifyCenter> shared();
  // A live center on a directory of the caller's choosing (tests, tools).
  static Result<std::shared_ptr<SystemNotifyCenter>> createForDirectory(std::string directory);

  // A name is one file name: not empty, no '/' or NUL, not "." or "..". post() refuses
  // others with a POSIX-domain EINVAL error.
  static bool isValidName(std::string_view name);
};

}  // namespace daskel::platform
