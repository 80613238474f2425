// The transparent front-end with real fanotify, real mounts and real reader processes
// (/bin/cat, /bin/sh), against a hand-written provider whose answers the test controls. This
// process plays the daemon, so its own opens are let through; the readers are its children.
#include "platform/coordination/TransparentCoordination.h"
#include "platform/testing/MountTable.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "platform/coordination/TransparentCoordinationMounts.h"
#include "platform/identity/ApplicationRegistry.h"
#include "platform/log/CapturingLogSink.h"
#include "platform/plist/PropertyList.h"
#include "platform/value/Error.h"

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::mountsAt;

constexpr auto kDeadline = 20s;

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

bool waitUntil(const std::function<bool()>& condition) {
  const auto deadline = Clock::now() + kDeadline;
  while (!condition()) {
    if (Clock::now() > deadline)
      return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

// A child process with its output in files; killed and reaped by the destructor.
class Reader {
 public:
  Reader(const std::string& directory, const std::vector<std::string>& argv) {
    static std::atomic<int> serial = 0;
    const std::string base = directory + "/reader-" + std::to_string(++serial);
    out_ = base + ".out";
    err_ = base + ".err";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> args;
    for (const std::string& arg : argv)
      args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    char* env[] = {const_cast<char*>("PATH=/usr/bin:/bin"), nullptr};
    if (::posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), env) != 0)
      pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Reader() {
    if (pid_ > 0 && !status_) {
      ::kill(pid_, SIGKILL);
      int status = 0;
      ::waitpid(pid_, &status, 0);
    }
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  pid_t pid() const { return pid_; }
  bool running() {
    poll();
    return !status_;
  }
  // The exit status once it has ended (within the deadline); -1 otherwise.
  int exitStatus() {
    waitUntil([&] { return !running(); });
    return status_ && WIFEXITED(*status_) ? WEXITSTATUS(*status_) : -1;
  }
  std::string output() const { return readFile(out_); }
  std::string errors() const { return readFile(err_); }

 private:
  void poll() {
    if (pid_ <= 0 || status_)
      return;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_)
      status_ = status;
  }
  pid_t pid_ = -1;
  std::optional<int> status_;
  std::string out_;
  std::string err_;
};

// A provider whose answer the test chooses: at once, an error, or held until released.
class ScriptedProvider : public CoordinationProvider {
 public:
  enum class Answer { Present, Fail, Hold };

  ScriptedProvider(std::string directory, std::string name)
      : directory_(std::move(directory)),
        name_(std::move(name)),
        queue_(std::make_shared<OperationQueue>(name_)) {}

  std::optional<Url> _providedItemsURL() const override {
    return Url::fileUrlWithPath(directory_, true);
  }
  std::shared_ptr<OperationQueue> _providedItemsOperationQueue() const override { return queue_; }
  std::string _fileReactorID() const override { return name_; }
  void _provideItemAtURL(const Url& url, Completion completion) override {
    _provideItemAtURL(url, Value(), std::move(completion));
  }
  void _provideItemAtURL(const Url& url, const Value& readerID, Completion completion) override {
    EXPECT_TRUE(queue_->isCurrent()) << "called off the provider's operation queue";
    Answer answer;
    {
      std::lock_guard lock(mutex_);
      provided_.emplace_back(url.path(), readerID.description());
      answer = answer_;
      if (answer == Answer::Hold)
        held_.emplace_back(url.path(), completion);
    }
    if (answer == Answer::Present)
      completion(nullptr);
    else if (answer == Answer::Fail)
      completion(makeError("com.example.test", 9, "The item is offline."));
  }
  void _writerWithID(const Value& writerID, const Url& url) override {
    std::lock_guard lock(mutex_);
    written_.emplace_back(url.path(), writerID.description());
  }

  void setAnswer(Answer answer) {
    std::lock_guard lock(mutex_);
    answer_ = answer;
  }
  // Answers the held requests for `path`; returns how many there were.
  int release(const std::string& path, const ErrorPtr& error = nullptr) {
    std::vector<Completion> completions;
    {
      std::lock_guard lock(mutex_);
      std::erase_if(held_, [&](auto& entry) {
        if (entry.first != path)
          return false;
        completions.push_back(std::move(entry.second));
        return true;
      });
    }
    for (auto& completion : completions)
      completion(error);
    return static_cast<int>(completions.size());
  }
  std::vector<std::pair<std::string, std::string>> provided() const {
    std::lock_guard lock(mutex_);
    return provided_;
  }
  std::size_t timesProvided(const std::string& path) const {
    std::lock_guard lock(mutex_);
    return std::ranges::count_if(provided_, [&](const auto& call) { return call.first == path; });
  }
  std::vector<std::pair<std::string, std::string>> written() const {
    std::lock_guard lock(mutex_);
    return written_;
  }

 private:
  const std::string directory_;
  const std::string name_;
  const std::shared_ptr<OperationQueue> queue_;
  mutable std::mutex mutex_;
  Answer answer_ = Answer::Present;
  std::vector<std::pair<std::string, std::string>> provided_;
  std::vector<std::pair<std::string, Completion>> held_;
  std::vector<std::pair<std::string, std::string>> written_;
};

bool fanotifyPermissionEventsAvailable() {
  const int fd = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
  if (fd < 0)
    return false;
  ::close(fd);
  return true;
}

class TransparentCoordinationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!fanotifyPermissionEventsAvailable())
      GTEST_SKIP() << "fanotify permission events need CAP_SYS_ADMIN, which this process lacks";
    std::string pattern = (fs::temp_directory_path() / "daskel-transparent-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    root_ = fs::canonical(pattern).string();
    storage_ = root_ + "/storage";
    fs::create_directories(storage_ + "/folder");
    writeFile(item("present.txt"), "present contents\n");
    writeFile(item("other.txt"), "other contents\n");
    writeFile(item(".present.txt"), "placeholder\n");
    provider_ = std::make_shared<ScriptedProvider>(storage_, "com.example.provider");
  }

  void TearDown() override {
    // Stopped here, while the coordinator lives: a provider's answer still on its way holds
    // the front-end too, and dropping the last reference there would run its stop() against a
    // coordinator this fixture has destroyed already.
    if (front_)
      front_->stop();
    front_.reset();
    if (root_.empty())
      return;
    // Whatever a failed test left mounted goes, so the directory can be removed.
    while (mountsAt(storage_) > 0 && ::umount2(storage_.c_str(), MNT_DETACH) == 0) {
    }
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }

  void startFront(std::chrono::steady_clock::duration bound = 20s,
                  std::function<bool(pid_t)> exempt = nullptr,
                  std::shared_ptr<const ApplicationRegistry> applications = nullptr) {
    if (applications == nullptr) {
      // No manifests: every process is named by its executable.
      applications = std::make_shared<const ApplicationRegistry>(
          std::vector<std::string>{root_ + "/no-applications"});
    }
    front_ =
        TransparentCoordination::start(coordinator_, {.bound = bound,
                                                      .isExemptProcess = std::move(exempt),
                                                      .applications = std::move(applications)});
    ASSERT_NE(front_, nullptr);
  }

  std::string item(const std::string& name) const { return storage_ + "/" + name; }
  std::unique_ptr<Reader> cat(const std::string& path) {
    return std::make_unique<Reader>(root_, std::vector<std::string>{"/bin/cat", path});
  }

  CapturingLogSink::Scope log_;
  FileCoordinator coordinator_;
  std::string root_;
  std::string storage_;
  std::shared_ptr<ScriptedProvider> provider_;
  std::shared_ptr<TransparentCoordination> front_;

  // What a reader whose open was denied with `error` prints: that errno's text, or EPERM's
  // on a kernel that cannot give denials a reason.
  std::string refusalText(int error) const {
    return std::strerror(front_->denialsCarryErrno() ? error : EPERM);
  }
};

