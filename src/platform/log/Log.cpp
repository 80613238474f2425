// The logging facility: level maxima, the console and file outputs, and extra sinks.
// Formatting lives in LogArgument.cpp.
#include "platform/log/Log.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

namespace daskel::platform {

namespace log_internal {
std::atomic<int> gEnabledMaximum{kLogInfo};
}  // namespace log_internal

namespace {

// The per-output maxima. Kept as atomics so a log call never takes a lock to test them;
// setLogLevels writes all four under gLevelsMutex so gEnabledMaximum always matches them.
std::atomic<int> gGlobalMaximum{kLogInfo};
std::atomic<int> gConsoleMaximum{kLogInfo};
std::atomic<int> gFileMaximum{kLogInfo};
std::mutex gLevelsMutex;

// An open log file, closed when the last output set that refers to it goes away (a writer
// may still hold the old set while DKLoggingInitialize installs a new one).
class LogFile {
 public:
  explicit LogFile(int fd) : fd_(fd) {}
  ~LogFile() { ::close(fd_); }
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// Where messages go. Immutable once published: changing an output builds a new set, so a
// log call copies one shared_ptr under the lock and writes without it.
struct Outputs {
  bool journald = false;
  std::string programName;
  std::shared_ptr<LogFile> file;
  std::vector<std::shared_ptr<LogSink>> sinks;
};

struct Facility {
  std::mutex outputsMutex;  // guards `outputs` (the pointer; the pointee is immutable)
  std::shared_ptr<const Outputs> outputs;
  // Held while a line is written, so lines from this process never interleave even when a
  // write is split (a pipe takes at most PIPE_BUF bytes atomically).
  std::mutex writeMutex;
};

std::string currentProgramName() {
  const char* name = program_invocation_short_name;
  return name && *name ? std::string(name) : std::string("daskel");
}

// Never destroyed: threads may still log while static objects are torn down at exit.
Facility& facility() {
  static Facility* const instance = [] {
    auto* f = new Facility();
    auto outputs = std::make_shared<Outputs>();
    outputs->programName = currentProgramName();
    f->outputs = std::move(outputs);
    return f;
  }();
  return *instance;
}

std::shared_ptr<const Outputs> currentOutputs() {
  Facility& f = facility();
  std::lock_guard lock(f.outputsMutex);
  return f.outputs;
}

// Replaces the output set with a modified copy of it.
template <typename Change>
void changeOutputs(Change&& change) {
  Facility& f = facility();
  std::lock_guard lock(f.outputsMutex);
  auto next = std::make_shared<Outputs>(*f.outputs);
  change(*next);
  f.outputs = std::move(next);
}

const char* levelName(int level) {
  if (level <= kLogError)
    return "Error";
  if (level == 4)
    return "Warning";
  if (level == kLogNotice)
    return "Notice";
  if (level == kLogInfo)
    return "Info";
  return "Debug";
}

// Appends `message` keeping the output one line per message: an embedded newline is written
// as the two characters "\n" (under journald a raw newline would split the entry and lose
// the priority of every line after the first).
void appendSingleLine(std::string& out, std::string_view message) {
  for (char c : message) {
    if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
}

// "2026-11-21 22:30:01.123456 daskeld[1234] <Notice>: message\n"
std::string plainLine(const Outputs& outputs, int level, std::string_view message) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  ::localtime_r(&now.tv_sec, &local);
  char stamp[64];
  size_t n = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(stamp + n, sizeof stamp - n, ".%06ld", static_cast<long>(now.tv_nsec / 1000));

  std::string line;
  line.reserve(message.size() + 64);
  line += stamp;
  line += ' ';
  line += outputs.programName;
  line += '[';
  line += std::to_string(::getpid());
  line += "] <";
  line += levelName(level);
  line += ">: ";
  appendSingleLine(line, message);
  line += '\n';
  return line;
}

// "<5>message\n": journald reads the priority from the prefix and stamps time and pid itself.
std::string journalLine(int level, std::string_view message) {
  std::string line;
  line.reserve(message.size() + 5);
  line += '<';
  line += std::to_string(std::clamp(level, 0, 7));
  line += '>';
  appendSingleLine(line, message);
  line += '\n';
  return line;
}

void writeWhole(int fd, std::string_view line) {
  while (!line.empty()) {
    ssize_t written = ::write(fd, line.data(), line.size());
    if (written < 0) {
      if (errno == EINTR)
        continue;
      return;  // nowhere left to report a failing log output
    }
    line.remove_prefix(static_cast<size_t>(written));
  }
}

}  // namespace

// ---- levels ----

LogLevels parseLogLevels(std::string_view text, LogLevels base) {
  LogLevels levels = base;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == ','))
      ++i;
    size_t start = i;
    while (i < text.size() && text[i] != ' ' && text[i] != '\t' && text[i] != ',')
      ++i;
    std::string_view word = text.substr(start, i - start);
    size_t eq = word.find('=');
    if (eq == std::string_view::npos)
      continue;
    std::string_view key = word.substr(0, eq);
    std::string_view number = word.substr(eq + 1);
    int value = -1;
    auto [end, ec] = std::from_chars(number.data(), number.data() + number.size(), value);
    if (ec != std::errc() || end != number.data() + number.size() || number.empty() || value < 0 ||
        value > kLogDebug) {
      continue;
    }
    if (key == "global") {
      levels.global = value;
    } else if (key == "console") {
      levels.console = value;
    } else if (key == "file") {
      levels.file = value;
    }
  }
  return levels;
}

