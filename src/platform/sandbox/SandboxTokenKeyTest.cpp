// The key file: created once, 0600, in a 0700 directory, by exactly one of any number of
// racing threads or processes, with everybody ending up on the same key; and refused, never
// repaired or replaced, when it has the wrong size, mode, owner or type.
#include "platform/sandbox/SandboxTokenKey.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <barrier>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/sandbox/SandboxToken.h"

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;

constexpr auto kKeyMissing = static_cast<std::int64_t>(SandboxTokenError::KeyMissing);
constexpr auto kKeyRejected = static_cast<std::int64_t>(SandboxTokenError::KeyRejected);
constexpr auto kKeyUnavailable = static_cast<std::int64_t>(SandboxTokenError::KeyUnavailable);

class SandboxTokenKeyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/daskel-sandbox-key-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }

  static mode_t modeOf(const fs::path& path) {
    struct stat status;
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }
  static std::string contents(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  static void write(const fs::path& path, const std::string& bytes, mode_t mode) {
    std::ofstream(path, std::ios::binary) << bytes;
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
  }
  static std::vector<std::string> entries(const fs::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  fs::path root_;
};

TEST_F(SandboxTokenKeyTest, FirstUseCreatesA32ByteKeyReadableOnlyByItsOwnerInA0700Directory) {
  const fs::path path = root_ / "state" / "daskel" / "sandbox-token.key";
  auto key = SandboxTokenKey::loadOrCreate(path);
  ASSERT_TRUE(key) << key.error()->description();

  EXPECT_EQ(modeOf(path), 0600u);
  EXPECT_EQ(fs::file_size(path), SandboxTokenKey::kSize);
  EXPECT_EQ(modeOf(root_ / "state"), 0700u);
  EXPECT_EQ(modeOf(root_ / "state" / "daskel"), 0700u);
  // Nothing but the key is left behind in the directory.
  EXPECT_EQ(entries(path.parent_path()), std::vector<std::string>{"sandbox-token.key"});

  // Later uses read the same key and leave the file as it is.
  const std::string bytes = contents(path);
  auto again = SandboxTokenKey::loadOrCreate(path);
  ASSERT_TRUE(again);
  EXPECT_TRUE(*again == *key);
  EXPECT_EQ(again->mac("probe"), key->mac("probe"));
  EXPECT_EQ(contents(path), bytes);
  auto loaded = SandboxTokenKey::load(path);
  ASSERT_TRUE(loaded);
  EXPECT_TRUE(*loaded == *key);
}

TEST_F(SandboxTokenKeyTest, KeysCreatedInDifferentPlacesDiffer) {
  auto a = SandboxTokenKey::loadOrCreate(root_ / "a.key");
  auto b = SandboxTokenKey::loadOrCreate(root_ / "b.key");
  ASSERT_TRUE(a && b);
  EXPECT_FALSE(*a == *b);
  EXPECT_NE(a->mac("probe"), b->mac("probe"));
}

TEST_F(SandboxTokenKeyTest, LoadWithoutAFileSaysTheKeyIsMissingAndCreatesNothing) {
  auto key = SandboxTokenKey::load(root_ / "absent" / "sandbox-token.key");
  ASSERT_FALSE(key);
  EXPECT_EQ(key.error()->code, kKeyMissing);
  EXPECT_FALSE(fs::exists(root_ / "absent"));
}

TEST_F(SandboxTokenKeyTest, RacingThreadsCreateExactlyOneKeyAndAllUseIt) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 15;
  for (int round = 0; round < kRounds; ++round) {
    const fs::path path = root_ / ("round" + std::to_string(round)) / "sandbox-token.key";
    std::vector<std::string> macs(kThreads);
    std::vector<std::string> failures(kThreads);
    std::barrier start(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        start.arrive_and_wait();
        auto key = SandboxTokenKey::loadOrCreate(path);
        if (key) {
          macs[i] = key->mac("probe");
        } else {
          failures[i] = key.error()->description();
        }
      });
    }
    for (auto& thread : threads) {
      thread.join();
    }
    auto onDisk = SandboxTokenKey::load(path);
    ASSERT_TRUE(onDisk) << onDisk.error()->description();
    for (int i = 0; i < kThreads; ++i) {
      EXPECT_EQ(failures[i], "");
      EXPECT_EQ(macs[i], onDisk->mac("probe")) << "round " << round << " thread " << i;
    }
    EXPECT_EQ(entries(path.parent_path()), std::vector<std::string>{"sandbox-token.key"});
  }
}