TEST_F(TransparentCoordinationTest, AnOpenWaitsForItsProviderAndReadsWhatItMadePresent) {
  coordinator_.addProvider(provider_);
  startFront();
  provider_->setAnswer(ScriptedProvider::Answer::Hold);
  const std::string path = item("present.txt");

  auto reader = cat(path);
  ASSERT_TRUE(waitUntil([&] { return provider_->timesProvided(path) == 1; }));
  EXPECT_TRUE(reader->running()) << "the open returned before the provider answered";
  EXPECT_EQ(provider_->provided().at(0).second.rfind("pid " + std::to_string(reader->pid()), 0),
            0u)
      << provider_->provided().at(0).second;

  // What the provider puts there before it answers is what the reader gets.
  writeFile(path, "fetched contents\n");
  EXPECT_EQ(provider_->release(path), 1);
  EXPECT_EQ(reader->exitStatus(), 0) << reader->errors();
  EXPECT_EQ(reader->output(), "fetched contents\n");
}

TEST_F(TransparentCoordinationTest, AReaderGetsWhatTheProviderRenamedOverTheFileItOpened) {
  coordinator_.addProvider(provider_);
  startFront();
  provider_->setAnswer(ScriptedProvider::Answer::Hold);
  const std::string path = item("folder/stand-in.txt");
  writeFile(path, "");  // an empty stand-in for an item not fetched yet

  auto reader = cat(path);
  ASSERT_TRUE(waitUntil([&] { return provider_->timesProvided(path) == 1; }));
  // Fetched the way most providers do it: a new file, renamed over the stand-in.
  writeFile(item("folder/.fetching"), "the fetched item\n");
  ASSERT_EQ(::rename(item("folder/.fetching").c_str(), path.c_str()), 0);
  EXPECT_EQ(provider_->release(path), 1);
  EXPECT_EQ(reader->exitStatus(), 0) << reader->errors();
  EXPECT_EQ(reader->output(), "the fetched item\n");
  EXPECT_EQ(readFile(path), "the fetched item\n");
}

