// The eight operations of the daemon's client protocol, end to end: the real daskeld on a
// temporary installation, real extension processes (the scripted test extension) and real
// client processes, each a copy of daskelctl (or of daemon_raw_client, for nil arguments)
// registered as an application of its own with its own entitlements. Replies are read from
// `daskelctl --json`; what reached an extension is read from its call log; grants from the
// access-control file.
//
// One daemon serves the whole suite (starting one costs more than most tests); each test
// uses item names and consumer identifiers of its own, so the grants of one never answer
// for another.
#include <sys/types.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
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

constexpr char kAlpha[] = "com.example.e2e.alpha";
constexpr char kRefusing[] = "com.example.e2e.refusing";
constexpr char kFailing[] = "com.example.e2e.failing";
// Granted in the access-control file, never installed.
constexpr char kGone[] = "com.example.e2e.gone";
constexpr char kUnknown[] = "com.example.e2e.unknown";

constexpr char kStartSelector[] =
    "startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:";
constexpr char kStopSelector[] =
    "stopProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:";
constexpr char kPlaceholderSelector[] =
    "providePlaceholderForItemAtURL:fromProviderID:forConsumerID:completionHandler:";
constexpr char kExtendSelector[] =
    "extendSandboxForFileURL:fromProviderID:toConsumerID:completionHandler:";
constexpr char kProvidersSelector[] = "providersCompletionHandler:";

// The errors the scripted extensions answer with.
const json kNotKnownHere = {{"domain", "com.example.e2e"},
                            {"code", 41},
                            {"userInfo", {{"description", "The item is not known here."}}}};
const json kStorageOffline = {{"domain", "com.example.e2e"},
                              {"code", 42},
                              {"userInfo", {{"description", "The storage is offline."}}}};

struct Client {
  std::string path;
  std::string bundleIdentifier;  // "" when no manifest names the program
};

// A Daskel error as a comparable shape: domain, code and userInfo without the readable
// description (its wording is the error constructors' business), nested errors likewise.
// Errors of other domains (the extensions') keep their description: it is what they sent.
json errorShape(const json& error) {
  if (!error.is_object() || !error.contains("domain")) {
    return error;
  }
  json shape = {{"domain", error["domain"]}, {"code", error["code"]}};
  json userInfo = json::object();
  const bool ours = error["domain"] == "com.orvane.Daskel";
  const json info = error.value("userInfo", json::object());
  for (const auto& [key, value] : info.items()) {
    if (ours && key == "description") {
      continue;
    }
    userInfo[key] = errorShape(value);
  }
  shape["userInfo"] = userInfo;
  return shape;
}

json daskelError(int code, json userInfo = json::object()) {
  return {{"domain", "com.orvane.Daskel"}, {"code", code}, {"userInfo", userInfo}};
}

json lacksEntitlement() {
  return daskelError(1);
}
json invalidParameter(const std::string& name) {
  return daskelError(2, {{"parameter", name}});
}
json notFound(const std::string& provider) {
  return daskelError(3, {{"providerIdentifier", provider}});
}
json notPermitted() {
  return daskelError(4);
}
json invalidBookmarkableString() {
  return daskelError(5);
}
json pluginFailed(const json& underlying) {
  return daskelError(8, {{"underlyingError", underlying}});
}

