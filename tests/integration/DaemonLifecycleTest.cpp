// The daemon over time, end to end: grants kept across a restart, the access-control file
// re-read on the first-unlock notification, extensions installed, replaced and removed while
// it runs, and clients held back until the first refresh of the extensions has ended. Each
// test runs its own daskeld on its own temporary installation.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "ScriptedExtensionBundle.h"
#include "helpers/DaemonFixture.h"
#include "platform/plist/PropertyList.h"
#include "platform/url/Url.h"

namespace daskel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;
using platform::Value;
using testing::ClientResult;
using testing::DaemonFixture;
using testing::directoryUrl;
using testing::fileUrl;
using testing::readFile;
using testing::ScriptedExtensionBundle;

constexpr char kReadKey[] = "com.orvane.daskel.acl-read";
constexpr char kWriteKey[] = "com.orvane.daskel.acl-write";
constexpr char kDebugLog[] = "global=7 console=7 file=7";

Value accessControl(const std::string& provider,
                    const std::string& consumer,
                    const std::vector<std::string>& items) {
  Value::Array allowed;
  for (const auto& item : items) {
    allowed.emplace_back(item);
  }
  return Value(Value::Dictionary{
      {provider, Value(Value::Dictionary{
                     {consumer, Value(Value::Dictionary{{"AllowedItemIDs", Value(allowed)}})}})}});
}

// A scripted extension of identifier com.example.e2e.<name>, app group group.<identifier>.
ScriptedExtensionBundle scripted(const std::string& name, const std::string& script = "") {
  ScriptedExtensionBundle bundle;
  bundle.name = name;
  bundle.identifier = "com.example.e2e." + name;
  bundle.group = "group." + bundle.identifier;
  bundle.script = script;
  return bundle;
}

class DaemonLifecycle : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(daemon_.ready()) << daemon_.setUpError(); }

  // A client application with both entitlements.
  std::string addEditor() {
    std::string error;
    const std::string path = daemon_.addClient("editor", "org.e2e.editor",
                                               {{kReadKey, Value(true)}, {kWriteKey, Value(true)}},
                                               DaemonFixture::kDaskelctl, &error);
    EXPECT_FALSE(path.empty()) << error;
    return path;
  }

  ClientResult ctl(const std::string& client, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--json", "--timeout", "30"});
    return daemon_.run(client, arguments);
  }

  static int errorCode(const ClientResult& result) {
    return result.json.is_object() && result.json.contains("error")
               ? result.json["error"].value("code", -1)
               : 0;
  }

  // Asks for the provider list until `accept` takes it or `timeout` passes; the last list.
  json waitForProviders(const std::string& client,
                        const std::function<bool(const json&)>& accept,
                        std::chrono::milliseconds timeout) {
    const auto deadline = DaemonFixture::Clock::now() + timeout;
    json providers;
    do {
      const ClientResult result = ctl(client, {"providers"});
      EXPECT_EQ(result.exitStatus, 0) << result.standardOutput << result.standardError;
      providers = result.json.is_object() ? result.json["result"]["providers"] : json();
      if (accept(providers)) {
        break;
      }
      std::this_thread::sleep_for(20ms);
    } while (DaemonFixture::Clock::now() < deadline);
    return providers;
  }

  DaemonFixture daemon_;
};

