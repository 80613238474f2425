// The file-coordination service end to end: the real daskeld on a temporary installation,
// real extension processes (the local-folder example, which copies items in from a source
// folder, and scripted test extensions with call logs), and copies of daskelctl as the
// readers and writers: `read`, `coordinate-read` and `wrote`. What reached an extension is
// read from its call log or its storage directory; what the providers said, from the daemon's
// log.
//
// One daemon serves the suite; each test uses item names of its own. Where the daemon has
// CAP_SYS_ADMIN its transparent front-end also provides items a test opens, so a fetch is
// credited to this service only by the reader identifier (the daskelctl copy's pid) in the
// provider's log line.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "ScriptedExtensionBundle.h"
#include "helpers/DaemonFixture.h"
#include "platform/url/Url.h"

namespace daskel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;
using testing::ClientResult;
using testing::DaemonFixture;
using testing::directoryUrl;
using testing::fileUrl;
using testing::readFile;
using testing::ScriptedExtensionBundle;

constexpr char kLocalFolder[] = "com.example.daskel.local-folder-provider";
constexpr char kLocalFolderGroup[] = "group.com.example.daskel.local-folder";
constexpr char kReaderBundle[] = "org.e2e.coordinating-reader";
constexpr char kConsumerBundle[] = "org.e2e.placeholder-consumer";
constexpr auto kDeadline = 30s;

bool contains(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

class FileCoordination : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    daemon_ = new DaemonFixture();
    setUpError_ = layOut();
  }

  static void TearDownTestSuite() {
    delete daemon_;
    daemon_ = nullptr;
  }

  void SetUp() override {
    ASSERT_TRUE(setUpError_.empty()) << setUpError_;
    ASSERT_TRUE(daemon_->running()) << "the daemon has stopped; its log:\n" << daemon_->log();
  }

  static std::string layOut() {
    if (!daemon_->ready()) {
      return daemon_->setUpError();
    }
    std::string error;
    // The local-folder example, with a source folder of its own.
    const std::string staged = daemon_->root() + "/staging/local-folder-provider.dkext";
    std::error_code ec;
    fs::create_directories(staged + "/Source", ec);
    fs::copy_file(std::string(DASKEL_E2E_LOCAL_FOLDER_BUNDLE) + "/Info.plist",
                  staged + "/Info.plist", ec);
    if (ec || ::chmod((staged + "/Info.plist").c_str(), 0644) != 0 ||
        ::symlink((std::string(DASKEL_E2E_LOCAL_FOLDER_BUNDLE) + "/local-folder-provider").c_str(),
                  (staged + "/local-folder-provider").c_str()) != 0) {
      return "cannot stage the local-folder provider in " + staged;
    }
    std::ofstream(staged + "/Source/Report.md") << "# Quarterly report\n";
    std::ofstream(staged + "/Source/Minutes.txt") << "Present: everybody\n";
    std::ofstream(staged + "/Source/Plan.txt") << "1. coordinate\n2. read\n";
    std::ofstream(staged + "/Source/Agenda.txt") << "1. stand-ins\n";
    fs::rename(staged, daemon_->extensionsDirectory() + "/local-folder-provider.dkext", ec);
    if (ec) {
      return "cannot install the local-folder provider: " + ec.message();
    }
    localStorage_ = daemon_->storageDirectory(kLocalFolderGroup);

    ScriptedExtensionBundle alpha;
    alpha.name = "Alpha";
    alpha.identifier = "com.example.coordination.alpha";
    alpha.group = "group.com.example.coordination.alpha";
    ScriptedExtensionBundle beta = alpha;
    beta.name = "Beta";
    beta.identifier = "com.example.coordination.beta";
    beta.group = "group.com.example.coordination.beta";
    ScriptedExtensionBundle refusing = alpha;
    refusing.name = "Refusing";
    refusing.identifier = "com.example.coordination.refusing";
    refusing.group = "group.com.example.coordination.refusing";
    refusing.script = "identifierForItem error com.example.e2e 41 The item is not known here.\n";
    ScriptedExtensionBundle silent = alpha;
    silent.name = "Silent";
    silent.identifier = "com.example.coordination.silent";
    silent.group = "group.com.example.coordination.silent";
    silent.script = "startProviding never-answer\n";
    for (auto [bundle, path, storage] :
         {std::tuple{&alpha, &alphaBundle_, &alphaStorage_},
          std::tuple{&beta, &betaBundle_, &betaStorage_},
          std::tuple{&refusing, &refusingBundle_, &refusingStorage_},
          std::tuple{&silent, &silentBundle_, &silentStorage_}}) {
      *path = daemon_->installExtension(*bundle, &error);
      if (path->empty()) {
        return error;
      }
      *storage = daemon_->storageDirectory(bundle->group);
    }

    reader_ = daemon_->addClient("reader", std::string(kReaderBundle), {},
                                 DaemonFixture::kDaskelctl, &error);
    stranger_ = daemon_->addClient("stranger", std::nullopt, {}, DaemonFixture::kDaskelctl, &error);
    const platform::Value yes(true);
    consumer_ = daemon_->addClient(
        "consumer", std::string(kConsumerBundle),
        {{"com.orvane.daskel.acl-read", yes}, {"com.orvane.daskel.acl-write", yes}},
        DaemonFixture::kDaskelctl, &error);
    if (reader_.empty() || stranger_.empty() || consumer_.empty()) {
      return error;
    }
    if (!daemon_->startServing("global=7 console=7 file=7", &error)) {
      return error;
    }
    return {};
  }

  // Runs a daskelctl copy with --timeout 30 (and --json when asked).
  static ClientResult ctl(const std::string& program, std::vector<std::string> arguments,
                          bool json = false) {
    arguments.insert(arguments.begin(), {"--timeout", "30"});
    if (json) {
      arguments.insert(arguments.begin(), "--json");
    }
    return daemon_->run(program, arguments);
  }

  // Waits until the call log of `bundle` holds `line`.
  static bool waitForCall(const std::string& bundle, const std::string& line) {
    const auto deadline = DaemonFixture::Clock::now() + kDeadline;
    while (!contains(ScriptedExtensionBundle::calls(bundle), line)) {
      if (DaemonFixture::Clock::now() > deadline) {
        return false;
      }
      std::this_thread::sleep_for(20ms);
    }
    return true;
  }

  static std::string reader(pid_t pid, const std::string& bundle) {
    return "pid " + std::to_string(pid) + " (" + bundle + ")";
  }

  static inline DaemonFixture* daemon_ = nullptr;
  static inline std::string setUpError_;
  static inline std::string reader_, stranger_, consumer_;
  static inline std::string localStorage_;
  static inline std::string alphaBundle_, betaBundle_, refusingBundle_, silentBundle_;
  static inline std::string alphaStorage_, betaStorage_, refusingStorage_, silentStorage_;
};

