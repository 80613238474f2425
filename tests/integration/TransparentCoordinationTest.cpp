// The transparent coordination front-end end to end: the real daskeld (with
// CAP_SYS_ADMIN), real extension processes (the scripted test extension, the local-folder
// example) and unrelated processes (/bin/cat, /bin/sh) that only open(), read() and write()
// files under the storage directories.
//
// The daemon runs once for the suite, with the bound shortened to a few seconds through
// DASKEL_COORDINATION_TIMEOUT_SECONDS; the DaemonFixture lays out the installation and runs
// the reader processes. fanotify only sees opens of files that exist: the local-folder items
// get their empty stand-ins from the system, through a consumer (a daskelctl copy) asking
// the daemon for their placeholders, or from an eviction; the scripted extensions' items are
// plain files the suite puts there, copies already present as far as opening them goes.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "ScriptedExtensionBundle.h"
#include "helpers/DaemonFixture.h"
#include "helpers/SpawnedProcess.h"
#include "platform/testing/MountTable.h"
#include "platform/url/Url.h"

namespace daskel::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using platform::testing::mountsAt;

constexpr char kLocalFolder[] = "com.example.daskel.local-folder-provider";
constexpr char kLocalFolderGroup[] = "group.com.example.daskel.local-folder";
constexpr char kBoundSeconds[] = "3";
// The application the consumer (a daskelctl copy) and the viewer (a copy of cat) are.
constexpr char kConsumer[] = "org.e2e.transparent.consumer";
constexpr char kViewer[] = "org.e2e.transparent.viewer";
constexpr char kStandInAttribute[] = "user.daskel.stand-in";

pid_t parentOf(pid_t pid) {
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  const auto close = stat.rfind(')');
  if (close == std::string::npos)
    return -1;
  std::istringstream fields(stat.substr(close + 1));
  std::string state;
  pid_t parent = -1;
  fields >> state >> parent;
  return parent;
}

std::vector<pid_t> childrenOf(pid_t parent) {
  std::vector<pid_t> children;
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr)
    return children;
  while (dirent* entry = ::readdir(proc)) {
    char* end = nullptr;
    const long pid = std::strtol(entry->d_name, &end, 10);
    if (pid > 0 && *end == '\0' && parentOf(static_cast<pid_t>(pid)) == parent)
      children.push_back(static_cast<pid_t>(pid));
  }
  ::closedir(proc);
  return children;
}

bool fanotifyPermissionEventsAvailable() {
  const int fd = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
  if (fd < 0)
    return false;
  ::close(fd);
  return true;
}

// Whether `path` is an empty regular file carrying the stand-in mark. Looked at without
// opening it: an open by this process would be coordinated too.
bool isMarkedStandIn(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size == 0 &&
         ::lgetxattr(path.c_str(), kStandInAttribute, nullptr, 0) >= 0;
}

