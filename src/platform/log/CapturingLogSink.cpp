#include "platform/log/CapturingLogSink.h"

#include <algorithm>

namespace daskel::platform {

CapturingLogSink::Scope::Scope(LogLevels levels)
    : saved_(logLevels()), sink_(std::make_shared<CapturingLogSink>()) {
  setLogLevels(levels);
  addLogSink(sink_);
}

CapturingLogSink::Scope::~Scope() {
  removeLogSink(sink_);
  setLogLevels(saved_);
}

void CapturingLogSink::write(int level, std::string_view message) {
  {
    std::lock_guard lock(mutex_);
    lines_.push_back(Line{level, std::string(message)});
  }
  changed_.notify_all();
}

std::vector<CapturingLogSink::Line> CapturingLogSink::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::vector<std::string> CapturingLogSink::messages() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> result;
  result.reserve(lines_.size());
  for (const auto& line : lines_)
    result.push_back(line.message);
  return result;
}

void CapturingLogSink::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

std::size_t CapturingLogSink::count(std::string_view message) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      lines_.begin(), lines_.end(), [&](const Line& line) { return line.message == message; }));
}

std::size_t CapturingLogSink::count(int level, std::string_view message) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      lines_.begin(), lines_.end(),
      [&](const Line& line) { return line.level == level && line.message == message; }));
}

bool CapturingLogSink::waitFor(const Predicate& predicate, Deadline deadline) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_until(lock, deadline, [&] { return predicate(lines_); });
}

bool CapturingLogSink::waitFor(std::string_view message, Deadline deadline) const {
  return waitFor(
      [&](const std::vector<Line>& lines) {
        return std::any_of(lines.begin(), lines.end(),
                           [&](const Line& line) { return line.message == message; });
      },
      deadline);
}

}  // namespace daskel::platform