TEST_F(TransparentCoordinationTest, AnOpenFailsWithEIOWhenTheProviderReportsAnError) {
  coordinator_.addProvider(provider_);
  startFront();
  provider_->setAnswer(ScriptedProvider::Answer::Fail);

  auto reader = cat(item("present.txt"));
  EXPECT_EQ(reader->exitStatus(), 1);
  EXPECT_NE(reader->errors().find(refusalText(EIO)), std::string::npos)
      << reader->errors();
  EXPECT_EQ(reader->output(), "");
  EXPECT_TRUE(log_->waitFor(
      [&](const std::vector<CapturingLogSink::Line>& lines) {
        return std::ranges::any_of(lines, [&](const CapturingLogSink::Line& line) {
          return line.level == kLogError &&
                 line.message.find("com.example.provider could not provide " +
                                   item("present.txt") + " to pid " +
                                   std::to_string(reader->pid())) == 0 &&
                 line.message.find("The item is offline.") != std::string::npos;
        });
      },
      Clock::now() + kDeadline));
}

TEST_F(TransparentCoordinationTest, AnUnansweredOpenIsDeniedAtTheBoundAndALateAnswerChangesNothing) {
  coordinator_.addProvider(provider_);
  startFront(300ms);
  provider_->setAnswer(ScriptedProvider::Answer::Hold);
  const std::string path = item("present.txt");

  auto reader = cat(path);
  EXPECT_EQ(reader->exitStatus(), 1);
  EXPECT_NE(reader->errors().find(refusalText(EAGAIN)), std::string::npos)
      << reader->errors();
  const std::string expected = "com.example.provider did not provide " + path + " to pid " +
                               std::to_string(reader->pid());
  EXPECT_TRUE(log_->waitFor(
      [&](const std::vector<CapturingLogSink::Line>& lines) {
        return std::ranges::any_of(lines, [&](const CapturingLogSink::Line& line) {
          return line.level == kLogError && line.message.rfind(expected, 0) == 0 &&
                 line.message.find("within 300 ms; denied the open") != std::string::npos;
        });
      },
      Clock::now() + kDeadline))
      << expected;

  // The provider answers after all: nothing is written for the answered open, and the next
  // open is a request of its own.
  EXPECT_EQ(provider_->release(path), 1);
  provider_->setAnswer(ScriptedProvider::Answer::Present);
  auto again = cat(path);
  EXPECT_EQ(again->exitStatus(), 0) << again->errors();
  EXPECT_EQ(provider_->timesProvided(path), 2u);
}