class TransparentCoordinationEndToEnd : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!fanotifyPermissionEventsAvailable())
      return;
    installation_ = new DaemonFixture();
    setUpError_ = layOutAndStart();
  }

  static void TearDownTestSuite() {
    if (installation_ == nullptr)
      return;
    stopDaemon();
    // The daemon unmounts what it mounted when it is stopped (SIGTERM).
    for (const auto& [name, storage] : storage_)
      EXPECT_EQ(mountsAt(storage), 0) << storage << " is still mounted after the daemon stopped";
    for (const auto& [name, storage] : storage_) {
      while (mountsAt(storage) > 0 && ::umount2(storage.c_str(), MNT_DETACH) == 0) {
      }
    }
    delete installation_;
    installation_ = nullptr;
  }

  void SetUp() override {
    if (installation_ == nullptr)
      GTEST_SKIP() << "fanotify permission events need CAP_SYS_ADMIN, which this process lacks";
    ASSERT_TRUE(setUpError_.empty()) << setUpError_;
    ASSERT_TRUE(daemon_ && !daemon_->waitFor(0ms)) << "the daemon has stopped; its log:\n"
                                                   << log();
    logStart_ = log().size();
  }

  static ScriptedExtensionBundle scripted(const std::string& name, const std::string& script) {
    ScriptedExtensionBundle bundle;
    bundle.name = name;
    bundle.identifier = "com.example.transparent." + name;
    bundle.group = "group.com.example.transparent." + name;
    bundle.script = script;
    return bundle;
  }

  static std::string layOutAndStart() {
    DaemonFixture& installation = *installation_;
    if (!installation.ready())
      return installation.setUpError();
    std::string error;
    for (const auto& bundle :
         {scripted("plain", ""),
          scripted("refusing", "identifierForItem error com.example.e2e 41 Not an item of mine.\n"),
          scripted("crashing", "startProviding crash\n"),
          scripted("silent", "startProviding never-answer\n")}) {
      bundles_[bundle.name] = installation.installExtension(bundle, &error);
      if (bundles_[bundle.name].empty())
        return error;
      storage_[bundle.name] = installation.storageDirectory(bundle.group);
    }
    // The local-folder example, with a source folder of its own.
    const std::string staged = installation.root() + "/staging/local-folder-provider.dkext";
    fs::create_directories(staged + "/Source");
    fs::copy_file(std::string(DASKEL_E2E_LOCAL_FOLDER_BUNDLE) + "/Info.plist",
                  staged + "/Info.plist");
    ::chmod((staged + "/Info.plist").c_str(), 0644);
    if (::symlink((std::string(DASKEL_E2E_LOCAL_FOLDER_BUNDLE) + "/local-folder-provider").c_str(),
                  (staged + "/local-folder-provider").c_str()) != 0)
      return "cannot link the local-folder provider";
    std::ofstream(staged + "/Source/Report.md") << "# Quarterly report\n";
    std::ofstream(staged + "/Source/Minutes.txt") << "Present: everybody\n";
    localFolderSource_ = installation.extensionsDirectory() + "/local-folder-provider.dkext/Source";
    fs::rename(staged, installation.extensionsDirectory() + "/local-folder-provider.dkext");
    storage_["local-folder"] = installation.storageDirectory(kLocalFolderGroup);

    // Every storage directory exists before the daemon starts watching. The local-folder
    // provider's is left empty: its items get their stand-ins from the system.
    for (const auto& [name, storage] : storage_) {
      fs::create_directories(storage);
      if (name != "local-folder")
        std::ofstream(storage + "/item.txt");
    }
    std::ofstream(storage_.at("plain") + "/viewed.txt") << "viewed\n";

    const platform::Value yes(true);
    consumer_ = installation.addClient(
        "consumer", std::string(kConsumer),
        {{"com.orvane.daskel.acl-read", yes}, {"com.orvane.daskel.acl-write", yes}},
        DaemonFixture::kDaskelctl, &error);
    viewer_ = installation.addClient("viewer", std::string(kViewer), {}, "/bin/cat", &error);
    if (consumer_.empty() || viewer_.empty())
      return error;

    logPath_ = installation.root() + "/daskeld-transparent.log";
    SpawnedProcess::Options options;
    options.program = DaemonFixture::kDaskeld;
    options.environment = installation.environment("global=7 console=7 file=7");
    options.environment.push_back(std::string("DASKEL_COORDINATION_TIMEOUT_SECONDS=") +
                                  kBoundSeconds);
    options.standardOutputPath = logPath_;
    options.standardErrorPath = logPath_;
    daemon_ = SpawnedProcess::start(options, &error);
    if (!daemon_)
      return error;
    // Serving transparently once every storage directory is watched.
    for (const auto& [name, storage] : storage_) {
      const std::string line = "Transparent file coordination watches " + storage + " for ";
      if (!waitForLog(line, 0, 60s))
        return "no line '" + line + "'; the daemon's log:\n" + log();
    }
    return {};
  }

  static void stopDaemon() {
    if (!daemon_)
      return;
    const std::vector<pid_t> extensions = childrenOf(daemon_->pid());
    daemon_->kill(SIGTERM);
    if (!daemon_->waitFor(10s)) {
      ADD_FAILURE() << "daskeld did not end on SIGTERM";
      daemon_->kill(SIGKILL);
      daemon_->waitFor(10s);
    }
    daemon_.reset();
    // The extensions exit when their control sockets close; the fixture made this process
    // their subreaper.
    const auto deadline = DaemonFixture::Clock::now() + 15s;
    std::vector<pid_t> left = extensions;
    while (!left.empty()) {
      std::erase_if(left, [](pid_t pid) {
        int status = 0;
        const pid_t done = ::waitpid(pid, &status, WNOHANG);
        return done == pid || (done < 0 && errno == ECHILD);
      });
      if (left.empty())
        break;
      if (DaemonFixture::Clock::now() >= deadline) {
        for (pid_t pid : left) {
          ADD_FAILURE() << "extension process " << pid << " did not end with its daemon";
          ::kill(pid, SIGKILL);
          int status = 0;
          ::waitpid(pid, &status, 0);
        }
        break;
      }
      std::this_thread::sleep_for(5ms);
    }
    const std::string text = log();
    for (const char* marker : {"WARNING: ThreadSanitizer", "ERROR: AddressSanitizer",
                               "ERROR: LeakSanitizer", "runtime error:"}) {
      if (text.find(marker) != std::string::npos)
        ADD_FAILURE() << "sanitizer report in the daemon's log:\n" << text;
    }
  }

  static std::string log() { return logPath_.empty() ? std::string() : readFile(logPath_); }
  static bool waitForLog(const std::string& text, std::size_t offset,
                         std::chrono::milliseconds timeout) {
    const auto deadline = DaemonFixture::Clock::now() + timeout;
    for (;;) {
      const std::string current = log();
      if (current.size() > offset && current.find(text, offset) != std::string::npos)
        return true;
      if (DaemonFixture::Clock::now() >= deadline)
        return false;
      std::this_thread::sleep_for(10ms);
    }
  }
  std::string logSinceStart() const {
    const std::string current = log();
    return current.size() > logStart_ ? current.substr(logStart_) : std::string();
  }

  // The calls the scripted extension `name` has recorded.
  static std::vector<std::string> calls(const std::string& name) {
    return ScriptedExtensionBundle::calls(bundles_.at(name));
  }
  static bool called(const std::string& name, const std::string& line) {
    const auto lines = calls(name);
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }
  static bool waitForCall(const std::string& name, const std::string& line) {
    const auto deadline = DaemonFixture::Clock::now() + 30s;
    while (!called(name, line)) {
      if (DaemonFixture::Clock::now() >= deadline)
        return false;
      std::this_thread::sleep_for(10ms);
    }
    return true;
  }

  // A plain reader: cat, with the deadline a hung open would run into.
  ClientResult cat(const std::string& path, std::chrono::milliseconds deadline = 30s) {
    return installation_->run("/bin/cat", {path}, deadline);
  }

  // The consumer (daskelctl) runs `command` on the local-folder item `path`, as a document
  // consumer would: "extend-sandbox", "provide-placeholder", "stop-providing".
  static ClientResult consume(const std::string& command, const std::string& path) {
    return installation_->run(consumer_, {"--timeout", "30", command, path, "--provider",
                                          kLocalFolder, "--consumer", kConsumer});
  }
  // Grants the consumer the item and asks the daemon for its placeholder; "" when both
  // worked, else what failed.
  static std::string grantAndAskForPlaceholder(const std::string& path) {
    for (const char* command : {"extend-sandbox", "provide-placeholder"}) {
      const ClientResult result = consume(command, path);
      if (result.exitStatus != 0) {
        return std::string(command) + " failed (" + std::to_string(result.exitStatus) +
               "): " + result.standardOutput + result.standardError;
      }
    }
    return {};
  }
  static std::string consumerOf(const std::string& path, const std::string& reader) {
    return "requested us to provide item at URL " + fileUrl(path) + " for consumer " + reader;
  }

  static inline DaemonFixture* installation_ = nullptr;
  static inline std::string setUpError_;
  static inline std::optional<SpawnedProcess> daemon_;
  static inline std::string logPath_;
  static inline std::map<std::string, std::string> bundles_;
  static inline std::map<std::string, std::string> storage_;
  static inline std::string localFolderSource_;
  static inline std::string consumer_;
  static inline std::string viewer_;
  std::size_t logStart_ = 0;
};