class DaemonOperations : public ::testing::Test {
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
    logStart_ = daemon_->logSize();
    for (const std::string& bundle : {alphaBundle_, refusingBundle_, failingBundle_}) {
      callsAtStart_[bundle] = ScriptedExtensionBundle::calls(bundle).size();
    }
  }

  // Installs the extensions and clients, seeds the access-control file, starts the daemon;
  // returns what failed, "" when all is well.
  static std::string layOut() {
    if (!daemon_->ready()) {
      return daemon_->setUpError();
    }
    std::string error;
    ScriptedExtensionBundle alpha;
    alpha.name = "Alpha";
    alpha.identifier = kAlpha;
    alpha.group = "group.com.example.e2e.alpha";
    ScriptedExtensionBundle refusing;
    refusing.name = "Refusing";
    refusing.identifier = kRefusing;
    refusing.group = "group.com.example.e2e.refusing";
    refusing.script = "identifierForItem error com.example.e2e 41 The item is not known here.\n";
    ScriptedExtensionBundle failing;
    failing.name = "Failing";
    failing.identifier = kFailing;
    failing.group = "group.com.example.e2e.failing";
    failing.script =
        "providePlaceholder error com.example.e2e 42 The storage is offline.\n"
        "startProviding error com.example.e2e 42 The storage is offline.\n"
        "stopProviding error com.example.e2e 42 The storage is offline.\n"
        "urlForItemIdentifier error com.example.e2e 42 The storage is offline.\n";
    for (auto [bundle, path] :
         {std::pair{&alpha, &alphaBundle_}, std::pair{&refusing, &refusingBundle_},
          std::pair{&failing, &failingBundle_}}) {
      *path = daemon_->installExtension(*bundle, &error);
      if (path->empty()) {
        return error;
      }
      storage_[bundle->identifier] = daemon_->storageDirectory(bundle->group);
    }

    const Value yes(true);
    const Value no(false);
    const std::vector<std::tuple<std::string, std::string, Value::Dictionary, std::string>>
        clients = {
            {"stranger", "", {}, DaemonFixture::kDaskelctl},
            {"reader", "org.e2e.reader", {{kReadKey, yes}}, DaemonFixture::kDaskelctl},
            {"writer", "org.e2e.writer", {{kWriteKey, yes}}, DaemonFixture::kDaskelctl},
            {"stringy", "org.e2e.stringy", {{kReadKey, Value("yes")}}, DaemonFixture::kDaskelctl},
            {"second-key",
             "org.e2e.second-key",
             {{kReadKey, no}, {kWriteKey, yes}},
             DaemonFixture::kDaskelctl},
            {"denied",
             "org.e2e.denied",
             {{kReadKey, no}, {kWriteKey, no}},
             DaemonFixture::kDaskelctl},
            {"raw", "org.e2e.raw", {{kReadKey, yes}, {kWriteKey, yes}}, DASKEL_E2E_RAW_CLIENT},
            {"raw-stranger", "", {}, DASKEL_E2E_RAW_CLIENT},
        };
    for (const auto& [name, bundleIdentifier, entitlements, program] : clients) {
      std::optional<std::string> identifier;
      if (!bundleIdentifier.empty()) {
        identifier = bundleIdentifier;
      }
      const std::string path = daemon_->addClient(name, identifier, entitlements, program, &error);
      if (path.empty()) {
        return error;
      }
      clients_[name] = Client{path, bundleIdentifier};
    }

    // A grant whose provider is not installed: the way back from a bookmarkable string has
    // nobody to ask.
    fs::create_directories(fs::path(daemon_->accessControlFile()).parent_path());
    const Value seeded(Value::Dictionary{
        {kGone, Value(Value::Dictionary{
                    {"org.e2e.writer",
                     Value(Value::Dictionary{
                         {"AllowedItemIDs", Value(Value::Array{Value("lost.txt")})}})}})}});
    if (auto written = platform::writePropertyListAtomically(seeded, daemon_->accessControlFile());
        !written) {
      return written.error()->description();
    }
    if (!daemon_->startServing("global=7 console=7 file=7", &error)) {
      return error;
    }
    return {};
  }

  static const Client& client(const std::string& name) { return clients_.at(name); }
  static std::string storage(const std::string& provider) { return storage_.at(provider); }
  static std::string itemUrl(const std::string& provider, const std::string& relative) {
    return fileUrl(storage(provider) + "/" + relative);
  }

  // Runs daskelctl (a copy) with --json.
  ClientResult ctl(const std::string& clientName, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--json", "--timeout", "30"});
    return daemon_->run(client(clientName).path, arguments);
  }

  // Runs daemon_raw_client; the reply's values are result.json["reply"].
  ClientResult raw(const std::string& clientName, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--timeout", "30"});
    return daemon_->run(client(clientName).path, arguments);
  }

  // Whether `line` is in the call log of `bundle` since this test began.
  bool called(const std::string& bundle, const std::string& line) const {
    const auto lines = ScriptedExtensionBundle::calls(bundle);
    const std::size_t start = std::min(callsAtStart_.at(bundle), lines.size());
    return std::find(lines.begin() + static_cast<std::ptrdiff_t>(start), lines.end(), line) !=
           lines.end();
  }

  // The item identifiers granted to `consumer` by `provider` in the access-control file.
  static std::vector<std::string> grantedItems(const std::string& provider,
                                               const std::string& consumer) {
    std::vector<std::string> items;
    auto list = platform::readPropertyListFile(daemon_->accessControlFile());
    if (!list) {
      return items;
    }
    const Value* byConsumer = list->find(provider);
    const Value* entry = byConsumer ? byConsumer->find(consumer) : nullptr;
    const Value* allowed = entry ? entry->find("AllowedItemIDs") : nullptr;
    if (allowed && allowed->array()) {
      for (const Value& item : *allowed->array()) {
        if (item.string()) {
          items.push_back(*item.string());
        }
      }
    }
    return items;
  }

  std::string logSinceTestStart() const { return daemon_->logSince(logStart_); }

  // Checks a failed daskelctl run: exit status 1, the error's shape and the result's values.
  static void expectFailure(const ClientResult& result, const json& error, const json& values) {
    ASSERT_TRUE(result.json.is_object())
        << "no JSON from the client: " << result.standardOutput << result.standardError;
    EXPECT_EQ(result.exitStatus, 1) << result.json.dump(2);
    EXPECT_EQ(result.json["ok"], false);
    EXPECT_EQ(result.json["exitStatus"], 1);
    EXPECT_EQ(errorShape(result.json["error"]), error) << result.json.dump(2);
    EXPECT_EQ(result.json["result"], values) << result.json.dump(2);
    if (result.json["error"].value("domain", "") == "com.orvane.Daskel") {
      EXPECT_FALSE(result.json["error"].value("description", "").empty())
          << "a Daskel error without a readable description";
    }
  }

  static void expectSuccess(const ClientResult& result,
                            const std::string& command,
                            const json& values) {
    EXPECT_EQ(result.exitStatus, 0) << result.standardOutput << result.standardError;
    EXPECT_EQ(result.json,
              json({{"command", command}, {"ok", true}, {"exitStatus", 0}, {"result", values}}))
        << result.standardOutput << result.standardError;
  }

  // The reply of daemon_raw_client: a JSON array of the reply's values.
  static json rawReply(const ClientResult& result) {
    EXPECT_EQ(result.exitStatus, 0) << result.standardOutput << result.standardError;
    if (!result.json.is_object() || !result.json.contains("reply")) {
      return nullptr;
    }
    json reply = result.json["reply"];
    for (auto& value : reply) {
      value = errorShape(value);
    }
    return reply;
  }

  // The entitlement gate of one operation: the refused callers get ClientLacksEntitlement
  // (and `refusedValues`), with a rejection line naming their PID and the keys; the admitted
  // ones get past it to `admittedError` (nullptr: success with `admittedValues`). The keys
  // asked for are the write key, after the read key when `bothKeys`.
  void expectGate(const std::string& command,
                  const std::string& selector,
                  const std::vector<std::string>& arguments,
                  const std::set<std::string>& admitted,
                  bool bothKeys,
                  const json& refusedValues,
                  const json& admittedError,
                  const json& admittedValues) {
    for (const std::string name :
         {"stranger", "reader", "writer", "stringy", "second-key", "denied"}) {
      SCOPED_TRACE("client " + name);
      const std::size_t before = daemon_->logSize();
      std::vector<std::string> commandLine{command};
      commandLine.insert(commandLine.end(), arguments.begin(), arguments.end());
      const ClientResult result = ctl(name, commandLine);
      const std::string log = daemon_->logSince(before);
      EXPECT_NE(log.find("New connection accepted."), std::string::npos) << log;
      EXPECT_NE(log.find("Serving: " + selector), std::string::npos) << log;
      const std::string rejection = "Rejecting request from PID " + std::to_string(result.pid) +
                                    " because it does not have any of these entitlements: ";
      const auto line = log.find(rejection);
      if (admitted.contains(name)) {
        EXPECT_EQ(line, std::string::npos) << log;
        if (admittedError.is_null()) {
          expectSuccess(result, command, admittedValues);
        } else {
          expectFailure(result, admittedError, admittedValues);
        }
      } else {
        expectFailure(result, lacksEntitlement(), refusedValues);
        ASSERT_NE(line, std::string::npos) << log;
        // The keys asked for, in their order, and no other.
        const std::string keyList =
            log.substr(line + rejection.size(), log.find('\n', line) - line - rejection.size());
        const auto read = keyList.find(kReadKey);
        const auto write = keyList.find(kWriteKey);
        EXPECT_NE(write, std::string::npos) << keyList;
        if (bothKeys) {
          EXPECT_LT(read, write) << keyList;
        } else {
          EXPECT_EQ(read, std::string::npos) << keyList;
        }
      }
    }
  }

  static inline DaemonFixture* daemon_ = nullptr;
  static inline std::string setUpError_;
  static inline std::string alphaBundle_;
  static inline std::string refusingBundle_;
  static inline std::string failingBundle_;
  static inline std::map<std::string, Client> clients_;
  static inline std::map<std::string, std::string> storage_;
  std::size_t logStart_ = 0;
  std::map<std::string, std::size_t> callsAtStart_;
};