TEST_F(TransparentCoordinationTest, OpensOfOneItemShareARequestWhileOpensOfOtherItemsGoOn) {
  coordinator_.addProvider(provider_);
  startFront();
  provider_->setAnswer(ScriptedProvider::Answer::Hold);
  const std::string shared = item("present.txt");
  const std::string other = item("other.txt");

  auto first = cat(shared);
  ASSERT_TRUE(waitUntil([&] { return provider_->timesProvided(shared) == 1; }));
  auto second = cat(shared);
  ASSERT_TRUE(log_->waitFor(
      [&](const std::vector<CapturingLogSink::Line>& lines) {
        return std::ranges::any_of(lines, [&](const CapturingLogSink::Line& line) {
          return line.message.rfind("Open of " + shared + " by pid " +
                                        std::to_string(second->pid()),
                                    0) == 0;
        });
      },
      Clock::now() + kDeadline));
  auto third = cat(other);
  ASSERT_TRUE(waitUntil([&] { return provider_->timesProvided(other) == 1; }));

  // The other item's answer lets its reader through while the shared one still waits.
  EXPECT_EQ(provider_->release(other), 1);
  EXPECT_EQ(third->exitStatus(), 0) << third->errors();
  EXPECT_EQ(third->output(), "other contents\n");
  EXPECT_TRUE(first->running());
  EXPECT_TRUE(second->running());

  EXPECT_EQ(provider_->release(shared), 1);
  EXPECT_EQ(first->exitStatus(), 0) << first->errors();
  EXPECT_EQ(second->exitStatus(), 0) << second->errors();
  EXPECT_EQ(second->output(), "present contents\n");
  EXPECT_EQ(provider_->timesProvided(shared), 1u);
}

TEST_F(TransparentCoordinationTest, PlaceholdersDirectoriesAndExemptProcessesAreNeverProvided) {
  std::mutex mutex;
  std::set<pid_t> exempt;
  coordinator_.addProvider(provider_);
  startFront(20s, [&](pid_t pid) {
    std::lock_guard lock(mutex);
    return exempt.contains(pid);
  });
  provider_->setAnswer(ScriptedProvider::Answer::Fail);

  auto placeholder = cat(item(".present.txt"));
  EXPECT_EQ(placeholder->exitStatus(), 0) << placeholder->errors();
  EXPECT_EQ(placeholder->output(), "placeholder\n");
  Reader listing(root_, {"/bin/ls", "-a", storage_, storage_ + "/folder"});
  EXPECT_EQ(listing.exitStatus(), 0) << listing.errors();
  EXPECT_NE(listing.output().find("present.txt"), std::string::npos);

  // The exempt process is held at a pipe until it is listed; then it execs cat (same pid).
  int gate[2];
  ASSERT_EQ(::pipe(gate), 0);
  const std::string script = "read line <&" + std::to_string(gate[0]) + "; exec /bin/cat \"$0\"";
  Reader extension(root_, {"/bin/sh", "-c", script, item("present.txt")});
  ::close(gate[0]);
  {
    std::lock_guard lock(mutex);
    exempt.insert(extension.pid());
  }
  ASSERT_EQ(::write(gate[1], "go\n", 3), 3);
  ::close(gate[1]);
  EXPECT_EQ(extension.exitStatus(), 0) << extension.errors();
  EXPECT_EQ(extension.output(), "present contents\n");

  EXPECT_TRUE(provider_->provided().empty());
  // And a plain reader of the same item is still held to the provider's answer.
  auto plain = cat(item("present.txt"));
  EXPECT_EQ(plain->exitStatus(), 1);
  EXPECT_EQ(provider_->timesProvided(item("present.txt")), 1u);
}

TEST_F(TransparentCoordinationTest, ProcessesAnExemptProcessStartedAreExemptButOthersAreNot) {
  std::mutex mutex;
  std::set<pid_t> exempt;
  coordinator_.addProvider(provider_);
  startFront(20s, [&](pid_t pid) {
    std::lock_guard lock(mutex);
    return exempt.contains(pid);
  });
  provider_->setAnswer(ScriptedProvider::Answer::Fail);
  const std::string path = item("present.txt");

  // The "extension" waits at a pipe until it is listed, then reads the item through a child
  // (cat) and a grandchild (a shell's cat); "; true" keeps each shell from exec()ing its last
  // command, so the readers are descendants rather than the listed process itself.
  int gate[2];
  ASSERT_EQ(::pipe(gate), 0);
  const std::string script = "read line <&" + std::to_string(gate[0]) +
                             "; /bin/cat \"$0\"; /bin/sh -c '/bin/cat \"$0\"; true' \"$0\"; true";
  Reader extension(root_, {"/bin/sh", "-c", script, path});
  ::close(gate[0]);
  {
    std::lock_guard lock(mutex);
    exempt.insert(extension.pid());
  }
  ASSERT_EQ(::write(gate[1], "go\n", 3), 3);
  ::close(gate[1]);
  EXPECT_EQ(extension.exitStatus(), 0) << extension.errors();
  EXPECT_EQ(extension.output(), "present contents\npresent contents\n") << extension.errors();
  EXPECT_TRUE(provider_->provided().empty());

  // A shell that nobody listed, reading the same way: its child is held to the provider.
  Reader stranger(root_, {"/bin/sh", "-c", "/bin/cat \"$0\"; true", path});
  EXPECT_EQ(stranger.exitStatus(), 0);
  EXPECT_NE(stranger.errors().find(refusalText(EIO)), std::string::npos)
      << stranger.errors();
  EXPECT_EQ(stranger.output(), "");
  EXPECT_EQ(provider_->timesProvided(path), 1u);
}