TEST_F(SandboxTokenKeyTest, RacingProcessesCreateExactlyOneKeyAndAllUseIt) {
  constexpr int kProcesses = 4;
  constexpr int kRounds = 8;
  for (int round = 0; round < kRounds; ++round) {
    const fs::path path = root_ / ("round" + std::to_string(round)) / "sandbox-token.key";
    int go[2];
    ASSERT_EQ(::pipe(go), 0);
    std::vector<pid_t> children;
    std::vector<int> results;
    for (int i = 0; i < kProcesses; ++i) {
      int result[2];
      ASSERT_EQ(::pipe(result), 0);
      const pid_t pid = ::fork();
      ASSERT_GE(pid, 0);
      if (pid == 0) {
        // Child: wait for the start signal (the parent closing its end), create, report.
        ::close(go[1]);
        ::close(result[0]);
        char byte;
        while (::read(go[0], &byte, 1) > 0) {
        }
        auto key = SandboxTokenKey::loadOrCreate(path);
        const std::string report = key ? key->mac("probe") : "error: " + key.error()->description();
        const bool sent =
            ::write(result[1], report.data(), report.size()) == static_cast<ssize_t>(report.size());
        ::_exit(sent ? 0 : 1);
      }
      ::close(result[1]);
      children.push_back(pid);
      results.push_back(result[0]);
    }
    ::close(go[0]);
    ::close(go[1]);  // Every child starts now.

    std::vector<std::string> reports;
    for (int fd : results) {
      std::string report;
      char buffer[256];
      while (true) {
        pollfd p{fd, POLLIN, 0};
        ASSERT_EQ(::poll(&p, 1, 30000), 1) << "a child hangs";
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n <= 0) {
          break;
        }
        report.append(buffer, static_cast<std::size_t>(n));
      }
      ::close(fd);
      reports.push_back(report);
    }
    for (pid_t pid : children) {
      int status = 0;
      ASSERT_EQ(::waitpid(pid, &status, 0), pid);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    auto onDisk = SandboxTokenKey::load(path);
    ASSERT_TRUE(onDisk) << onDisk.error()->description();
    for (const auto& report : reports) {
      EXPECT_EQ(report, onDisk->mac("probe")) << "round " << round;
    }
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_EQ(entries(path.parent_path()), std::vector<std::string>{"sandbox-token.key"});
  }
}

TEST_F(SandboxTokenKeyTest, KeyFilesOfTheWrongSizeModeOrTypeAreRefusedAndLeftAlone) {
  const std::string good(SandboxTokenKey::kSize, 'k');
  struct Case {
    const char* what;
    std::string bytes;
    mode_t mode;
    std::string reason;  // in the description
  };
  const std::vector<Case> cases = {
      {"group readable", good, 0640, "mode 0640"},
      {"others readable", good, 0604, "mode 0604"},
      {"group writable", good, 0620, "mode 0620"},
      {"group executable", good, 0610, "mode 0610"},
      {"too short", good.substr(1), 0600, "31 bytes"},
      {"too long", good + "k", 0600, "33 bytes"},
      {"empty", "", 0600, "0 bytes"},
  };
  for (const auto& c : cases) {
    const fs::path path = root_ / (std::string(c.what) + ".key");
    write(path, c.bytes, c.mode);
    for (bool create : {false, true}) {
      auto key = create ? SandboxTokenKey::loadOrCreate(path) : SandboxTokenKey::load(path);
      ASSERT_FALSE(key) << c.what;
      EXPECT_EQ(key.error()->code, kKeyRejected) << c.what;
      const std::string description = key.error()->localizedDescription();
      EXPECT_NE(description.find(path.string()), std::string::npos) << description;
      EXPECT_NE(description.find(c.reason), std::string::npos) << description;
    }
    EXPECT_EQ(contents(path), c.bytes) << c.what;
    EXPECT_EQ(modeOf(path), c.mode) << c.what;
  }
}

TEST_F(SandboxTokenKeyTest, AKeyPathThatIsALinkOrADirectoryIsRefused) {
  const fs::path real = root_ / "real.key";
  write(real, std::string(SandboxTokenKey::kSize, 'k'), 0600);
  fs::create_symlink(real, root_ / "link.key");
  auto linked = SandboxTokenKey::loadOrCreate(root_ / "link.key");
  ASSERT_FALSE(linked);
  EXPECT_EQ(linked.error()->code, kKeyRejected);

  fs::create_directory(root_ / "dir.key");
  auto directory = SandboxTokenKey::loadOrCreate(root_ / "dir.key");
  ASSERT_FALSE(directory);
  EXPECT_EQ(directory.error()->code, kKeyRejected);
}

TEST_F(SandboxTokenKeyTest, AKeyFileOwnedByAnotherUserIsRefused) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "needs root to give a file away";
  }
  const fs::path path = root_ / "foreign.key";
  write(path, std::string(SandboxTokenKey::kSize, 'k'), 0600);
  ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
  auto key = SandboxTokenKey::load(path);
  ASSERT_FALSE(key);
  EXPECT_EQ(key.error()->code, kKeyRejected);
  EXPECT_NE(key.error()->localizedDescription().find("uid 65534"), std::string::npos);
}

TEST_F(SandboxTokenKeyTest, AStateDirectoryThatCannotBeMadeIsReportedWithItsPosixError) {
  write(root_ / "plain-file", "x", 0600);
  auto key = SandboxTokenKey::loadOrCreate(root_ / "plain-file" / "state" / "sandbox-token.key");
  ASSERT_FALSE(key);
  EXPECT_EQ(key.error()->code, kKeyUnavailable);
  const Value* underlying = key.error()->userInfo.count("underlyingError")
                                ? &key.error()->userInfo.at("underlyingError")
                                : nullptr;
  ASSERT_NE(underlying, nullptr) << key.error()->description();
  ASSERT_TRUE(underlying->error());
  EXPECT_EQ(underlying->error()->domain, "posix");
  EXPECT_EQ(underlying->error()->code, ENOTDIR);
}

TEST(SandboxTokenKeyCompare, ConstantTimeComparisonTellsEqualFromUnequalTexts) {
  EXPECT_TRUE(SandboxTokenKey::equalInConstantTime("abc", "abc"));
  EXPECT_TRUE(SandboxTokenKey::equalInConstantTime("", ""));
  EXPECT_FALSE(SandboxTokenKey::equalInConstantTime("abc", "abd"));
  EXPECT_FALSE(SandboxTokenKey::equalInConstantTime("abc", "ab"));
  EXPECT_FALSE(SandboxTokenKey::equalInConstantTime("", "a"));
}

}  // namespace
}  // namespace daskel::platform