// ---- reads ----

TEST_F(FileCoordination, ReadOfAnItemNotYetPresentHasTheProviderFetchItAndPrintsIt) {
  const std::string item = localStorage_ + "/Report.md";
  ASSERT_FALSE(fs::exists(item));
  const std::size_t offset = daemon_->logSize();

  const ClientResult result = ctl(reader_, {"read", item});
  EXPECT_EQ(result.exitStatus, 0) << result.standardError;
  EXPECT_EQ(result.standardOutput, "# Quarterly report\n");
  EXPECT_EQ(result.standardError, "");
  EXPECT_TRUE(fs::exists(item));
  // The provider heard who read: the daskelctl copy, by pid and bundle identifier.
  EXPECT_NE(daemon_->logSince(offset).find("OxFileCoordinator requested us to provide item at URL " +
                                           fileUrl(item) + " for consumer " +
                                           reader(result.pid, kReaderBundle)),
            std::string::npos)
      << daemon_->logSince(offset);
}

TEST_F(FileCoordination, ReadWithJsonPutsTheContentsInTheResult) {
  const std::string item = localStorage_ + "/Plan.txt";
  const ClientResult result = ctl(stranger_, {"read", item}, /*json=*/true);
  EXPECT_EQ(result.exitStatus, 0) << result.standardError;
  EXPECT_EQ(result.json, json({{"command", "read"},
                               {"ok", true},
                               {"exitStatus", 0},
                               {"result", {{"contents", "1. coordinate\n2. read\n"}}}}))
      << result.standardOutput;
}