TEST_F(TransparentCoordinationTest,
       ReadersAndWritersAreNamedByTheirApplicationOrElseTheirExecutable) {
  // A registered application: a copy of cat listed in a manifest.
  fs::create_directories(root_ + "/bin");
  fs::create_directories(root_ + "/applications");
  const std::string application = root_ + "/bin/report-viewer";
  fs::copy_file(fs::canonical("/bin/cat"), application);
  fs::permissions(application, fs::perms(0755));
  const std::string manifest = root_ + "/applications/report-viewer.plist";
  ASSERT_TRUE(writePropertyListAtomically(
      Value(Value::Dictionary{{"BundleIdentifier", Value("org.example.report-viewer")},
                              {"Executables", Value(Value::Array{Value(application)})},
                              {"Entitlements", Value(Value::Dictionary())}}),
      manifest));
  ASSERT_EQ(::chmod(manifest.c_str(), 0644), 0);
  coordinator_.addProvider(provider_);
  startFront(20s, nullptr,
             std::make_shared<const ApplicationRegistry>(
                 std::vector<std::string>{root_ + "/applications"}));

  Reader viewer(root_, {application, item("present.txt")});
  EXPECT_EQ(viewer.exitStatus(), 0) << viewer.errors();
  auto plain = cat(item("other.txt"));
  EXPECT_EQ(plain->exitStatus(), 0) << plain->errors();
  // The writer stays until told (a line on a pipe), so it is named while it runs.
  int gate[2];
  ASSERT_EQ(::pipe(gate), 0);
  Reader writer(
      root_, {"/bin/sh", "-c", "printf 'written' > \"$0\"; read line <&" + std::to_string(gate[0]),
              item("folder/new.txt")});
  ::close(gate[0]);
  ASSERT_TRUE(waitUntil([&] { return !provider_->written().empty(); }));
  ASSERT_EQ(::write(gate[1], "go\n", 3), 3);
  ::close(gate[1]);
  EXPECT_EQ(writer.exitStatus(), 0) << writer.errors();

  const auto calls = provider_->provided();
  const std::set<std::pair<std::string, std::string>> provided(calls.begin(), calls.end());
  EXPECT_TRUE(provided.contains({item("present.txt"), "pid " + std::to_string(viewer.pid()) +
                                                          " (org.example.report-viewer)"}))
      << ::testing::PrintToString(provided);
  EXPECT_TRUE(provided.contains({item("other.txt"), "pid " + std::to_string(plain->pid()) + " (" +
                                                        fs::canonical("/bin/cat").string() + ")"}))
      << ::testing::PrintToString(provided);
  EXPECT_EQ(provider_->written().at(0),
            std::make_pair(item("folder/new.txt"), "pid " + std::to_string(writer.pid()) + " (" +
                                                       fs::canonical("/bin/sh").string() + ")"));
}

TEST_F(TransparentCoordinationTest, CloseAfterWritingTellsTheOwningProviderWhoWrote) {
  coordinator_.addProvider(provider_);
  startFront();
  const std::string path = item("folder/new.txt");

  Reader writer(root_, {"/bin/sh", "-c", "printf 'written' > \"$0\"", path});
  EXPECT_EQ(writer.exitStatus(), 0) << writer.errors();
  ASSERT_TRUE(waitUntil([&] { return !provider_->written().empty(); }));
  const auto written = provider_->written();
  EXPECT_EQ(written.at(0).first, path);
  EXPECT_EQ(written.at(0).second.rfind("pid " + std::to_string(writer.pid()), 0), 0u)
      << written.at(0).second;
  EXPECT_EQ(readFile(path), "written");
  // The open for writing was coordinated like a read.
  EXPECT_EQ(provider_->timesProvided(path), 1u);

  // A reader closes without writing: no notice.
  auto reader = cat(path);
  EXPECT_EQ(reader->exitStatus(), 0);
  EXPECT_EQ(provider_->written().size(), 1u);
}