TEST_F(TransparentCoordinationEndToEnd, APlainReadOfAnItemNotYetProvidedReturnsWhatTheProviderFetched) {
  const std::string item = storage_.at("local-folder") + "/Report.md";
  ASSERT_FALSE(fs::exists(item)) << "nothing is at the item's path before the placeholder";
  // A consumer asks for the placeholder; the provider's SDK puts a stand-in beside it.
  ASSERT_EQ(grantAndAskForPlaceholder(item), "");
  EXPECT_TRUE(fs::exists(storage_.at("local-folder") + "/.Report.md"));
  ASSERT_TRUE(isMarkedStandIn(item)) << "no stand-in at " << item;

  const ClientResult reader = cat(item);
  EXPECT_EQ(reader.exitStatus, 0) << reader.standardError << "\n" << logSinceStart();
  EXPECT_EQ(reader.standardOutput, "# Quarterly report\n");
  // The daemon asked the provider on the reader's behalf, naming the reader by its
  // executable (no manifest lists cat).
  const std::string named =
      "pid " + std::to_string(reader.pid) + " (" + fs::canonical("/bin/cat").string() + ")";
  EXPECT_NE(logSinceStart().find(consumerOf(item, named)), std::string::npos) << logSinceStart();
  EXPECT_FALSE(isMarkedStandIn(item));
}