TEST_F(FileCoordination, CoordinateReadMakesTheItemPresentAndPrintsNothing) {
  const std::string item = localStorage_ + "/Minutes.txt";
  ASSERT_FALSE(fs::exists(item));
  const std::size_t offset = daemon_->logSize();
  const ClientResult result = ctl(stranger_, {"coordinate-read", item});
  EXPECT_EQ(result.exitStatus, 0) << result.standardError;
  EXPECT_EQ(result.standardOutput, "");
  // Present before anybody opened it (stat opens nothing), fetched for this reader.
  EXPECT_TRUE(fs::exists(item));
  EXPECT_NE(daemon_->logSince(offset).find("OxFileCoordinator requested us to provide item at URL " +
                                           fileUrl(item) + " for consumer " +
                                           reader(result.pid, "unknown")),
            std::string::npos)
      << daemon_->logSince(offset);
  EXPECT_EQ(readFile(item), "Present: everybody\n");
}

TEST_F(FileCoordination, ReadOfAnItemWhosePlaceholderLeftAStandInFetchesItsContents) {
  const std::string item = localStorage_ + "/Agenda.txt";
  // A consumer asks for the placeholder; the provider leaves an empty stand-in at the item.
  for (const char* command : {"extend-sandbox", "provide-placeholder"}) {
    const ClientResult result =
        ctl(consumer_, {command, item, "--provider", kLocalFolder, "--consumer", kConsumerBundle});
    ASSERT_EQ(result.exitStatus, 0)
        << command << ": " << result.standardOutput << result.standardError;
  }
  ASSERT_TRUE(fs::exists(item));
  ASSERT_EQ(fs::file_size(item), 0u);

  // The stand-in is not taken for the document: the read has it fetched.
  const ClientResult result = ctl(reader_, {"read", item});
  EXPECT_EQ(result.exitStatus, 0) << result.standardError;
  EXPECT_EQ(result.standardOutput, "1. stand-ins\n");
  EXPECT_EQ(readFile(item), "1. stand-ins\n");
}

TEST_F(FileCoordination, AnItemTheProviderCannotNameIsNeverStartedAndTheReaderGetsTheError) {
  const std::string item = refusingStorage_ + "/Unknown/ghost.txt";
  const std::size_t offset = daemon_->logSize();

  const ClientResult result = ctl(stranger_, {"read", item});
  EXPECT_EQ(result.exitStatus, 1) << result.standardOutput << result.standardError;
  EXPECT_EQ(result.standardOutput, "");
  // The extension's error, wrapped once in the plug-in failure.
  EXPECT_NE(result.standardError.find("daskelctl: read: "), std::string::npos)
      << result.standardError;
  EXPECT_NE(result.standardError.find("The item is not known here."), std::string::npos)
      << result.standardError;
  EXPECT_NE(result.standardError.find("underlyingError"), std::string::npos)
      << result.standardError;

  const auto calls = ScriptedExtensionBundle::calls(refusingBundle_);
  EXPECT_TRUE(contains(calls, "identifierForItem " + fileUrl(item)));
  for (const std::string& line : calls) {
    EXPECT_FALSE(line.starts_with("startProviding")) << line;
  }
  EXPECT_NE(daemon_->logSince(offset).find("for consumer " + reader(result.pid, "unknown")),
            std::string::npos);

  // The same error in JSON: a plug-in failure (8) wrapping the extension's own error.
  const ClientResult again = ctl(reader_, {"coordinate-read", item}, /*json=*/true);
  EXPECT_EQ(again.exitStatus, 1);
  ASSERT_TRUE(again.json.is_object()) << again.standardOutput;
  EXPECT_EQ(again.json["error"]["domain"], "com.orvane.Daskel");
  EXPECT_EQ(again.json["error"]["code"], 8);
  const json underlying = again.json["error"]["userInfo"]["underlyingError"];
  EXPECT_EQ(underlying["domain"], "com.example.e2e") << again.json.dump(2);
  EXPECT_EQ(underlying["code"], 41) << again.json.dump(2);
}

TEST_F(FileCoordination, AReadThatTheProviderNeverAnswersTimesOut) {
  const std::string item = silentStorage_ + "/stuck.txt";
  const ClientResult result =
      daemon_->run(stranger_, {"--timeout", "1", "coordinate-read", item});
  EXPECT_EQ(result.exitStatus, 4) << result.standardOutput << result.standardError;
  EXPECT_TRUE(waitForCall(silentBundle_, "startProviding " + fileUrl(item)));
}

// ---- write notices ----