TEST_F(TransparentCoordinationTest, WatchingFollowsTheCoordinatorAndUnmountsWhatItMounted) {
  startFront();
  EXPECT_TRUE(front_->watchedDirectories().empty());
  EXPECT_EQ(mountsAt(storage_), 0);

  coordinator_.addProvider(provider_);
  EXPECT_EQ(front_->watchedDirectories(), std::vector<std::string>{storage_});
  EXPECT_EQ(mountsAt(storage_), 1);
  provider_->setAnswer(ScriptedProvider::Answer::Fail);
  EXPECT_EQ(cat(item("present.txt"))->exitStatus(), 1);

  coordinator_.removeProvider(provider_);
  EXPECT_TRUE(front_->watchedDirectories().empty());
  EXPECT_EQ(mountsAt(storage_), 0);
  auto after = cat(item("present.txt"));
  EXPECT_EQ(after->exitStatus(), 0) << after->errors();
  EXPECT_EQ(provider_->timesProvided(item("present.txt")), 1u);

  // Stopping the front-end takes its mounts away too.
  coordinator_.addProvider(provider_);
  EXPECT_EQ(mountsAt(storage_), 1);
  front_->stop();
  EXPECT_EQ(mountsAt(storage_), 0);
}

TEST_F(TransparentCoordinationTest, AnExistingMountIsUsedAsItIsAndLeftInPlace) {
  ASSERT_EQ(::mount(storage_.c_str(), storage_.c_str(), nullptr, MS_BIND, nullptr), 0)
      << std::strerror(errno);
  ASSERT_EQ(mountsAt(storage_), 1);
  coordinator_.addProvider(provider_);
  startFront();
  EXPECT_EQ(mountsAt(storage_), 1) << "a second mount was stacked";
  EXPECT_TRUE(log_->contains("Transparent file coordination watches " + storage_ +
                             " for com.example.provider (already a mount point)"));
  provider_->setAnswer(ScriptedProvider::Answer::Fail);
  EXPECT_EQ(cat(item("present.txt"))->exitStatus(), 1);

  front_->stop();
  EXPECT_EQ(mountsAt(storage_), 1) << "a mount made by someone else was removed";
}

TEST_F(TransparentCoordinationTest, AMissingStorageDirectoryIsLoggedAndTheOthersAreWatched) {
  auto missing = std::make_shared<ScriptedProvider>(root_ + "/missing", "com.example.missing");
  coordinator_.addProvider(missing);
  coordinator_.addProvider(provider_);
  startFront();
  EXPECT_EQ(front_->watchedDirectories(), std::vector<std::string>{storage_});
  EXPECT_TRUE(log_->waitFor(
      [&](const std::vector<CapturingLogSink::Line>& lines) {
        return std::ranges::any_of(lines, [&](const CapturingLogSink::Line& line) {
          return line.level == kLogError &&
                 line.message.find("cannot watch the storage directory " + root_ +
                                   "/missing of com.example.missing") != std::string::npos;
        });
      },
      Clock::now() + kDeadline));
}

TEST(TransparentCoordinationBound, ComesFromTheEnvironmentInSecondsAndFallsBackTo30) {
  ::unsetenv(TransparentCoordination::kBoundVariable);
  EXPECT_EQ(TransparentCoordination::boundFromEnvironment(), 30s);
  ::setenv(TransparentCoordination::kBoundVariable, "2.5", 1);
  EXPECT_EQ(TransparentCoordination::boundFromEnvironment(), 2500ms);
  for (const char* wrong : {"soon", "0", "-3", "5s"}) {
    ::setenv(TransparentCoordination::kBoundVariable, wrong, 1);
    EXPECT_EQ(TransparentCoordination::boundFromEnvironment(), 30s) << wrong;
  }
  ::unsetenv(TransparentCoordination::kBoundVariable);
}

}  // namespace
}  // namespace daskel::platform