const json kNoSandboxValues = {{"token", nullptr},
                               {"placeholderURL", nullptr},
                               {"placeholderToken", nullptr}};
constexpr bool kBothKeys = true;
constexpr bool kWriteKeyOnly = false;

TEST_F(DaemonOperations, WakeUpIsAnsweredForEveryCallerEvenWithoutEntitlements) {
  for (const std::string name : {"stranger", "denied", "reader"}) {
    SCOPED_TRACE("client " + name);
    const std::size_t before = daemon_->logSize();
    const ClientResult result = ctl(name, {"wake-up"});
    expectSuccess(result, "wake-up", json::object());
    const std::string log = daemon_->logSince(before);
    EXPECT_NE(log.find("New connection accepted."), std::string::npos) << log;
    EXPECT_NE(log.find("Serving: wakeUpCompletion:"), std::string::npos) << log;
    EXPECT_EQ(log.find("Rejecting request"), std::string::npos) << log;
  }
}

TEST_F(DaemonOperations, ExtendSandboxRecordsTheGrantAndIssuesTokensOnlyForWriteEntitledCallers) {
  const std::string gateItem = itemUrl(kAlpha, "extend/gate.txt");
  expectGate("extend-sandbox", kExtendSelector,
             {gateItem, "--provider", kUnknown, "--consumer", "org.e2e.extend"},
             {"writer", "second-key"}, kWriteKeyOnly, kNoSandboxValues, notFound(kUnknown),
             kNoSandboxValues);
  // Neither the refused requests nor the unknown provider reached an extension.
  EXPECT_FALSE(called(alphaBundle_, "identifierForItem " + gateItem));

  // Nil arguments: the first missing one is named, in the order URL, provider, consumer.
  const std::string item = itemUrl(kAlpha, "extend/q3 report.txt");
  EXPECT_EQ(rawReply(raw("raw", {kExtendSelector, "nil", "nil", "string:org.e2e.extend"})),
            json({invalidParameter("URL"), nullptr, nullptr, nullptr}));
  EXPECT_EQ(rawReply(raw("raw", {kExtendSelector, "url:" + item, "nil", "string:org.e2e.extend"})),
            json({invalidParameter("providerID"), nullptr, nullptr, nullptr}));
  EXPECT_EQ(rawReply(raw("raw",
                         {kExtendSelector, "url:" + item, std::string("string:") + kAlpha, "nil"})),
            json({invalidParameter("consumerID"), nullptr, nullptr, nullptr}));
  EXPECT_FALSE(called(alphaBundle_, "identifierForItem " + item));

  // A URL outside the provider's storage, and the storage directory itself: the provider is
  // found by its identifier and asked, and the SDK refuses to name such an item. Its refusal
  // comes back wrapped twice (once by the forward, once by the request).
  const std::string outside = fileUrl(daemon_->root() + "/elsewhere/q3.txt");
  const std::string directory = directoryUrl(storage(kAlpha));
  for (const std::string& url : {outside, directory}) {
    SCOPED_TRACE(url);
    const ClientResult result = ctl(
        "writer", {"extend-sandbox", url, "--provider", kAlpha, "--consumer", "org.e2e.extend"});
    ASSERT_TRUE(result.json.is_object()) << result.standardOutput << result.standardError;
    const json shape = errorShape(result.json["error"]);
    EXPECT_EQ(shape["code"], 8) << shape.dump(2);
    EXPECT_EQ(shape["userInfo"]["underlyingError"]["code"], 8) << shape.dump(2);
    EXPECT_NE(shape["userInfo"]["underlyingError"]["userInfo"]["underlyingError"]["domain"],
              "com.orvane.Daskel")
        << "the innermost error should be the extension's own: " << shape.dump(2);
    EXPECT_EQ(result.json["result"], kNoSandboxValues);
    EXPECT_TRUE(called(alphaBundle_, "identifierForItem " + url));
  }
  EXPECT_TRUE(grantedItems(kAlpha, "org.e2e.extend").empty());

  // The extension's own error, wrapped twice; nothing is granted.
  const std::string refused = itemUrl(kRefusing, "extend/secret.txt");
  expectFailure(ctl("writer", {"extend-sandbox", refused, "--provider", kRefusing, "--consumer",
                               "org.e2e.extend"}),
                pluginFailed(pluginFailed(kNotKnownHere)), kNoSandboxValues);
  EXPECT_TRUE(called(refusingBundle_, "identifierForItem " + refused));
  EXPECT_TRUE(grantedItems(kRefusing, "org.e2e.extend").empty());

  // Success: the grant is in the file, the tokens are for the file and its placeholder.
  const std::size_t before = daemon_->logSize();
  const ClientResult granted = ctl(
      "second-key", {"extend-sandbox", item, "--provider", kAlpha, "--consumer", "org.e2e.extend"});
  ASSERT_EQ(granted.exitStatus, 0) << granted.standardOutput << granted.standardError;
  EXPECT_TRUE(called(alphaBundle_, "identifierForItem " + item));
  EXPECT_EQ(grantedItems(kAlpha, "org.e2e.extend"),
            std::vector<std::string>{"extend/q3 report.txt"});
  const json& values = granted.json["result"];
  const std::string placeholder = storage(kAlpha) + "/extend/.q3 report.txt";
  EXPECT_EQ(values["placeholderURL"], fileUrl(placeholder)) << values.dump(2);
  for (const auto& [key, path] : {std::pair{"token", storage(kAlpha) + "/extend/q3 report.txt"},
                                  std::pair{"placeholderToken", placeholder}}) {
    SCOPED_TRACE(key);
    ASSERT_TRUE(values[key].is_string()) << values.dump(2);
    const ClientResult verified = ctl("stranger", {"verify-token", values[key].get<std::string>()});
    expectSuccess(verified, "verify-token",
                  {{"accessClass", "read-write"},
                   {"issueTime", verified.json["result"]["issueTime"]},
                   {"path", path}});
  }
  EXPECT_NE(
      daemon_->logSince(before).find(
          "Allowing provider ID com.example.e2e.alpha to provide item ID extend/q3 report.txt "
          "to consumer ID org.e2e.extend"),
      std::string::npos)
      << daemon_->logSince(before);
}