void setLogLevels(LogLevels levels) {
  std::lock_guard lock(gLevelsMutex);
  gGlobalMaximum.store(levels.global, std::memory_order_relaxed);
  gConsoleMaximum.store(levels.console, std::memory_order_relaxed);
  gFileMaximum.store(levels.file, std::memory_order_relaxed);
  log_internal::gEnabledMaximum.store(
      std::min(levels.global, std::max(levels.console, levels.file)), std::memory_order_relaxed);
}

LogLevels logLevels() {
  std::lock_guard lock(gLevelsMutex);
  return LogLevels{gGlobalMaximum.load(std::memory_order_relaxed),
                   gConsoleMaximum.load(std::memory_order_relaxed),
                   gFileMaximum.load(std::memory_order_relaxed)};
}

void DKLoggingInitialize() {
  const char* levelsText = std::getenv("DASKEL_LOG");
  const char* journal = std::getenv("JOURNAL_STREAM");
  const char* filePath = std::getenv("DASKEL_LOG_FILE");

  std::shared_ptr<LogFile> file;
  int openError = 0;
  if (filePath && *filePath) {
    int fd = ::open(filePath, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd >= 0) {
      file = std::make_shared<LogFile>(fd);
    } else {
      openError = errno;
    }
  }

  changeOutputs([&](Outputs& outputs) {
    outputs.journald = journal && *journal;
    outputs.programName = currentProgramName();
    outputs.file = std::move(file);
  });
  setLogLevels(parseLogLevels(levelsText ? levelsText : "", LogLevels{}));

  if (openError != 0) {
    DKLogError("Cannot open log file %s: %s", filePath, std::strerror(openError));
  }
}

// ---- sinks ----

void addLogSink(std::shared_ptr<LogSink> sink) {
  if (!sink)
    return;
  changeOutputs([&](Outputs& outputs) { outputs.sinks.push_back(std::move(sink)); });
}

void removeLogSink(const std::shared_ptr<LogSink>& sink) {
  changeOutputs([&](Outputs& outputs) { std::erase(outputs.sinks, sink); });
}

void logWrite(int level, std::string_view format, std::initializer_list<LogArgument> args) {
  if (!logIsEnabled(level))
    return;
  const std::string message = formatLogMessage(format, args);
  const std::shared_ptr<const Outputs> outputs = currentOutputs();

  const int global = gGlobalMaximum.load(std::memory_order_relaxed);
  const bool toConsole =
      level <= global && level <= gConsoleMaximum.load(std::memory_order_relaxed);
  const bool toFile =
      outputs->file && level <= global && level <= gFileMaximum.load(std::memory_order_relaxed);

  if (toConsole || toFile) {
    std::string plain;
    if (toFile || !outputs->journald)
      plain = plainLine(*outputs, level, message);
    std::string journal;
    if (toConsole && outputs->journald)
      journal = journalLine(level, message);

    std::lock_guard lock(facility().writeMutex);
    if (toConsole)
      writeWhole(STDERR_FILENO, outputs->journald ? journal : plain);
    if (toFile)
      writeWhole(outputs->file->fd(), plain);
  }

  for (const auto& sink : outputs->sinks) {
    sink->write(level, message);
  }
}

}  // namespace daskel::platform