TEST_F(DaemonLifecycle, GrantsSurviveARestartOfTheDaemon) {
  // The local-folder example, with a source folder of its own.
  constexpr char kProvider[] = "com.example.daskel.local-folder-provider";
  const std::string staged = daemon_.root() + "/staging/local-folder-provider.dkext";
  ASSERT_TRUE(fs::create_directories(staged + "/Source"));
  fs::copy_file(std::string(DASKEL_E2E_LOCAL_FOLDER_BUNDLE) + "/Info.plist",
                staged + "/Info.plist");
  ASSERT_EQ(::chmod((staged + "/Info.plist").c_str(), 0644), 0);
  ASSERT_EQ(
      ::symlink((std::string(DASKEL_E2E_LOCAL_FOLDER_BUNDLE) + "/local-folder-provider").c_str(),
                (staged + "/local-folder-provider").c_str()),
      0);
  std::ofstream(staged + "/Source/Report.md") << "# Quarterly report\n";
  std::ofstream(staged + "/Source/Other.md") << "not granted\n";
  fs::rename(staged, daemon_.extensionsDirectory() + "/local-folder-provider.dkext");
  const std::string storage = daemon_.storageDirectory("group.com.example.daskel.local-folder");
  const std::string editor = addEditor();

  std::string error;
  ASSERT_TRUE(daemon_.startServing(kDebugLog, &error)) << error;
  ASSERT_EQ(ctl(editor, {"extend-sandbox", storage + "/Report.md", "--provider", kProvider,
                         "--consumer", "org.e2e.editor"})
                .exitStatus,
            0);
  EXPECT_FALSE(fs::exists(storage + "/Report.md")) << "granting must not fetch the item";
  daemon_.stop();
  EXPECT_NE(readFile(daemon_.accessControlFile()).find("<string>Report.md</string>"),
            std::string::npos);

  // Started again, at info level this time.
  ASSERT_TRUE(daemon_.startServing("global=6 console=6 file=6", &error)) << error;
  // The grant answers the way back from a bookmarkable string (the consumer is the caller)...
  const ClientResult document =
      ctl(editor, {"document-url", std::string("daskel:") + kProvider + "/Report.md"});
  EXPECT_EQ(document.exitStatus, 0) << document.standardOutput << document.standardError;
  EXPECT_EQ(document.json["result"]["documentURL"], fileUrl(storage + "/Report.md"));
  // ... and lets the provider copy the file in.
  const ClientResult started = ctl(editor, {"start-providing", storage + "/Report.md", "--provider",
                                            kProvider, "--consumer", "org.e2e.editor"});
  EXPECT_EQ(started.exitStatus, 0) << started.standardOutput << started.standardError;
  EXPECT_EQ(readFile(storage + "/Report.md"), "# Quarterly report\n");
  // An item never granted is still refused.
  const ClientResult refused = ctl(editor, {"start-providing", storage + "/Other.md", "--provider",
                                            kProvider, "--consumer", "org.e2e.editor"});
  EXPECT_EQ(errorCode(refused), 4) << refused.standardOutput;
  EXPECT_FALSE(fs::exists(storage + "/Other.md"));

  const std::string log = daemon_.log();
  EXPECT_NE(log.find(std::string(DaemonFixture::kDaskeld) + " starting."), std::string::npos)
      << log;
  EXPECT_NE(log.find("Successfully read access control from disk."), std::string::npos) << log;
  EXPECT_NE(log.find("New connection accepted."), std::string::npos) << log;
  // Debug lines are not written at info level.
  EXPECT_EQ(log.find("Debug logging enabled."), std::string::npos) << log;
  EXPECT_EQ(log.find("Serving: "), std::string::npos) << log;
}

TEST_F(DaemonLifecycle, FirstUnlockNotificationMakesTheDaemonRereadTheAccessControlFile) {
  const ScriptedExtensionBundle alpha = scripted("alpha");
  std::string error;
  const std::string bundle = daemon_.installExtension(alpha, &error);
  ASSERT_FALSE(bundle.empty()) << error;
  const std::string editor = addEditor();
  const std::string item = daemon_.storageDirectory(alpha.group) + "/Notes/plan.txt";
  const std::vector<std::string> start = {"start-providing", item,         "--provider",
                                          alpha.identifier,  "--consumer", "org.e2e.viewer"};
  ASSERT_TRUE(daemon_.startServing(kDebugLog, &error)) << error;
  EXPECT_EQ(errorCode(ctl(editor, start)), 4);

  // Granted behind the daemon's back: nothing changes until the notification comes.
  ASSERT_TRUE(platform::writePropertyListAtomically(
      accessControl(alpha.identifier, "org.e2e.viewer", {"Notes/plan.txt"}),
      daemon_.accessControlFile()));
  EXPECT_EQ(errorCode(ctl(editor, start)), 4);

  const auto rereadAfterNotification = [&] {
    const std::size_t before = daemon_.logSize();
    const ClientResult posted = ctl(editor, {"post-notification", "com.orvane.first-unlock"});
    EXPECT_EQ(posted.exitStatus, 0) << posted.standardOutput << posted.standardError;
    EXPECT_TRUE(daemon_.waitForLog("Successfully read access control from disk.", before, 20s))
        << daemon_.logSince(before);
  };
  rereadAfterNotification();
  const ClientResult granted = ctl(editor, start);
  EXPECT_EQ(granted.exitStatus, 0) << granted.standardOutput << granted.standardError;
  EXPECT_EQ(ScriptedExtensionBundle::calls(bundle).back(), "startProviding " + fileUrl(item));

  // Revoked behind its back: refused again after the next notification.
  ASSERT_TRUE(platform::writePropertyListAtomically(Value(Value::Dictionary{}),
                                                    daemon_.accessControlFile()));
  rereadAfterNotification();
  EXPECT_EQ(errorCode(ctl(editor, start)), 4);
}