TEST_F(DaemonOperations, ProvidePlaceholderReportsItsOwnRefusalsAndWritesOnlyGrantedPlaceholders) {
  expectGate("provide-placeholder", kPlaceholderSelector,
             {itemUrl(kAlpha, "placeholder/gate.txt"), "--provider", kUnknown, "--consumer",
              "org.e2e.placeholder"},
             {"reader", "writer", "second-key"}, kBothKeys, json::object(), notFound(kUnknown),
             json::object());

  // Its refusals are passed on as they are (no masking as not-found).
  const std::string item = itemUrl(kAlpha, "placeholder/Notes/plan.txt");
  const std::string provider = std::string("string:") + kAlpha;
  EXPECT_EQ(rawReply(raw("raw", {kPlaceholderSelector, "nil", provider, "string:c"})),
            json({invalidParameter("URL")}));
  EXPECT_EQ(rawReply(raw("raw", {kPlaceholderSelector, "url:" + item, "nil", "string:c"})),
            json({invalidParameter("providerID")}));
  EXPECT_EQ(rawReply(raw("raw", {kPlaceholderSelector, "url:" + item, provider, "nil"})),
            json({invalidParameter("consumerID")}));

  // The provider is looked up by identifier only; a URL outside its storage (or the storage
  // directory itself) goes to it, and its refusal comes back wrapped twice.
  for (const std::string& url :
       {fileUrl(storage(kRefusing) + "/placeholder/x.txt"), directoryUrl(storage(kAlpha))}) {
    SCOPED_TRACE(url);
    const ClientResult result = ctl("reader", {"provide-placeholder", url, "--provider", kAlpha,
                                               "--consumer", "org.e2e.placeholder"});
    ASSERT_TRUE(result.json.is_object()) << result.standardOutput << result.standardError;
    const json shape = errorShape(result.json["error"]);
    EXPECT_EQ(shape["code"], 8) << shape.dump(2);
    EXPECT_EQ(shape["userInfo"]["underlyingError"]["code"], 8) << shape.dump(2);
    EXPECT_TRUE(called(alphaBundle_, "identifierForItem " + url));
    EXPECT_FALSE(called(alphaBundle_, "providePlaceholder " + url));
  }
  expectFailure(ctl("reader", {"provide-placeholder", itemUrl(kRefusing, "placeholder/y.txt"),
                               "--provider", kRefusing, "--consumer", "org.e2e.placeholder"}),
                pluginFailed(pluginFailed(kNotKnownHere)), json::object());

  // Not granted: the item is identified, the placeholder is not asked for.
  expectFailure(ctl("reader", {"provide-placeholder", item, "--provider", kAlpha, "--consumer",
                               "org.e2e.placeholder"}),
                notPermitted(), json::object());
  EXPECT_TRUE(called(alphaBundle_, "identifierForItem " + item));
  EXPECT_FALSE(called(alphaBundle_, "providePlaceholder " + item));
  const std::string placeholderFile = storage(kAlpha) + "/placeholder/Notes/.plan.txt";
  EXPECT_FALSE(fs::exists(placeholderFile));

  // Granted: forwarded; the SDK's default writes the placeholder file.
  ASSERT_EQ(ctl("writer",
                {"extend-sandbox", item, "--provider", kAlpha, "--consumer", "org.e2e.placeholder"})
                .exitStatus,
            0);
  expectSuccess(ctl("reader", {"provide-placeholder", item, "--provider", kAlpha, "--consumer",
                               "org.e2e.placeholder"}),
                "provide-placeholder", json::object());
  EXPECT_TRUE(called(alphaBundle_, "providePlaceholder " + item));
  EXPECT_TRUE(fs::exists(placeholderFile));
  // Another consumer still has no grant for it.
  expectFailure(ctl("reader", {"provide-placeholder", item, "--provider", kAlpha, "--consumer",
                               "org.e2e.other"}),
                notPermitted(), json::object());

  // Granted, but the extension fails: its error, wrapped once by the forward.
  const std::string failingItem = itemUrl(kFailing, "placeholder/z.txt");
  ASSERT_EQ(ctl("writer", {"extend-sandbox", failingItem, "--provider", kFailing, "--consumer",
                           "org.e2e.placeholder"})
                .exitStatus,
            0);
  expectFailure(ctl("reader", {"provide-placeholder", failingItem, "--provider", kFailing,
                               "--consumer", "org.e2e.placeholder"}),
                pluginFailed(kStorageOffline), json::object());
  EXPECT_TRUE(called(failingBundle_, "providePlaceholder " + failingItem));
}

