// CapturingLogSink: a log sink for tests that keeps every message it receives, as (level,
// message) pairs, so a test can assert on exact lines and levels.
//
// A test attaches it with addLogSink (or through CapturingLogSink::Scope, which also sets
// explicit levels and restores the previous ones). Messages arrive without any prefix, exactly
// as formatLogMessage produced them.
//
// THREADING NOTES: every member may be called from any thread; write() may run on many
// threads at once. waitFor() blocks the caller until a predicate over the captured lines
// holds or a deadline passes; use it when the lines come from background threads or queues.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/log/Log.h"

namespace daskel::platform {

class CapturingLogSink : public LogSink {
 public:
  struct Line {
    int level;
    std::string message;
    bool operator==(const Line& other) const = default;
  };
  using Predicate = std::function<bool(const std::vector<Line>& lines)>;
  using Deadline = std::chrono::steady_clock::time_point;

  // Attaches a new sink for the lifetime of the scope, with `levels` set for that time; the
  // previous levels are restored and the sink detached on destruction. The default levels
  // pass every message to sinks while the console shows only errors.
  class Scope {
   public:
    explicit Scope(LogLevels levels = {kLogDebug, kLogError, kLogDebug});
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    CapturingLogSink& sink() const { return *sink_; }
    CapturingLogSink* operator->() const { return sink_.get(); }

   private:
    LogLevels saved_;
    std::shared_ptr<CapturingLogSink> sink_;
  };

  void write(int level, std::string_view message) override;

  std::vector<Line> lines() const;
  std::vector<std::string> messages() const;
  void clear();
  // How many captured messages equal `message` (at any level, or at `level`).
  std::size_t count(std::string_view message) const;
  std::size_t count(int level, std::string_view message) const;
  bool contains(std::string_view message) const { return count(message) > 0; }

  // Waits until `predicate` holds for the captured lines or `deadline` passes; returns
  // whether it held. The predicate runs under the sink's lock and must not log.
  bool waitFor(const Predicate& predicate, Deadline deadline) const;
  // Waits until a message equal to `message` has been captured.
  bool waitFor(std::string_view message, Deadline deadline) const;
  bool waitFor(std::string_view message, std::chrono::milliseconds timeout) const {
    return waitFor(message, std::chrono::steady_clock::now() + timeout);
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Line> lines_;
};

}  // namespace daskel::platform