TEST_F(TransparentCoordinationEndToEnd, AnItemEvictedByStopProvidingIsFetchedAgainByAPlainRead) {
  const std::string item = storage_.at("local-folder") + "/Minutes.txt";
  ASSERT_EQ(grantAndAskForPlaceholder(item), "");
  const ClientResult first = cat(item);
  ASSERT_EQ(first.exitStatus, 0) << first.standardError << "\n" << logSinceStart();
  ASSERT_EQ(first.standardOutput, "Present: everybody\n");

  // Changed at the source, then evicted: what is left is a stand-in, not the old copy.
  std::ofstream(localFolderSource_ + "/Minutes.txt", std::ios::trunc) << "Present: nobody\n";
  const ClientResult stopped = consume("stop-providing", item);
  ASSERT_EQ(stopped.exitStatus, 0) << stopped.standardOutput << stopped.standardError;
  EXPECT_TRUE(isMarkedStandIn(item)) << "stop providing left no stand-in at " << item;

  const ClientResult second = cat(item);
  EXPECT_EQ(second.exitStatus, 0) << second.standardError << "\n" << logSinceStart();
  EXPECT_EQ(second.standardOutput, "Present: nobody\n");
  EXPECT_NE(logSinceStart().find(consumerOf(item, "pid " + std::to_string(second.pid))),
            std::string::npos)
      << logSinceStart();
}

TEST_F(TransparentCoordinationEndToEnd,
       AReaderThatIsARegisteredApplicationIsNamedByItsBundleIdentifier) {
  const std::string item = storage_.at("plain") + "/viewed.txt";
  const ClientResult reader = installation_->run(viewer_, {item});
  EXPECT_EQ(reader.exitStatus, 0) << reader.standardError << "\n" << logSinceStart();
  EXPECT_EQ(reader.standardOutput, "viewed\n");
  EXPECT_NE(logSinceStart().find(
                consumerOf(item, "pid " + std::to_string(reader.pid) + " (" + kViewer + ")")),
            std::string::npos)
      << logSinceStart();
}

// What a reader whose open the daemon denied with `error` prints: that errno's text, or
// EPERM's when the daemon has said that this kernel cannot give a denial a reason.
std::string refusalText(const std::string& daemonLog, int error) {
  const bool withReason =
      daemonLog.find("cannot give a refused open a reason") == std::string::npos;
  return std::strerror(withReason ? error : EPERM);
}