TEST_F(DaemonOperations, StartProvidingAnswersEveryRefusalAsNotFoundAndForwardsOnlyGrantedItems) {
  expectGate(
      "start-providing", kStartSelector,
      {itemUrl(kAlpha, "start/gate.txt"), "--provider", kUnknown, "--consumer", "org.e2e.start"},
      {"reader", "writer", "second-key"}, kBothKeys, json::object(), notFound(kUnknown),
      json::object());

  // Missing arguments are masked as not-found with the provider identifier (none if that is
  // what is missing).
  const std::string item = itemUrl(kAlpha, "start/Reports/q3.txt");
  const std::string provider = std::string("string:") + kAlpha;
  EXPECT_EQ(rawReply(raw("raw", {kStartSelector, "nil", provider, "string:c"})),
            json({notFound(kAlpha)}));
  EXPECT_EQ(rawReply(raw("raw", {kStartSelector, "url:" + item, "nil", "string:c"})),
            json({daskelError(3)}));
  EXPECT_EQ(rawReply(raw("raw", {kStartSelector, "url:" + item, provider, "nil"})),
            json({notFound(kAlpha)}));

  // No provider holds the URL, or another one does, or it is exactly a storage directory:
  // not found, and no extension is asked.
  const std::string outside = fileUrl(daemon_->root() + "/elsewhere/start.txt");
  const std::string others = itemUrl(kRefusing, "start/q3.txt");
  const std::string directory = directoryUrl(storage(kAlpha));
  for (const std::string& url : {outside, others, directory}) {
    SCOPED_TRACE(url);
    expectFailure(ctl("reader", {"start-providing", url, "--provider", kAlpha, "--consumer",
                                 "org.e2e.start"}),
                  notFound(kAlpha), json::object());
    EXPECT_FALSE(called(alphaBundle_, "identifierForItem " + url));
    EXPECT_FALSE(called(refusingBundle_, "identifierForItem " + url));
  }
  EXPECT_NE(
      logSinceTestStart().find("Ignoring URLs that exactly match the document container folder"),
      std::string::npos);
  // The provider is known but the URL names another.
  expectFailure(ctl("reader", {"start-providing", item, "--provider", kUnknown, "--consumer",
                               "org.e2e.start"}),
                notFound(kUnknown), json::object());

  // The extension cannot name the item: its error, wrapped twice.
  expectFailure(ctl("reader", {"start-providing", itemUrl(kRefusing, "start/y.txt"), "--provider",
                               kRefusing, "--consumer", "org.e2e.start"}),
                pluginFailed(pluginFailed(kNotKnownHere)), json::object());

  // Not granted; then granted.
  expectFailure(
      ctl("reader", {"start-providing", item, "--provider", kAlpha, "--consumer", "org.e2e.start"}),
      notPermitted(), json::object());
  EXPECT_TRUE(called(alphaBundle_, "identifierForItem " + item));
  EXPECT_FALSE(called(alphaBundle_, "startProviding " + item));
  ASSERT_EQ(
      ctl("writer", {"extend-sandbox", item, "--provider", kAlpha, "--consumer", "org.e2e.start"})
          .exitStatus,
      0);
  const std::size_t before = daemon_->logSize();
  expectSuccess(ctl("second-key",
                    {"start-providing", item, "--provider", kAlpha, "--consumer", "org.e2e.start"}),
                "start-providing", json::object());
  EXPECT_TRUE(called(alphaBundle_, "startProviding " + item));
  EXPECT_NE(daemon_->logSince(before).find(
                "-[DKExtensionProvider startProvidingItemAtURL:completionHandler:]"),
            std::string::npos);

  // Granted, and the extension fails: its error, wrapped once.
  const std::string failingItem = itemUrl(kFailing, "start/z.txt");
  ASSERT_EQ(ctl("writer", {"extend-sandbox", failingItem, "--provider", kFailing, "--consumer",
                           "org.e2e.start"})
                .exitStatus,
            0);
  expectFailure(ctl("reader", {"start-providing", failingItem, "--provider", kFailing, "--consumer",
                               "org.e2e.start"}),
                pluginFailed(kStorageOffline), json::object());
  EXPECT_TRUE(called(failingBundle_, "startProviding " + failingItem));
}

