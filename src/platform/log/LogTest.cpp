#include "platform/log/Log.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/log/CapturingLogSink.h"

namespace daskel::platform {
namespace {

using namespace std::chrono_literals;

std::vector<std::string> readLines(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

std::string readAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Redirects this process's standard error into a file for the object's lifetime.
class StderrRedirect {
 public:
  explicit StderrRedirect(const std::string& path) {
    fflush(stderr);
    saved_ = ::dup(STDERR_FILENO);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    EXPECT_GE(fd, 0) << "cannot open " << path;
    ::dup2(fd, STDERR_FILENO);
    ::close(fd);
  }
  ~StderrRedirect() { restore(); }
  void restore() {
    if (saved_ < 0)
      return;
    fflush(stderr);
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
    saved_ = -1;
  }

 private:
  int saved_ = -1;
};

// Every test here changes process-wide state: the environment that DKLoggingInitialize reads,
// the levels and the outputs. The fixture gives each test a temporary directory and puts the
// environment, the outputs and the levels back afterwards.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"DASKEL_LOG", "DASKEL_LOG_FILE", "JOURNAL_STREAM"}) {
      const char* value = ::getenv(name);
      savedEnvironment_[name] = value ? std::optional<std::string>(value) : std::nullopt;
      ::unsetenv(name);
    }
    savedLevels_ = logLevels();
    char pattern[] = "/tmp/daskel-log-test-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    directory_ = pattern;
  }

  void TearDown() override {
    for (const auto& [name, value] : savedEnvironment_) {
      if (value) {
        ::setenv(name.c_str(), value->c_str(), 1);
      } else {
        ::unsetenv(name.c_str());
      }
    }
    DKLoggingInitialize();
    setLogLevels(savedLevels_);
    std::filesystem::remove_all(directory_);
  }

  std::string path(const std::string& name) const { return directory_ + "/" + name; }

  // "2026-11-21 22:30:01.123456 <program>[<pid>] <Level>: <message>"
  static std::regex plainLinePattern(const std::string& level, const std::string& message) {
    return std::regex(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} )" +
                      std::string(program_invocation_short_name) + R"(\[)" +
                      std::to_string(::getpid()) + R"(\] <)" + level + ">: " + message + "$");
  }

  std::string directory_;
  std::map<std::string, std::optional<std::string>> savedEnvironment_;
  LogLevels savedLevels_;
};

int gEvaluations = 0;
int countedArgument() {
  return ++gEvaluations;
}

TEST_F(LogTest, ArgumentsAreEvaluatedOnlyWhenTheLevelIsEnabled) {
  CapturingLogSink::Scope capture({kLogInfo, kLogError, kLogInfo});
  gEvaluations = 0;

  DKLogDebug("debug %d", countedArgument());
  EXPECT_EQ(gEvaluations, 0);
  EXPECT_TRUE(capture->lines().empty());

  DKLogInfo("info %d", countedArgument());
  EXPECT_EQ(gEvaluations, 1);
  EXPECT_EQ(capture->lines(), (std::vector<CapturingLogSink::Line>{{kLogInfo, "info 1"}}));

  setLogLevels({kLogDebug, kLogError, kLogDebug});
  DKLogDebug("debug %d", countedArgument());
  EXPECT_EQ(gEvaluations, 2);
  EXPECT_EQ(capture->count(kLogDebug, "debug 2"), 1u);
}

TEST_F(LogTest, EnabledMaximumIsTheGlobalCappedByTheHigherOfConsoleAndFile) {
  struct Case {
    LogLevels levels;
    int enabledMaximum;
  };
  const Case cases[] = {
      {{7, 3, 3}, 3},  // both outputs quiet: the global maximum does not matter
      {{3, 7, 7}, 3},  // the global maximum caps both outputs
      {{7, 3, 6}, 6},  // the file alone lets info through
      {{7, 6, 3}, 6},  // the console alone lets info through
      {{5, 7, 3}, 5}, {{0, 7, 7}, 0},
  };
  StderrRedirect quiet(path("stderr.txt"));
  for (const Case& c : cases) {
    CapturingLogSink::Scope capture(c.levels);
    SCOPED_TRACE(testing::Message() << "global=" << c.levels.global << " console="
                                    << c.levels.console << " file=" << c.levels.file);
    for (int level : {kLogError, kLogNotice, kLogInfo, kLogDebug}) {
      EXPECT_EQ(logIsEnabled(level), level <= c.enabledMaximum) << "level " << level;
      DKLog(level, "level %d", level);
    }
    // Sinks get exactly what passes the level test.
    std::vector<CapturingLogSink::Line> expected;
    for (int level : {kLogError, kLogNotice, kLogInfo, kLogDebug}) {
      if (level <= c.enabledMaximum)
        expected.push_back({level, "level " + std::to_string(level)});
    }
    EXPECT_EQ(capture->lines(), expected);
  }
}