TEST_F(FileCoordination, AWriteNoticeReachesTheProviderWhoseStorageHoldsTheItem) {
  const std::string item = betaStorage_ + "/Drafts/letter.txt";
  const auto alphaCallsBefore = ScriptedExtensionBundle::calls(alphaBundle_).size();

  const ClientResult result = ctl(reader_, {"wrote", item});
  EXPECT_EQ(result.exitStatus, 0) << result.standardError;
  EXPECT_EQ(result.standardOutput, "");
  EXPECT_TRUE(waitForCall(betaBundle_, "itemChanged " + fileUrl(item)))
      << daemon_->log();
  EXPECT_EQ(ScriptedExtensionBundle::calls(alphaBundle_).size(), alphaCallsBefore);
  EXPECT_NE(daemon_->log().find("OxFileCoordinator is telling us the item at URL " + fileUrl(item) +
                                " was changed by writer ID " +
                                reader(result.pid, kReaderBundle) + "."),
            std::string::npos);
}

TEST_F(FileCoordination, AWriteNoticeForAStorageDirectoryItselfLogsOnlyTheInfoLine) {
  const std::string url = directoryUrl(alphaStorage_);
  const auto callsBefore = ScriptedExtensionBundle::calls(alphaBundle_);
  const std::size_t offset = daemon_->logSize();

  const ClientResult result = ctl(stranger_, {"wrote", alphaStorage_});
  ASSERT_EQ(result.exitStatus, 0) << result.standardError;
  // The reply comes after the provider was handed the notice, so its lines are logged by now.
  const std::string log = daemon_->logSince(offset);
  EXPECT_NE(log.find("OxFileCoordinator is telling us the item at URL " + url +
                     " was changed by writer ID " + reader(result.pid, "unknown") + "."),
            std::string::npos)
      << log;
  EXPECT_EQ(log.find("is provided by the etxension"), std::string::npos) << log;
  EXPECT_EQ(log.find("Could not find any extension"), std::string::npos) << log;
  EXPECT_EQ(ScriptedExtensionBundle::calls(alphaBundle_), callsBefore);
}

// ---- URLs nobody owns ----

TEST_F(FileCoordination, AURLNoProviderOwnsIsAnsweredWithoutAnyProvider) {
  const std::string elsewhere = daemon_->root() + "/elsewhere";
  fs::create_directories(elsewhere);
  std::ofstream(elsewhere + "/notes.txt") << "plain file\n";
  const std::size_t offset = daemon_->logSize();

  const ClientResult read = ctl(stranger_, {"read", elsewhere + "/notes.txt"});
  EXPECT_EQ(read.exitStatus, 0) << read.standardError;
  EXPECT_EQ(read.standardOutput, "plain file\n");
  EXPECT_EQ(ctl(stranger_, {"coordinate-read", elsewhere + "/missing.txt"}).exitStatus, 0);
  EXPECT_EQ(ctl(stranger_, {"wrote", elsewhere + "/notes.txt"}).exitStatus, 0);

  // Reading a file that is not there fails locally, with the POSIX error.
  const ClientResult missing = ctl(stranger_, {"read", elsewhere + "/missing.txt"}, true);
  EXPECT_EQ(missing.exitStatus, 1);
  EXPECT_EQ(missing.json["error"]["domain"], "posix") << missing.standardOutput;
  EXPECT_EQ(missing.json["error"]["code"], ENOENT);

  const std::string log = daemon_->logSince(offset);
  EXPECT_EQ(log.find("OxFileCoordinator"), std::string::npos) << log;
}

TEST_F(FileCoordination, AURLThatIsNoFileIsAUsageError) {
  const ClientResult result = ctl(stranger_, {"read", "https://example.com/file.txt"});
  EXPECT_EQ(result.exitStatus, 2) << result.standardOutput << result.standardError;
}

// ---- without the daemon ----

TEST(FileCoordinationWithoutDaemon, EveryCommandSaysTheServiceIsNotRunning) {
  DaemonFixture installation;
  ASSERT_TRUE(installation.ready()) << installation.setUpError();
  for (const char* command : {"read", "coordinate-read", "wrote"}) {
    const ClientResult result =
        installation.run(DaemonFixture::kDaskelctl, {command, installation.root() + "/x.txt"});
    EXPECT_EQ(result.exitStatus, 3) << command << ": " << result.standardError;
    EXPECT_NE(result.standardError.find("service com.orvane.FileCoordination is not running"),
              std::string::npos)
        << result.standardError;
  }
}

}  // namespace
}  // namespace daskel