TEST_F(DaemonOperations, StopProvidingIsForwardedWithoutConsultingTheAccessControlList) {
  expectGate(
      "stop-providing", kStopSelector,
      {itemUrl(kAlpha, "stop/gate.txt"), "--provider", kUnknown, "--consumer", "org.e2e.stop"},
      {"reader", "writer", "second-key"}, kBothKeys, json::object(), notFound(kUnknown),
      json::object());

  const std::string item = itemUrl(kAlpha, "stop/never granted.txt");
  const std::string provider = std::string("string:") + kAlpha;
  EXPECT_EQ(rawReply(raw("raw", {kStopSelector, "nil", provider, "string:c"})),
            json({notFound(kAlpha)}));
  EXPECT_EQ(rawReply(raw("raw", {kStopSelector, "url:" + item, "nil", "string:c"})),
            json({daskelError(3)}));
  EXPECT_EQ(rawReply(raw("raw", {kStopSelector, "url:" + item, provider, "nil"})),
            json({notFound(kAlpha)}));
  EXPECT_FALSE(called(alphaBundle_, "stopProviding " + item));

  for (const std::string& url :
       {fileUrl(daemon_->root() + "/elsewhere/stop.txt"), itemUrl(kRefusing, "stop/q3.txt"),
        directoryUrl(storage(kAlpha))}) {
    SCOPED_TRACE(url);
    expectFailure(
        ctl("reader", {"stop-providing", url, "--provider", kAlpha, "--consumer", "org.e2e.stop"}),
        notFound(kAlpha), json::object());
    EXPECT_FALSE(called(alphaBundle_, "stopProviding " + url));
    EXPECT_FALSE(called(refusingBundle_, "stopProviding " + url));
  }

  // Never granted to anybody, forwarded all the same; the item is not even identified.
  expectSuccess(
      ctl("reader", {"stop-providing", item, "--provider", kAlpha, "--consumer", "org.e2e.stop"}),
      "stop-providing", json::object());
  EXPECT_TRUE(called(alphaBundle_, "stopProviding " + item));
  EXPECT_FALSE(called(alphaBundle_, "identifierForItem " + item));

  // The extension's error, wrapped twice.
  const std::string failingItem = itemUrl(kFailing, "stop/z.txt");
  expectFailure(ctl("reader", {"stop-providing", failingItem, "--provider", kFailing, "--consumer",
                               "org.e2e.stop"}),
                pluginFailed(pluginFailed(kStorageOffline)), json::object());
  EXPECT_TRUE(called(failingBundle_, "stopProviding " + failingItem));
}