TEST_F(TransparentCoordinationEndToEnd, AnItemTheExtensionCannotNameIsRefusedWithEIOAndNeverStarted) {
  const std::string item = storage_.at("refusing") + "/item.txt";
  const ClientResult reader = cat(item);
  EXPECT_EQ(reader.exitStatus, 1);
  EXPECT_NE(reader.standardError.find(refusalText(readFile(logPath_), EIO)), std::string::npos)
      << reader.standardError;
  EXPECT_TRUE(called("refusing", "identifierForItem " + fileUrl(item)))
      << ::testing::PrintToString(calls("refusing"));
  EXPECT_FALSE(called("refusing", "startProviding " + fileUrl(item)))
      << ::testing::PrintToString(calls("refusing"));
}

TEST_F(TransparentCoordinationEndToEnd, AFinishedWriteByAPlainProcessReachesTheOwningExtension) {
  const std::string item = storage_.at("plain") + "/item.txt";
  const ClientResult writer =
      installation_->run("/bin/sh", {"-c", "printf 'new text' > \"$0\"", item});
  EXPECT_EQ(writer.exitStatus, 0) << writer.standardError;
  EXPECT_TRUE(waitForCall("plain", "itemChanged " + fileUrl(item)))
      << ::testing::PrintToString(calls("plain")) << "\n" << logSinceStart();
  // Its open was coordinated first, like a read.
  EXPECT_TRUE(called("plain", "startProviding " + fileUrl(item)));
  EXPECT_EQ(readFile(item), "new text");

  // A read closes without writing: no second notice.
  const auto changedBefore = std::ranges::count(calls("plain"), "itemChanged " + fileUrl(item));
  const ClientResult reader = cat(item);
  EXPECT_EQ(reader.exitStatus, 0) << reader.standardError;
  EXPECT_EQ(reader.standardOutput, "new text");
  EXPECT_EQ(std::ranges::count(calls("plain"), "itemChanged " + fileUrl(item)), changedBefore);
}

TEST_F(TransparentCoordinationEndToEnd, AProviderThatCrashesFailsTheOpenAtOnceRatherThanAtTheBound) {
  const std::string item = storage_.at("crashing") + "/item.txt";
  const ClientResult reader = cat(item);
  EXPECT_EQ(reader.exitStatus, 1) << "the open hung";
  EXPECT_NE(reader.standardError.find(refusalText(readFile(logPath_), EIO)), std::string::npos)
      << reader.standardError;
  EXPECT_TRUE(called("crashing", "startProviding " + fileUrl(item)));
  // Denied for the provider's error, not by the bound. The daemon logs why after it has
  // answered the open, so the line may come after the reader has gone.
  EXPECT_TRUE(waitForLog("com.example.transparent.crashing could not provide " + item +
                             " to pid " + std::to_string(reader.pid),
                         logStart_, 10s))
      << logSinceStart();
  EXPECT_EQ(logSinceStart().find("did not provide " + item), std::string::npos) << logSinceStart();
}

TEST_F(TransparentCoordinationEndToEnd, AProviderThatNeverAnswersFailsTheOpenAtTheBound) {
  const std::string item = storage_.at("silent") + "/item.txt";
  const ClientResult reader = cat(item);
  EXPECT_EQ(reader.exitStatus, 1) << "the open was not denied at the bound";
  EXPECT_NE(reader.standardError.find(refusalText(readFile(logPath_), EAGAIN)), std::string::npos)
      << reader.standardError;
  EXPECT_TRUE(called("silent", "startProviding " + fileUrl(item)));
  const std::string line = "com.example.transparent.silent did not provide " + item + " to pid " +
                           std::to_string(reader.pid);
  EXPECT_TRUE(waitForLog(line, logStart_, 10s)) << logSinceStart();
  EXPECT_NE(logSinceStart().find(std::string("within ") + kBoundSeconds + " s; denied the open"),
            std::string::npos)
      << logSinceStart();
}