TEST_F(DaemonLifecycle, ExtensionsInstalledReplacedAndRemovedWhileRunningShowInTheProviderList) {
  const ScriptedExtensionBundle alpha = scripted("alpha");
  std::string error;
  ASSERT_FALSE(daemon_.installExtension(alpha, &error).empty()) << error;
  const std::string editor = addEditor();
  ASSERT_TRUE(daemon_.startServing(kDebugLog, &error)) << error;

  const json alphaInfo = {
      {"documentStorageURL", directoryUrl(daemon_.storageDirectory(alpha.group))},
      {"providerIdentifier", alpha.identifier}};
  const auto betaInfo = [&](const std::string& group) {
    return json{{"documentStorageURL", directoryUrl(daemon_.storageDirectory(group))},
                {"providerIdentifier", "com.example.e2e.beta"}};
  };
  const auto bookmark = [&](const std::string& path) {
    const ClientResult result = ctl(editor, {"bookmarkable-string", path});
    EXPECT_EQ(result.exitStatus, 0) << result.standardOutput << result.standardError;
    return result.json.is_object() ? result.json["result"]["bookmarkableString"] : json();
  };
  EXPECT_EQ(waitForProviders(
                editor, [](const json&) { return true; }, 0ms),
            json({{alpha.identifier, alphaInfo}}));

  // Installed.
  ScriptedExtensionBundle beta = scripted("beta");
  beta.group = "group.com.example.e2e.beta-1";
  std::size_t before = daemon_.logSize();
  const std::string betaBundle = daemon_.installExtension(beta, &error);
  ASSERT_FALSE(betaBundle.empty()) << error;
  const json withBeta1 = {{alpha.identifier, alphaInfo}, {beta.identifier, betaInfo(beta.group)}};
  EXPECT_EQ(waitForProviders(
                editor, [&](const json& p) { return p == withBeta1; }, 20s),
            withBeta1);
  EXPECT_TRUE(daemon_.waitForLog("Registered daskel extension com.example.e2e.beta", before, 20s))
      << daemon_.logSince(before);
  const std::string oldItem = daemon_.storageDirectory(beta.group) + "/x.txt";
  EXPECT_EQ(bookmark(oldItem), "daskel:com.example.e2e.beta/x.txt");

  // Replaced: a new Info.plist with another app group, so another storage directory.
  beta.group = "group.com.example.e2e.beta-2";
  before = daemon_.logSize();
  ASSERT_TRUE(daemon_.replaceInfoPlist(betaBundle, beta.infoDictionary(), &error)) << error;
  const json withBeta2 = {{alpha.identifier, alphaInfo}, {beta.identifier, betaInfo(beta.group)}};
  EXPECT_EQ(waitForProviders(
                editor, [&](const json& p) { return p == withBeta2; }, 20s),
            withBeta2);
  EXPECT_TRUE(daemon_.waitForLog("Registered daskel extension com.example.e2e.beta", before, 20s))
      << daemon_.logSince(before);
  EXPECT_EQ(bookmark(daemon_.storageDirectory(beta.group) + "/y.txt"),
            "daskel:com.example.e2e.beta/y.txt");
  EXPECT_EQ(bookmark(oldItem), nullptr) << "the old storage directory still resolves";

  // Removed.
  ASSERT_TRUE(daemon_.removeExtension(betaBundle, &error)) << error;
  const json alphaOnly = {{alpha.identifier, alphaInfo}};
  EXPECT_EQ(waitForProviders(
                editor, [&](const json& p) { return p == alphaOnly; }, 20s),
            alphaOnly);
  EXPECT_EQ(bookmark(daemon_.storageDirectory(beta.group) + "/y.txt"), nullptr);
}