TEST_F(DaemonOperations, ProvidersListsEveryDiscoveredExtensionToReadOrWriteEntitledCallers) {
  json providers = json::object();
  for (const char* identifier : {kAlpha, kRefusing, kFailing}) {
    providers[identifier] = {{"documentStorageURL", directoryUrl(storage(identifier))},
                             {"providerIdentifier", identifier}};
  }
  expectGate("providers", kProvidersSelector, {}, {"reader", "writer", "second-key"}, kBothKeys,
             {{"providers", nullptr}}, nullptr, {{"providers", providers}});

  // The reply's values as they travel: the error first, the dictionary nil.
  EXPECT_EQ(rawReply(raw("raw-stranger", {kProvidersSelector})),
            json({lacksEntitlement(), nullptr}));
}

TEST_F(DaemonOperations, BookmarkableStringIsServedToAnyCallerAndNamesTheItemItsProviderReports) {
  // No entitlement needed; the item identifier keeps its slashes.
  const std::string item = itemUrl(kAlpha, "bookmark/docs/2024/plan.txt");
  expectSuccess(
      ctl("stranger", {"bookmarkable-string", item}), "bookmarkable-string",
      {{"bookmarkableString", "daskel:com.example.e2e.alpha/bookmark/docs/2024/plan.txt"}});
  EXPECT_TRUE(called(alphaBundle_, "identifierForItem " + item));

  // A URL no provider holds, or a storage directory itself: neither a string nor an error.
  for (const std::string& url :
       {fileUrl(daemon_->root() + "/elsewhere/plan.txt"), directoryUrl(storage(kAlpha))}) {
    SCOPED_TRACE(url);
    expectSuccess(ctl("denied", {"bookmarkable-string", url}), "bookmarkable-string",
                  {{"bookmarkableString", nullptr}});
    EXPECT_FALSE(called(alphaBundle_, "identifierForItem " + url));
  }

  // The provider's error as the forward reports it (wrapped once), not wrapped again.
  expectFailure(ctl("stranger", {"bookmarkable-string", itemUrl(kRefusing, "bookmark/x.txt")}),
                pluginFailed(kNotKnownHere), {{"bookmarkableString", nullptr}});

  EXPECT_EQ(logSinceTestStart().find("Serving: bookmarkableStringFromDocumentURL:completion:"),
            std::string::npos);
  EXPECT_EQ(logSinceTestStart().find("Rejecting request"), std::string::npos);
}