TEST_F(TransparentCoordinationEndToEnd, EachStorageDirectoryHasOneMountOfItsOwnAndNothingElseIsWatched) {
  for (const auto& [name, storage] : storage_)
    EXPECT_EQ(mountsAt(storage), 1) << storage;
  // A file beside the storage directories is read without asking anybody.
  const std::string outside = installation_->root() + "/outside.txt";
  std::ofstream(outside) << "outside\n";
  const ClientResult reader = cat(outside);
  EXPECT_EQ(reader.exitStatus, 0);
  EXPECT_EQ(reader.standardOutput, "outside\n");
  EXPECT_EQ(logSinceStart().find("requested us to provide item at URL " + fileUrl(outside)),
            std::string::npos);
}

}  // namespace
}  // namespace daskel::testing

namespace daskel::testing {
namespace {

TEST(TransparentCoordinationWithoutTheCapability, TheDaemonSaysSoOnceAndServesWithoutWatchingAnything) {
  constexpr char kSetpriv[] = "/usr/bin/setpriv";
  if (::access(kSetpriv, X_OK) != 0)
    GTEST_SKIP() << kSetpriv << " is needed to start the daemon without CAP_SYS_ADMIN";
  DaemonFixture installation;
  ASSERT_TRUE(installation.ready()) << installation.setUpError();
  ScriptedExtensionBundle bundle;
  bundle.name = "Plain";
  bundle.identifier = "com.example.transparent.uncapable";
  bundle.group = "group.com.example.transparent.uncapable";
  std::string error;
  ASSERT_FALSE(installation.installExtension(bundle, &error).empty()) << error;
  const std::string storage = installation.storageDirectory(bundle.group);

  const std::string logPath = installation.root() + "/daskeld-uncapable.log";
  SpawnedProcess::Options options;
  options.program = kSetpriv;
  options.arguments = {"--inh-caps=-sys_admin", "--bounding-set=-sys_admin",
                       DaemonFixture::kDaskeld};
  options.environment = installation.environment("global=7 console=7 file=7");
  options.standardOutputPath = logPath;
  options.standardErrorPath = logPath;
  auto daemon = SpawnedProcess::start(options, &error);
  ASSERT_TRUE(daemon.has_value()) << error;
  const auto deadline = DaemonFixture::Clock::now() + 60s;
  std::string log;
  while (DaemonFixture::Clock::now() < deadline) {
    log = readFile(logPath);
    if (log.find("Registered daskel extension " + bundle.identifier) != std::string::npos)
      break;
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_NE(log.find("Registered daskel extension " + bundle.identifier), std::string::npos) << log;
  const std::string notice = "only the cooperative front-end is available.";
  const auto first = log.find(notice);
  EXPECT_NE(first, std::string::npos) << log;
  EXPECT_EQ(log.find(notice, first + 1), std::string::npos) << "said more than once:\n" << log;
  EXPECT_NE(log.find("<Notice>: Transparent file coordination is off"), std::string::npos) << log;
  EXPECT_EQ(mountsAt(storage), 0);
  EXPECT_EQ(log.find("Transparent file coordination watches"), std::string::npos) << log;
  // And it serves.
  const ClientResult wakeUp =
      installation.run(DaemonFixture::kDaskelctl, {"--timeout", "30", "wake-up"});
  EXPECT_EQ(wakeUp.exitStatus, 0) << wakeUp.standardError;

  const std::vector<pid_t> extensions = childrenOf(daemon->pid());
  daemon->kill(SIGTERM);
  EXPECT_TRUE(daemon->waitFor(10s).has_value());
  for (pid_t pid : extensions) {
    int status = 0;
    const auto until = DaemonFixture::Clock::now() + 15s;
    while (::waitpid(pid, &status, WNOHANG) == 0 && DaemonFixture::Clock::now() < until)
      std::this_thread::sleep_for(5ms);
    if (::waitpid(pid, &status, WNOHANG) == 0) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
    }
  }
  const std::string finalLog = readFile(logPath);
  for (const char* marker : {"WARNING: ThreadSanitizer", "ERROR: AddressSanitizer",
                             "ERROR: LeakSanitizer", "runtime error:"})
    EXPECT_EQ(finalLog.find(marker), std::string::npos) << finalLog;
}

}  // namespace
}  // namespace daskel::testing