TEST_F(DaemonLifecycle,
       ClientConnectingDuringTheFirstRefreshIsServedOnlyAfterEveryRegistrationEnded) {
  // Registration tries three times, 2 seconds apart: "slow" succeeds at its third try,
  // "broken" never does. Registrations run one after another.
  const auto slow =
      scripted("slow", "performInitialSetup fail-first 2 com.example.e2e 7 Not yet.\n");
  const auto broken = scripted("broken", "performInitialSetup error com.example.e2e 8 Never.\n");
  std::string error;
  ASSERT_FALSE(daemon_.installExtension(slow, &error).empty()) << error;
  ASSERT_FALSE(daemon_.installExtension(broken, &error).empty()) << error;
  const std::string stranger = daemon_.addClient("stranger", std::nullopt, {});
  ASSERT_FALSE(stranger.empty());

  ASSERT_TRUE(daemon_.start(kDebugLog, &error)) << error;
  ASSERT_TRUE(daemon_.waitForLog("Updating provider list.", 0, 20s)) << daemon_.log();
  std::string output;
  auto client = daemon_.launch(stranger, {"--json", "--timeout", "60", "wake-up"}, &output, &error);
  ASSERT_TRUE(client.has_value()) << error;
  // The first registration needs two retries 2 seconds apart; none can have ended yet.
  const std::string logAtConnect = daemon_.log();
  ASSERT_EQ(logAtConnect.find("Registered daskel extension"), std::string::npos) << logAtConnect;
  ASSERT_EQ(logAtConnect.find("Could not register daskel"), std::string::npos) << logAtConnect;

  const ClientResult result = daemon_.finish(*client, output, 60s);
  EXPECT_EQ(result.exitStatus, 0) << result.standardOutput << result.standardError;
  const std::string log = daemon_.log();
  const auto registered = log.find("Registered daskel extension com.example.e2e.slow");
  const auto failed = log.find("Could not register daskel com.example.e2e.broken");
  const auto accepted = log.find("New connection accepted.");
  const auto served = log.find("Serving: wakeUpCompletion:");
  ASSERT_NE(registered, std::string::npos) << log;
  ASSERT_NE(failed, std::string::npos) << log;
  ASSERT_NE(served, std::string::npos) << log;
  EXPECT_GT(accepted, std::max(registered, failed)) << log;
  EXPECT_GT(served, std::max(registered, failed)) << log;
  // The retries were real: each extension was told "again" twice.
  for (const char* identifier : {"com.example.e2e.slow", "com.example.e2e.broken"}) {
    for (const char* left : {"Tries left: 2", "Tries left: 1"}) {
      EXPECT_NE(log.find(std::string("Trying to register daskel extension ") + identifier +
                         " again. " + left),
                std::string::npos)
          << identifier << " " << left << "\n"
          << log;
    }
  }
}

TEST_F(DaemonLifecycle, NoClientIsServedWhileAnExtensionNeverAnswersItsInitialSetUp) {
  const auto silent = scripted("silent", "performInitialSetup never-answer\n");
  std::string error;
  const std::string bundle = daemon_.installExtension(silent, &error);
  ASSERT_FALSE(bundle.empty()) << error;
  const std::string stranger = daemon_.addClient("stranger", std::nullopt, {});
  ASSERT_FALSE(stranger.empty());

  ASSERT_TRUE(daemon_.start(kDebugLog, &error)) << error;
  // Wait until the set-up request has reached the extension, so the client below surely
  // connects while it is outstanding.
  const auto deadline = DaemonFixture::Clock::now() + 20s;
  while (ScriptedExtensionBundle::calls(bundle).empty() && DaemonFixture::Clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  ASSERT_EQ(ScriptedExtensionBundle::calls(bundle),
            std::vector<std::string>{"performInitialSetup"});

  const ClientResult result = daemon_.run(stranger, {"--json", "--timeout", "2", "wake-up"});
  EXPECT_EQ(result.exitStatus, 4) << result.standardOutput << result.standardError;
  const std::string log = daemon_.log();
  EXPECT_EQ(log.find("New connection accepted."), std::string::npos) << log;
  EXPECT_EQ(log.find("Serving: "), std::string::npos) << log;
}

}  // namespace
}  // namespace daskel