TEST_F(DaemonOperations, DocumentUrlAnswersOnlyACallerThatHoldsAGrantForTheItem) {
  const json noDocument = {{"documentURL", nullptr},
                           {"token", nullptr},
                           {"placeholderURL", nullptr},
                           {"placeholderToken", nullptr}};
  const std::string itemId = "document/docs/2024/plan.txt";
  const std::string bookmark = std::string("daskel:") + kAlpha + "/" + itemId;

  // A caller without a bundle identifier is refused before the string is even parsed.
  for (const std::string& text : {bookmark, std::string("Daskel:x/y")}) {
    expectFailure(ctl("stranger", {"document-url", text}), notPermitted(), noDocument);
  }
  // Malformed strings.
  for (const std::string text :
       {"Daskel:com.example.e2e.alpha/x", "xdaskel:com.example.e2e.alpha/x",
        "daskel:com.example.e2e.alpha/", "daskel:/x", "daskel:com.example.e2e.alpha"}) {
    SCOPED_TRACE(text);
    expectFailure(ctl("writer", {"document-url", text}), invalidBookmarkableString(), noDocument);
  }
  // Well formed, but nothing grants the item to the caller (org.e2e.writer).
  expectFailure(ctl("writer", {"document-url", bookmark}), notPermitted(), noDocument);
  EXPECT_FALSE(called(alphaBundle_, "urlForItemIdentifier " + itemId));
  // A grant to another consumer does not count.
  const std::string item = itemUrl(kAlpha, itemId);
  ASSERT_EQ(
      ctl("writer", {"extend-sandbox", item, "--provider", kAlpha, "--consumer", "org.e2e.reader"})
          .exitStatus,
      0);
  expectFailure(ctl("writer", {"document-url", bookmark}), notPermitted(), noDocument);

  // Granted to the caller itself: the provider is asked for exactly that item.
  ASSERT_EQ(
      ctl("writer", {"extend-sandbox", item, "--provider", kAlpha, "--consumer", "org.e2e.writer"})
          .exitStatus,
      0);
  const ClientResult result = ctl("writer", {"document-url", bookmark});
  ASSERT_EQ(result.exitStatus, 0) << result.standardOutput << result.standardError;
  EXPECT_TRUE(called(alphaBundle_, "urlForItemIdentifier " + itemId));
  const json& values = result.json["result"];
  EXPECT_EQ(values["documentURL"], item);
  EXPECT_EQ(values["placeholderURL"], itemUrl(kAlpha, "document/docs/2024/.plan.txt"));
  EXPECT_TRUE(values["token"].is_string()) << values.dump(2);
  EXPECT_TRUE(values["placeholderToken"].is_string()) << values.dump(2);
  EXPECT_FALSE(result.json.contains("error"));

  // The provider fails to give a URL: a sandbox failure, whatever the extension said.
  const std::string failingItem = itemUrl(kFailing, "document/z.txt");
  ASSERT_EQ(ctl("writer", {"extend-sandbox", failingItem, "--provider", kFailing, "--consumer",
                           "org.e2e.writer"})
                .exitStatus,
            0);
  expectFailure(
      ctl("writer", {"document-url", std::string("daskel:") + kFailing + "/document/z.txt"}),
      daskelError(6), noDocument);
  EXPECT_TRUE(called(failingBundle_, "urlForItemIdentifier document/z.txt"));

  // Granted, but no such provider: there is nobody to ask and no answer comes.
  const ClientResult unanswered = daemon_->run(
      client("writer").path,
      {"--json", "--timeout", "1", "document-url", std::string("daskel:") + kGone + "/lost.txt"});
  EXPECT_EQ(unanswered.exitStatus, 4) << unanswered.standardOutput << unanswered.standardError;
  EXPECT_EQ(errorShape(unanswered.json["error"])["domain"], "com.orvane.Daskel.client");

  EXPECT_EQ(logSinceTestStart().find("Serving: documentURLFromBookmarkableString:completion:"),
            std::string::npos);
}

}  // namespace
}  // namespace daskel
