// UnavailableNotifyCenter: what SystemNotifyCenter::shared() hands out when the live center
// could not be set up (the notifications directory cannot be created or watched). It keeps
// the process running without notifications instead of failing every caller at start-up.
//
// It never delivers anything: addObserver() drops the observer. post() logs an error line and
// returns the error that made the live center unavailable.
//
// THREADING NOTES: immutable after construction; every member may be called from any thread.
#pragma once

#include <string>

#include "platform/notify/SystemNotifyCenter.h"

namespace daskel::platform {

class UnavailableNotifyCenter final : public SystemNotifyCenter {
 public:
  // `directory` is the directory that could not be used, `reason` why (never null).
  UnavailableNotifyCenter(std::string directory, ErrorPtr reason);

  void addObserver(std::string name,
                   Callback callback,
                   std::shared_ptr<DispatchQueue> queue = nullptr) override;
  Result<void> post(std::string_view name) override;

 private:
  const std::string directory_;
  const ErrorPtr reason_;
};

}  // namespace daskel::platform