TEST_F(LogTest, ParsingLevelsTakesKnownWordsAndIgnoresTheRest) {
  // Missing words keep the base (info by default); unknown keys, bad numbers and
  // out-of-range levels are ignored rather than half-applied.
  const struct {
    const char* text;
    LogLevels base, expected;
  } cases[] = {
      {"global=7 console=7 file=6", {6, 6, 6}, {7, 7, 6}},
      {"  console=7\tcolour=2 file=x global=9 global= file=-1 file=62 junk", {5, 4, 3}, {5, 7, 3}},
      {"", {6, 6, 6}, {6, 6, 6}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const LogLevels parsed = parseLogLevels(c.text, c.base);
    EXPECT_EQ(parsed.global, c.expected.global);
    EXPECT_EQ(parsed.console, c.expected.console);
    EXPECT_EQ(parsed.file, c.expected.file);
  }
  EXPECT_EQ(parseLogLevels("").global, 6);
}

TEST_F(LogTest, InitializingReadsLevelsFromTheEnvironmentAndDefaultsToInfo) {
  // Each initialization re-reads the environment instead of keeping the previous levels.
  const struct {
    const char* environment;  // nullptr: unset
    LogLevels expected;
  } cases[] = {
      {"global=7 console=3 file=7", {7, 3, 7}},
      {"console=5", {6, 5, 6}},
      {nullptr, {6, 6, 6}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.environment ? c.environment : "(unset)");
    if (c.environment) {
      ::setenv("DASKEL_LOG", c.environment, 1);
    } else {
      ::unsetenv("DASKEL_LOG");
    }
    DKLoggingInitialize();
    const LogLevels levels = logLevels();
    EXPECT_EQ(levels.global, c.expected.global);
    EXPECT_EQ(levels.console, c.expected.console);
    EXPECT_EQ(levels.file, c.expected.file);
    EXPECT_EQ(logIsEnabled(kLogDebug), c.expected.global == kLogDebug);
  }
}

TEST_F(LogTest, AnUnopenableLogFileIsReportedAndConsoleLoggingGoesOn) {
  CapturingLogSink::Scope capture;
  const std::string file = path("missing-directory/daskel.log");
  ::setenv("DASKEL_LOG_FILE", file.c_str(), 1);
  ::setenv("DASKEL_LOG", "global=7 console=0 file=7", 1);
  DKLoggingInitialize();

  EXPECT_EQ(capture->count(kLogError, "Cannot open log file " + file + ": " + strerror(ENOENT)),
            1u);
  DKLogNotice("still logging");
  EXPECT_EQ(capture->count(kLogNotice, "still logging"), 1u);
}

TEST_F(LogTest, FileAndConsoleEachAppendWholeLinesFilteredByTheirOwnMaximum) {
  const std::string file = path("daskel.log");
  const std::string console = path("stderr.txt");
  std::ofstream(file) << "earlier line\n";
  ::setenv("DASKEL_LOG_FILE", file.c_str(), 1);
  ::setenv("DASKEL_LOG", "global=7 console=5 file=6", 1);
  DKLoggingInitialize();
  {
    StderrRedirect redirect(console);
    DKLogDebug("debug line, above both outputs' maximum");
    DKLogNotice("notice %s", "line");
    DKLogError("failed with %d", 42);
    DKLogInfo("two\nlines");
    setLogLevels({5, 7, 7});
    DKLogInfo("info line above the global maximum");
  }

  // The file is appended to; an embedded newline must not split a message into two lines.
  std::vector<std::string> fileLines = readLines(file);
  ASSERT_EQ(fileLines.size(), 4u) << readAll(file);
  EXPECT_EQ(fileLines[0], "earlier line");
  EXPECT_TRUE(std::regex_match(fileLines[1], plainLinePattern("Notice", "notice line")));
  EXPECT_TRUE(std::regex_match(fileLines[2], plainLinePattern("Error", "failed with 42")));
  EXPECT_TRUE(std::regex_match(fileLines[3], plainLinePattern("Info", R"(two\\nlines)")))
      << fileLines[3];

  std::vector<std::string> consoleLines = readLines(console);
  ASSERT_EQ(consoleLines.size(), 2u) << readAll(console);
  EXPECT_TRUE(std::regex_match(consoleLines[0], plainLinePattern("Notice", "notice line")))
      << consoleLines[0];
  EXPECT_TRUE(std::regex_match(consoleLines[1], plainLinePattern("Error", "failed with 42")));
}

TEST_F(LogTest, UnderJournaldConsoleLinesCarryOnlyThePriorityPrefix) {
  const std::string file = path("daskel.log");
  const std::string console = path("stderr.txt");
  ::setenv("JOURNAL_STREAM", "8:12345", 1);
  ::setenv("DASKEL_LOG_FILE", file.c_str(), 1);
  ::setenv("DASKEL_LOG", "global=7 console=7 file=7", 1);
  DKLoggingInitialize();
  {
    StderrRedirect redirect(console);
    DKLogError("broken %s", "pipe");
    DKLogNotice("started");
    DKLogInfo("serving %d", 3);
    DKLogDebug("details");
  }
  EXPECT_EQ(readAll(console), "<3>broken pipe\n<5>started\n<6>serving 3\n<7>details\n");
  // The file keeps the full format: journald only reads the console.
  std::vector<std::string> fileLines = readLines(file);
  ASSERT_EQ(fileLines.size(), 4u);
  EXPECT_TRUE(std::regex_match(fileLines[0], plainLinePattern("Error", "broken pipe")));

  // Without JOURNAL_STREAM the console gets the full format again.
  ::unsetenv("JOURNAL_STREAM");
  DKLoggingInitialize();
  {
    StderrRedirect redirect(console);
    DKLogNotice("plain again");
  }
  std::vector<std::string> consoleLines = readLines(console);
  ASSERT_EQ(consoleLines.size(), 1u);
  EXPECT_TRUE(std::regex_match(consoleLines[0], plainLinePattern("Notice", "plain again")))
      << consoleLines[0];
}

TEST_F(LogTest, SinksReceiveTheBareMessageUntilRemoved) {
  setLogLevels({kLogDebug, kLogError, kLogDebug});
  auto first = std::make_shared<CapturingLogSink>();
  auto second = std::make_shared<CapturingLogSink>();
  addLogSink(first);
  addLogSink(second);
  DKLogInfo("to both %s", "sinks");
  removeLogSink(first);
  DKLogInfo("to the second only");
  removeLogSink(second);
  DKLogInfo("to none");

  EXPECT_EQ(first->lines(), (std::vector<CapturingLogSink::Line>{{kLogInfo, "to both sinks"}}));
  EXPECT_EQ(second->messages(), (std::vector<std::string>{"to both sinks", "to the second only"}));
}

TEST_F(LogTest, ConcurrentMessagesAreWrittenAsWholeLines) {
  const std::string file = path("daskel.log");
  const std::string console = path("stderr.txt");
  ::setenv("DASKEL_LOG_FILE", file.c_str(), 1);
  ::setenv("DASKEL_LOG", "global=7 console=7 file=7", 1);
  DKLoggingInitialize();
  auto sink = std::make_shared<CapturingLogSink>();
  addLogSink(sink);

  constexpr int kThreads = 6;
  constexpr int kMessages = 300;
  // Long messages make a torn write likely if lines were assembled from several writes.
  const std::string padding(200, 'x');
  {
    StderrRedirect redirect(console);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([t, &padding] {
        for (int m = 0; m < kMessages; ++m)
          DKLogInfo("thread %d message %d %s", t, m, padding);
      });
    }
    for (auto& thread : threads)
      thread.join();
  }
  removeLogSink(sink);

  EXPECT_EQ(sink->lines().size(), static_cast<size_t>(kThreads * kMessages));
  for (const std::string& output : {file, console}) {
    SCOPED_TRACE(output);
    std::vector<std::string> lines = readLines(output);
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kMessages));
    const std::regex pattern = plainLinePattern("Info", "thread (\\d+) message (\\d+) " + padding);
    std::vector<std::vector<int>> seen(kThreads, std::vector<int>(kMessages, 0));
    for (const std::string& line : lines) {
      std::smatch match;
      ASSERT_TRUE(std::regex_match(line, match, pattern)) << line;
      ++seen[std::stoi(match[1])][std::stoi(match[2])];
    }
    for (int t = 0; t < kThreads; ++t) {
      for (int m = 0; m < kMessages; ++m) {
        ASSERT_EQ(seen[t][m], 1) << "thread " << t << " message " << m;
      }
    }
  }
}

TEST_F(LogTest, LevelsChangeSafelyWhileOtherThreadsLog) {
  CapturingLogSink::Scope capture({kLogDebug, kLogError, kLogDebug});
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (int t = 0; t < 3; ++t) {
    writers.emplace_back([&stop] {
      while (!stop.load())
        DKLogDebug("busy");
    });
  }
  for (int i = 0; i < 200; ++i) {
    setLogLevels({i % 2 ? kLogDebug : kLogInfo, kLogError, kLogDebug});
    auto extra = std::make_shared<CapturingLogSink>();
    addLogSink(extra);
    removeLogSink(extra);
  }
  stop = true;
  for (auto& writer : writers)
    writer.join();
  // Every captured line is a debug line that was let through while debug was enabled.
  for (const auto& line : capture->lines())
    EXPECT_EQ(line, (CapturingLogSink::Line{kLogDebug, "busy"}));
}

}  // namespace
}  // namespace daskel::platform
