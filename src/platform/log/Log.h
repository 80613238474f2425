// The logging facility: one process-wide facility with syslog-numbered levels (3 error,
// 5 notice, 6 info, 7 debug), a global maximum and per-output maxima (console, file).
//
// A message of level L is written when the global maximum is at least L and the console or
// the file maximum is at least L. DKLog tests that *before* its arguments are evaluated, so a
// debug line with expensive arguments costs one relaxed atomic load when debug is off.
//
// Formats are printf-style: "%@" prints a value's description (Value, Url, ErrorPtr, any type
// with description(), std::string), "%s" a string, "%d" "%ld" "%u" "%lu" integers, "%p" a
// pointer, "%%" a percent sign. A mismatched or missing argument prints "(?)" rather than
// crashing; a null C string prints "(null)".
//
// Console (standard error) and file lines are written whole, with one write per line, so lines
// from concurrent threads never interleave; a newline inside a message is written as "\n" to
// keep one line per message.
//
// THREADING NOTES: every function here may be called from any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

namespace daskel::platform {

inline constexpr int kLogError = 3;
inline constexpr int kLogNotice = 5;
inline constexpr int kLogInfo = 6;
inline constexpr int kLogDebug = 7;

struct LogLevels {
  int global = kLogInfo;
  int console = kLogInfo;
  int file = kLogInfo;
};

// Reads DASKEL_LOG ("global=7 console=7 file=6"), DASKEL_LOG_FILE and JOURNAL_STREAM and sets
// up the console and file outputs. Calling it again re-reads the environment.
void DKLoggingInitialize();

void setLogLevels(LogLevels levels);
LogLevels logLevels();
// Parses a DASKEL_LOG value on top of `base`; unknown words are ignored.
LogLevels parseLogLevels(std::string_view text, LogLevels base = {});

namespace log_internal {
// min(global, max(console, file)), kept current by setLogLevels.
extern std::atomic<int> gEnabledMaximum;
}  // namespace log_internal

inline bool logIsEnabled(int level) {
  return level <= log_internal::gEnabledMaximum.load(std::memory_order_relaxed);
}

// One format argument, referring to a caller's object for the duration of the log call.
class LogArgument {
 public:
  enum class Kind { Signed, Unsigned, Real, CString, Described, Pointer };

  template <typename T>
    requires(std::is_integral_v<T> && std::is_signed_v<T>)
  LogArgument(T v) : kind_(Kind::Signed), signed_(v) {}
  template <typename T>
    requires(std::is_integral_v<T> && std::is_unsigned_v<T> && !std::is_same_v<T, bool>)
  LogArgument(T v) : kind_(Kind::Unsigned), unsigned_(v) {}
  LogArgument(bool v) : kind_(Kind::Signed), signed_(v ? 1 : 0) {}
  LogArgument(double v) : kind_(Kind::Real), real_(v) {}
  LogArgument(const char* s) : kind_(Kind::CString), cstring_(s) {}
  LogArgument(const std::string& s)
      : kind_(Kind::Described), object_(&s), describe_(&describeString) {}
  // Keeps the view's characters and length (the view itself is a by-value parameter).
  LogArgument(std::string_view s)
      : kind_(Kind::Described),
        object_(s.data()),
        size_(s.size()),
        describe_(&describeStringView) {}
  template <typename T>
    requires requires(const T& t) {
      { t.description() } -> std::convertible_to<std::string>;
    }
  LogArgument(const T& object)
      : kind_(Kind::Described), object_(&object), describe_(&describeObject<T>) {}
  // Shared or plain pointers to describable objects print the object, or "(null)".
  template <typename T>
    requires requires(const T& t) {
      { t.description() } -> std::convertible_to<std::string>;
    }
  LogArgument(const std::shared_ptr<T>& object)
      : kind_(Kind::Described), object_(&object), describe_(&describeShared<T>) {}
  LogArgument(const void* p) : kind_(Kind::Pointer), pointer_(p) {}

  Kind kind() const { return kind_; }
  // The integer kinds, converted to the other signedness as a C cast would; 0 otherwise.
  std::int64_t asSigned() const;
  std::uint64_t asUnsigned() const;
  double asReal() const { return real_; }
  const void* asPointer() const { return pointer_; }
  // The text "%@" or "%s" prints for this argument.
  std::string text() const;

 private:
  static std::string describeString(const void* p, std::size_t) {
    return *static_cast<const std::string*>(p);
  }
  static std::string describeStringView(const void* p, std::size_t size) {
    return std::string(static_cast<const char*>(p), size);
  }
  template <typename T>
  static std::string describeObject(const void* p, std::size_t) {
    return static_cast<const T*>(p)->description();
  }
  template <typename T>
  static std::string describeShared(const void* p, std::size_t) {
    const auto& ptr = *static_cast<const std::shared_ptr<T>*>(p);
    return ptr ? std::string(ptr->description()) : std::string("(null)");
  }

  Kind kind_;
  union {
    std::int64_t signed_;
    std::uint64_t unsigned_;
    double real_;
    const char* cstring_;
    const void* pointer_;
    const void* object_;
  };
  std::size_t size_ = 0;  // the length of a string_view argument
  std::string (*describe_)(const void*, std::size_t) = nullptr;
};

std::string formatLogMessage(std::string_view format, std::initializer_list<LogArgument> args);

// Formats and writes one message; callers normally go through DKLog.
void logWrite(int level, std::string_view format, std::initializer_list<LogArgument> args);

// An extra output, called with every message that passes the level test.
class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void write(int level, std::string_view message) = 0;
};

void addLogSink(std::shared_ptr<LogSink> sink);
void removeLogSink(const std::shared_ptr<LogSink>& sink);

}  // namespace daskel::platform

#define DKLog(level, format, ...)                                                         \
  do {                                                                                    \
    if (::daskel::platform::logIsEnabled(level)) {                                        \
      ::daskel::platform::logWrite((level), (format), {__VA_OPT__(__VA_ARGS__)});         \
    }                                                                                     \
  } while (0)

#define DKLogError(format, ...) DKLog(::daskel::platform::kLogError, format __VA_OPT__(, ) __VA_ARGS__)
#define DKLogNotice(format, ...) DKLog(::daskel::platform::kLogNotice, format __VA_OPT__(, ) __VA_ARGS__)
#define DKLogInfo(format, ...) DKLog(::daskel::platform::kLogInfo, format __VA_OPT__(, ) __VA_ARGS__)
#define DKLogDebug(format, ...) DKLog(::daskel::platform::kLogDebug, format __VA_OPT__(, ) __VA_ARGS__)
