#include "platform/identity/ApplicationRegistry.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/identity/IdentityTestSupport.h"
#include "platform/identity/ProcessInfo.h"
#include "platform/identity/ScopedFd.h"
#include "platform/identity/TestPeerProcess.h"
#include "platform/log/CapturingLogSink.h"
#include "platform/plist/PropertyList.h"

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;
using PidfdUse = AuditToken::PidfdUse;

// Every test works in its own temporary directory: two copies of one program under
// different names in bin/, manifests in apps/ (and apps2/ where search order matters).
class ApplicationRegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    apps_ = root_ / "apps";
    apps2_ = root_ / "apps2";
    fs::create_directories(root_ / "bin");
    fs::create_directories(apps_);
    fs::create_directories(apps2_);
    sleepProgram_ = fs::canonical("/bin/sleep");
    alpha_ = root_ / "bin" / "alpha-tool";
    beta_ = root_ / "bin" / "beta-tool";
    installProgram(alpha_);
    installProgram(beta_);
    auto listener = TestPeerProcess::listen();
    ASSERT_TRUE(listener);
    listener_ = std::move(*listener);
  }

  void TearDown() override {
    children_.clear();  // kills and reaps
  }

  void installProgram(const fs::path& path) {
    fs::copy_file(sleepProgram_, path, fs::copy_options::overwrite_existing);
    fs::permissions(path, fs::perms(0755));
  }

  // Writes a manifest atomically (a new file renamed over the old), mode 0644.
  std::string writeManifest(const fs::path& directory,
                            const std::string& fileName,
                            const Value& content) {
    fs::path path = directory / fileName;
    fs::path staging = root_ / ("." + fileName + ".new");
    {
      std::ofstream out(staging, std::ios::binary | std::ios::trunc);
      out << serializeXmlPropertyList(content);
    }
    ::chmod(staging.c_str(), 0644);
    fs::rename(staging, path);
    return path.string();
  }

  std::string writeManifest(const fs::path& directory,
                            const std::string& fileName,
                            const std::string& bundleIdentifier,
                            const std::vector<std::string>& executables,
                            Value::Dictionary entitlements) {
    Value::Array listed;
    for (const auto& executable : executables)
      listed.emplace_back(executable);
    return writeManifest(directory, fileName,
                         Value(Value::Dictionary{
                             {"BundleIdentifier", Value(bundleIdentifier)},
                             {"Executables", Value(std::move(listed))},
                             {"Entitlements", Value(std::move(entitlements))},
                         }));
  }

  // Writes alpha's manifest, with entitlement com.example.level = `level`, into the file at
  // `path` as it stands (the same inode: an edit in place, which no rename announces).
  void rewriteAlphaInPlace(const fs::path& path, int level) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << serializeXmlPropertyList(Value(Value::Dictionary{
        {"BundleIdentifier", Value("com.example.alpha")},
        {"Executables", Value(Value::Array{Value(alpha_.string())})},
        {"Entitlements", Value(Value::Dictionary{{"com.example.level", Value(level)}})},
    }));
  }

  void writeAlphaAndBetaManifests() {
    alphaManifest_ =
        writeManifest(apps_, "alpha.plist", "com.example.alpha", {alpha_},
                      {{"com.example.read", Value(true)}, {"com.example.level", Value(3)}});
    betaManifest_ = writeManifest(apps_, "beta.plist", "com.example.beta", {beta_},
                                  {{"com.example.write", Value(true)}});
  }

  // Starts `program` as a connected child and waits until it runs it.
  TestPeerProcess* run(const fs::path& program) {
    auto child = TestPeerProcess::start(listener_, {.program = program, .arguments = {"600"}});
    EXPECT_TRUE(child) << "cannot start " << program;
    if (!child)
      return nullptr;
    EXPECT_TRUE(child->waitForExecutable(program)) << program << " did not start";
    children_.push_back(std::move(child));
    return children_.back().get();
  }

  AuditToken tokenOf(TestPeerProcess* child, PidfdUse use = PidfdUse::WhenAvailable) {
    auto token = child->token(use);
    EXPECT_TRUE(token);
    return *token;
  }

  std::string ignoredLine(const std::string& path, const std::string& reason) {
    return "Ignoring application manifest " + path + ": " + reason;
  }

  testing::TemporaryTree tree_{"identity"};
  const fs::path root_ = tree_.root();
  fs::path apps_, apps2_, sleepProgram_, alpha_, beta_;
  std::string alphaManifest_, betaManifest_;
  TestPeerProcess::Listener listener_;
  std::vector<std::unique_ptr<TestPeerProcess>> children_;
};

TEST_F(ApplicationRegistryTest, EachCopyOfAProgramIsTheApplicationWhoseManifestListsIt) {
  writeAlphaAndBetaManifests();
  CapturingLogSink::Scope log;
  ApplicationRegistry registry({apps_.string()});
  AuditToken alpha = tokenOf(run(alpha_));
  AuditToken beta = tokenOf(run(beta_));

  auto alphaApp = registry.applicationForProcess(alpha);
  ASSERT_TRUE(alphaApp);
  EXPECT_EQ(alphaApp->manifestPath, alphaManifest_);
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.alpha");
  EXPECT_EQ(registry.entitlementValue(alpha, "com.example.read"), Value(true));
  EXPECT_EQ(registry.entitlementValue(alpha, "com.example.level"), Value(3));
  EXPECT_TRUE(registry.entitlementValue(alpha, "com.example.write").isNull());

  EXPECT_EQ(registry.bundleIdentifier(beta), "com.example.beta");
  EXPECT_EQ(registry.entitlementValue(beta, "com.example.write"), Value(true));
  EXPECT_TRUE(registry.entitlementValue(beta, "com.example.read").isNull());
  EXPECT_TRUE(registry.entitlementValue(beta, "com.example.level").isNull());

  // The program both are copies of is no application.
  AuditToken plain = tokenOf(run(sleepProgram_));
  EXPECT_FALSE(registry.applicationForProcess(plain));
  EXPECT_FALSE(registry.bundleIdentifier(plain));
  EXPECT_TRUE(registry.entitlementValue(plain, "com.example.read").isNull());

  auto lines = log->lines();
  EXPECT_TRUE(std::none_of(lines.begin(), lines.end(),
                           [](const auto& line) { return line.level == kLogError; }));
}

TEST_F(ApplicationRegistryTest, ListedPathsAreComparedResolved) {
  fs::create_directories(root_ / "links");
  fs::create_symlink(alpha_, root_ / "links" / "alpha");
  writeManifest(apps_, "alpha.plist", "com.example.alpha", {(root_ / "links" / "alpha").string()},
                {});
  writeManifest(apps_, "beta.plist", "com.example.beta",
                {(root_ / "bin" / ".." / "bin" / "beta-tool").string()}, {});
  ApplicationRegistry registry({apps_.string()});
  EXPECT_EQ(registry.bundleIdentifier(tokenOf(run(alpha_))), "com.example.alpha");
  EXPECT_EQ(registry.bundleIdentifier(tokenOf(run(beta_))), "com.example.beta");

  // Retargeting the link takes the identity away from the program it named before.
  fs::remove(root_ / "links" / "alpha");
  fs::create_symlink(beta_, root_ / "links" / "alpha");
  EXPECT_FALSE(registry.bundleIdentifier(tokenOf(children_[0].get())));
}

TEST_F(ApplicationRegistryTest, AManifestWritableByGroupOrOthersIsIgnoredWithOneErrorLine) {
  writeAlphaAndBetaManifests();
  ApplicationRegistry registry({apps_.string()});
  AuditToken alpha = tokenOf(run(alpha_));
  AuditToken beta = tokenOf(run(beta_));
  ASSERT_EQ(registry.bundleIdentifier(alpha), "com.example.alpha");

  for (mode_t mode : {0666, 0664, 0646}) {
    SCOPED_TRACE(mode);
    CapturingLogSink::Scope log;
    ASSERT_EQ(::chmod(alphaManifest_.c_str(), mode), 0);
    char modeText[8];
    std::snprintf(modeText, sizeof modeText, "0%o", mode);
    // Asked several times, it is reported once.
    EXPECT_FALSE(registry.applicationForProcess(alpha));
    EXPECT_TRUE(registry.entitlementValue(alpha, "com.example.read").isNull());
    EXPECT_FALSE(registry.bundleIdentifier(alpha));
    EXPECT_EQ(registry.bundleIdentifier(beta), "com.example.beta");
    EXPECT_EQ(log->lines(),
              (std::vector<CapturingLogSink::Line>{
                  {kLogError, ignoredLine(alphaManifest_, std::string("writable by group or "
                                                                      "others (mode ") +
                                                              modeText + ")")}}));
  }

  // Fixed, it counts again on the next look-up.
  ASSERT_EQ(::chmod(alphaManifest_.c_str(), 0600), 0);
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.alpha");
}

TEST_F(ApplicationRegistryTest, AManifestOwnedByAnotherUserIsIgnoredWithOneErrorLine) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "needs root to give a file away";
  writeAlphaAndBetaManifests();
  ApplicationRegistry registry({apps_.string()});
  AuditToken alpha = tokenOf(run(alpha_));
  AuditToken beta = tokenOf(run(beta_));

  CapturingLogSink::Scope log;
  ASSERT_EQ(::chown(alphaManifest_.c_str(), 12345, 12345), 0);
  EXPECT_FALSE(registry.bundleIdentifier(alpha));
  EXPECT_FALSE(registry.bundleIdentifier(alpha));
  EXPECT_EQ(registry.bundleIdentifier(beta), "com.example.beta");
  EXPECT_EQ(log->lines(),
            (std::vector<CapturingLogSink::Line>{
                {kLogError, ignoredLine(alphaManifest_,
                                        "owned by uid 12345, neither root nor the daemon's user "
                                        "(uid 0)")}}));

  // The group alone does not matter.
  ASSERT_EQ(::chown(alphaManifest_.c_str(), 0, 12345), 0);
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.alpha");
}

// Every shape a manifest can be wrong in is covered in ApplicationManifestTest; here, that
// the registry skips such files, keeps the good ones, and says so once per file.
TEST_F(ApplicationRegistryTest, MalformedManifestsAreIgnoredEachWithOneErrorLine) {
  writeManifest(apps_, "alpha.plist", "com.example.alpha", {alpha_}, {});
  std::string noIdentifier = writeManifest(
      apps_, "a-no-identifier.plist",
      Value(Value::Dictionary{{"Executables", Value(Value::Array{Value(alpha_.string())})},
                              {"Entitlements", Value(Value::Dictionary{})}}));
  std::string relative =
      writeManifest(apps_, "b-relative.plist", "com.example.b", {"bin/alpha-tool"}, {});
  std::string garbage = (apps_ / "c-garbage.plist").string();
  std::ofstream(garbage) << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">"
                            "<dict><key>BundleIdentifier</key>";
  ::chmod(garbage.c_str(), 0644);
  // Files that are not manifests by name are not looked at.
  std::ofstream(apps_ / "notes.txt") << "garbage";
  std::ofstream(apps_ / ".hidden.plist") << "garbage";

  CapturingLogSink::Scope log;
  ApplicationRegistry registry({apps_.string()});
  AuditToken alpha = tokenOf(run(alpha_));
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.alpha");
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.alpha");
  EXPECT_EQ(registry.applications().size(), 1u);

  auto lines = log->lines();
  ASSERT_EQ(lines.size(), 3u) << "one line per ignored manifest, no more";
  EXPECT_EQ(lines[0],
            (CapturingLogSink::Line{kLogError, ignoredLine(noIdentifier,
                                                           "BundleIdentifier is missing or "
                                                           "not a non-empty string")}));
  EXPECT_EQ(lines[1],
            (CapturingLogSink::Line{
                kLogError, ignoredLine(relative,
                                       "Executables entry \"bin/alpha-tool\" is not an absolute "
                                       "path")}));
  EXPECT_EQ(lines[2].level, kLogError);
  EXPECT_TRUE(lines[2].message.starts_with(ignoredLine(garbage, "not a property list")))
      << lines[2].message;
}

TEST_F(ApplicationRegistryTest, AnExecutableDeletedAndReplacedWhileRunningNoLongerMatches) {
  writeAlphaAndBetaManifests();
  ApplicationRegistry registry({apps_.string()});
  AuditToken before = tokenOf(run(alpha_));
  // The second look-up leaves what it found with the token; that must not outlive the file.
  ASSERT_EQ(registry.bundleIdentifier(before), "com.example.alpha");
  ASSERT_EQ(registry.bundleIdentifier(before), "com.example.alpha");
  ASSERT_TRUE(before.identityMemo());

  ASSERT_TRUE(fs::remove(alpha_));
  installProgram(alpha_);
  // The old process runs a file that is gone; the manifest names the new one.
  EXPECT_FALSE(registry.applicationForProcess(before));
  EXPECT_TRUE(registry.entitlementValue(before, "com.example.read").isNull());
  EXPECT_EQ(registry.bundleIdentifier(tokenOf(run(alpha_))), "com.example.alpha");
}

TEST_F(ApplicationRegistryTest, ADeadProcessHasNoIdentityEvenBeforeItIsReaped) {
  writeAlphaAndBetaManifests();
  ApplicationRegistry registry({apps_.string()});
  for (PidfdUse use : {PidfdUse::WhenAvailable, PidfdUse::OpenedByPid, PidfdUse::Never}) {
    SCOPED_TRACE(static_cast<int>(use));
    TestPeerProcess* child = run(alpha_);
    AuditToken token = tokenOf(child, use);
    ASSERT_EQ(registry.bundleIdentifier(token), "com.example.alpha");
    ASSERT_EQ(registry.bundleIdentifier(token), "com.example.alpha");
    // Only a token that pins its process keeps what a look-up found.
    EXPECT_EQ(token.identityMemo() != nullptr, token.hasPidfd());

    child->kill(SIGKILL);
    ASSERT_TRUE(child->waitUntilExited());
    EXPECT_FALSE(registry.applicationForProcess(token));
    EXPECT_TRUE(registry.entitlementValue(token, "com.example.read").isNull());
    child->reap();
    EXPECT_FALSE(registry.applicationForProcess(token));
  }
}

// A process that takes over a dead peer's pid, even one running the same registered
// program, does not lend the dead peer an identity. The pid is steered with ns_last_pid
// (privileged; other processes may take it first, hence the retries).
TEST_F(ApplicationRegistryTest, AProcessThatReusesADeadPeersPidLendsItNoIdentity) {
  writeAlphaAndBetaManifests();
  ApplicationRegistry registry({apps_.string()});
  for (PidfdUse use : {PidfdUse::WhenAvailable, PidfdUse::OpenedByPid, PidfdUse::Never}) {
    SCOPED_TRACE(static_cast<int>(use));
    bool reused = false;
    for (int attempt = 0; attempt < 20 && !reused; ++attempt) {
      TestPeerProcess* first = run(alpha_);
      ASSERT_TRUE(first);
      AuditToken token = tokenOf(first, use);
      ASSERT_EQ(registry.bundleIdentifier(token), "com.example.alpha");
      auto firstStat = readProcessStat(first->pid());
      ASSERT_TRUE(firstStat);
      first->kill(SIGKILL);
      first->reap();
      // Start times count clock ticks: only a successor from a later tick can be told apart
      // without a pidfd.
      if (use == PidfdUse::Never) {
        ASSERT_TRUE(TestPeerProcess::waitForClockTickAfter(firstStat->startTime));
      }
      if (!TestPeerProcess::steerNextPid(token.pid())) {
        GTEST_SKIP() << "cannot steer pid allocation here (ns_last_pid)";
      }
      TestPeerProcess* second = run(alpha_);
      ASSERT_TRUE(second);
      if (second->pid() != token.pid())
        continue;
      reused = true;
      EXPECT_EQ(registry.bundleIdentifier(tokenOf(second)), "com.example.alpha");
      EXPECT_FALSE(registry.applicationForProcess(token));
      EXPECT_TRUE(registry.entitlementValue(token, "com.example.read").isNull());
    }
    if (!reused)
      GTEST_SKIP() << "other processes kept taking the pid";
  }
}

TEST_F(ApplicationRegistryTest, AProcessIsWhatItRunsNowNotWhatItWasWhenItConnected) {
  std::string self = fs::canonical("/proc/self/exe").string();
  writeManifest(apps_, "self.plist", "com.example.tests", {self}, {});
  writeAlphaAndBetaManifests();
  ApplicationRegistry registry({apps_.string()});

  auto child =
      TestPeerProcess::start(listener_, {.program = alpha_, .arguments = {"600"}, .gated = true});
  ASSERT_TRUE(child);
  AuditToken token = tokenOf(child.get());
  // Connected, and still this test program's image until the gate opens; asked twice, so
  // that the token remembers it.
  EXPECT_EQ(registry.bundleIdentifier(token), "com.example.tests");
  EXPECT_EQ(registry.bundleIdentifier(token), "com.example.tests");
  ASSERT_TRUE(token.identityMemo());

  child->openGate();
  ASSERT_TRUE(child->waitForExecutable(alpha_));
  EXPECT_EQ(registry.bundleIdentifier(token), "com.example.alpha");
  EXPECT_EQ(registry.entitlementValue(token, "com.example.level"), Value(3));
  children_.push_back(std::move(child));
}

TEST_F(ApplicationRegistryTest, ManifestChangesAreSeenOnTheNextLookUp) {
  writeAlphaAndBetaManifests();
  ApplicationRegistry registry({apps_.string()});
  AuditToken alpha = tokenOf(run(alpha_));
  ASSERT_EQ(registry.entitlementValue(alpha, "com.example.level"), Value(3));

  // Replaced by rename.
  writeManifest(apps_, "alpha.plist", "com.example.alpha", {alpha_},
                {{"com.example.level", Value(4)}});
  EXPECT_EQ(registry.entitlementValue(alpha, "com.example.level"), Value(4));
  EXPECT_TRUE(registry.entitlementValue(alpha, "com.example.read").isNull());

  // Rewritten in place.
  {
    std::ofstream out(alphaManifest_, std::ios::binary | std::ios::trunc);
    out << serializeXmlPropertyList(Value(Value::Dictionary{
        {"BundleIdentifier", Value("com.example.renamed")},
        {"Executables", Value(Value::Array{Value(alpha_.string())})},
        {"Entitlements", Value(Value::Dictionary{{"com.example.level", Value(5)}})},
    }));
  }
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.renamed");
  EXPECT_EQ(registry.entitlementValue(alpha, "com.example.level"), Value(5));

  // Another manifest takes the executable over when the first one goes.
  writeManifest(apps_, "zeta.plist", "com.example.zeta", {alpha_}, {});
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.renamed");
  fs::remove(alphaManifest_);
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.zeta");
  fs::remove(apps_ / "zeta.plist");
  EXPECT_FALSE(registry.bundleIdentifier(alpha));
}

// Each change right after a look-up that found the manifests as they were, so that the next
// one can only be right if it notices.
TEST_F(ApplicationRegistryTest, EveryKindOfManifestChangeIsSeenByTheVeryNextLookUp) {
  writeAlphaAndBetaManifests();
  ApplicationRegistry registry({apps_.string()});
  AuditToken alpha = tokenOf(run(alpha_));
  auto level = [&] { return registry.entitlementValue(alpha, "com.example.level"); };
  ASSERT_EQ(level(), Value(3));

  // Written in place through another name of the same file, which the directory never sees.
  fs::create_directories(root_ / "elsewhere");
  fs::create_hard_link(alphaManifest_, root_ / "elsewhere" / "alpha-link.plist");
  rewriteAlphaInPlace(root_ / "elsewhere" / "alpha-link.plist", 6);
  EXPECT_EQ(level(), Value(6));

  {
    CapturingLogSink::Scope log;
    ASSERT_EQ(::chmod(alphaManifest_.c_str(), 0664), 0);
    EXPECT_TRUE(level().isNull());
    EXPECT_FALSE(registry.applicationWithBundleIdentifier("com.example.alpha"));
    ASSERT_EQ(::chmod(alphaManifest_.c_str(), 0644), 0);
    EXPECT_EQ(level(), Value(6));
  }

  // The whole directory replaced.
  fs::rename(apps_, root_ / "apps.old");
  fs::create_directories(apps_);
  EXPECT_TRUE(level().isNull());
  EXPECT_TRUE(registry.applications().empty());
  writeManifest(apps_, "alpha.plist", "com.example.alpha", {alpha_},
                {{"com.example.level", Value(7)}});
  EXPECT_EQ(registry.applications().size(), 1u);
  EXPECT_EQ(level(), Value(7));
}

// A manifest that is a symbolic link counts as the file it leads to now: the directory's
// watch cannot see that file, so it is looked at on every look-up.
TEST_F(ApplicationRegistryTest, ASymlinkedManifestIsTheFileItLeadsToNow) {
  const fs::path elsewhere = root_ / "elsewhere";
  fs::create_directories(elsewhere);
  const std::string target = writeManifest(elsewhere, "alpha.plist", "com.example.alpha", {alpha_},
                                           {{"com.example.level", Value(1)}});
  fs::create_symlink(target, apps_ / "alpha.plist");
  ApplicationRegistry registry({apps_.string()});
  AuditToken alpha = tokenOf(run(alpha_));
  auto level = [&] { return registry.entitlementValue(alpha, "com.example.level"); };
  ASSERT_EQ(level(), Value(1));

  // The target written in place.
  rewriteAlphaInPlace(target, 2);
  EXPECT_EQ(level(), Value(2));

  {
    CapturingLogSink::Scope log;
    ASSERT_EQ(::chmod(target.c_str(), 0666), 0);
    EXPECT_TRUE(level().isNull());
    ASSERT_EQ(::chmod(target.c_str(), 0644), 0);
  }
  EXPECT_EQ(level(), Value(2));

  // The target replaced by rename, then removed (a link to nothing), then back.
  writeManifest(elsewhere, "alpha.plist", "com.example.alpha", {alpha_},
                {{"com.example.level", Value(3)}});
  EXPECT_EQ(level(), Value(3));
  fs::rename(target, root_ / "alpha.plist.away");
  EXPECT_TRUE(level().isNull());
  fs::rename(root_ / "alpha.plist.away", target);
  EXPECT_EQ(level(), Value(3));

  // The link itself retargeted.
  const std::string other = writeManifest(elsewhere, "other.plist", "com.example.other", {alpha_},
                                          {{"com.example.level", Value(4)}});
  fs::remove(apps_ / "alpha.plist");
  fs::create_symlink(other, apps_ / "alpha.plist");
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.other");
  EXPECT_EQ(level(), Value(4));
}

TEST_F(ApplicationRegistryTest, SearchDirectoriesThatAppearOrAreRetargetedCountFromTheNextLookUp) {
  writeManifest(apps_, "alpha.plist", "com.example.alpha", {alpha_}, {});
  const fs::path later = root_ / "later" / "apps";
  ApplicationRegistry registry({later.string(), apps_.string()});
  AuditToken alpha = tokenOf(run(alpha_));
  ASSERT_EQ(registry.bundleIdentifier(alpha), "com.example.alpha");

  fs::create_directories(root_ / "later");
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.alpha");
  fs::create_directories(later);
  writeManifest(later, "alpha.plist", "com.example.later", {alpha_}, {});
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.later");
  fs::remove_all(root_ / "later");
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.alpha");

  // A directory reached through a symbolic link, switched to another release.
  fs::create_directories(root_ / "v1");
  fs::create_directories(root_ / "v2");
  writeManifest(root_ / "v1", "alpha.plist", "com.example.v1", {alpha_}, {});
  writeManifest(root_ / "v2", "alpha.plist", "com.example.v2", {alpha_}, {});
  fs::create_symlink(root_ / "v1", root_ / "current");
  ApplicationRegistry linked({(root_ / "current").string()});
  ASSERT_EQ(linked.bundleIdentifier(alpha), "com.example.v1");
  fs::create_symlink(root_ / "v2", root_ / "current.new");
  fs::rename(root_ / "current.new", root_ / "current");
  EXPECT_EQ(linked.bundleIdentifier(alpha), "com.example.v2");
}

// A manifest is replaced over and over while look-ups run: a look-up begun after version n
// was in place never answers from an older one.
TEST_F(ApplicationRegistryTest, LookUpsRacingManifestReplacementsNeverAnswerFromAnOlderVersion) {
  writeManifest(apps_, "alpha.plist", "com.example.alpha", {alpha_},
                {{"com.example.level", Value(0)}});
  ApplicationRegistry registry({apps_.string()});
  AuditToken alpha = tokenOf(run(alpha_));
  ASSERT_EQ(registry.entitlementValue(alpha, "com.example.level"), Value(0));

  constexpr int kVersions = 150;
  std::atomic<int> published{0};
  std::atomic<int> stale{0}, missing{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] {
      while (!done) {
        const int before = published.load();
        const std::optional<std::int64_t> level =
            registry.entitlementValue(alpha, "com.example.level").integer();
        if (!level) {
          ++missing;
        } else if (*level < before) {
          ++stale;
        }
      }
    });
  }
  for (int version = 1; version <= kVersions; ++version) {
    writeManifest(apps_, "alpha.plist", "com.example.alpha", {alpha_},
                  {{"com.example.level", Value(version)}});
    published = version;
  }
  done = true;
  for (auto& reader : readers)
    reader.join();
  EXPECT_EQ(stale, 0);
  EXPECT_EQ(missing, 0);
  EXPECT_EQ(registry.entitlementValue(alpha, "com.example.level"), Value(kVersions));
}

// Listed paths are tried in search order, each fully: one that reaches the running file
// through a symbolic link wins over a later one spelled as the kernel spells it, and another
// hard link to the same file is another program.
TEST_F(ApplicationRegistryTest, TheFirstListingInSearchOrderWinsHoweverItSpellsTheExecutable) {
  fs::create_directories(root_ / "links");
  fs::create_symlink(alpha_, root_ / "links" / "alpha");
  fs::create_hard_link(alpha_, root_ / "links" / "alpha-hard");
  writeManifest(apps_, "0-hard.plist", "com.example.hard",
                {(root_ / "links" / "alpha-hard").string()}, {});
  writeManifest(apps_, "1-linked.plist", "com.example.linked",
                {(root_ / "links" / "alpha").string()}, {});
  writeManifest(apps_, "2-exact.plist", "com.example.exact", {alpha_}, {});
  ApplicationRegistry registry({apps_.string()});
  AuditToken alpha = tokenOf(run(alpha_));
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.linked");

  fs::remove(apps_ / "1-linked.plist");
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.exact");
  // Started by its other name, the same file is the hard link's application.
  EXPECT_EQ(registry.bundleIdentifier(tokenOf(run(root_ / "links" / "alpha-hard"))),
            "com.example.hard");
}

TEST_F(ApplicationRegistryTest, EarlierDirectoriesAndFileNamesWinWhenManifestsOverlap) {
  writeManifest(apps_, "alpha.plist", "com.example.alpha", {alpha_}, {});
  writeManifest(apps2_, "alpha.plist", "com.example.alpha2", {alpha_}, {});
  writeManifest(apps2_, "0-beta.plist", "com.example.beta0", {beta_}, {});
  writeManifest(apps2_, "1-beta.plist", "com.example.beta1", {beta_}, {});
  AuditToken alpha = tokenOf(run(alpha_));
  AuditToken beta = tokenOf(run(beta_));

  ApplicationRegistry appsFirst({apps_.string(), apps2_.string()});
  ApplicationRegistry apps2First({apps2_.string(), apps_.string()});
  EXPECT_EQ(appsFirst.bundleIdentifier(alpha), "com.example.alpha");
  EXPECT_EQ(apps2First.bundleIdentifier(alpha), "com.example.alpha2");
  EXPECT_EQ(appsFirst.bundleIdentifier(beta), "com.example.beta0");
  EXPECT_EQ(apps2First.applicationWithBundleIdentifier("com.example.beta1")->manifestPath,
            (apps2_ / "1-beta.plist").string());

  // A directory that does not exist is empty, silently.
  CapturingLogSink::Scope log;
  ApplicationRegistry withMissing({(root_ / "missing").string(), apps_.string()});
  EXPECT_EQ(withMissing.bundleIdentifier(alpha), "com.example.alpha");
  EXPECT_TRUE(log->lines().empty());
}

TEST_F(ApplicationRegistryTest, TheDefaultRegistryReadsTheApplicationsPathOnEveryLookUp) {
  writeManifest(apps_, "alpha.plist", "com.example.alpha", {alpha_}, {});
  writeManifest(apps2_, "alpha.plist", "com.example.alpha2", {alpha_}, {});
  const char* saved = std::getenv("DASKEL_APPLICATIONS_PATH");
  std::optional<std::string> savedValue = saved ? std::optional<std::string>(saved) : std::nullopt;

  ApplicationRegistry registry;
  AuditToken alpha = tokenOf(run(alpha_));
  ::setenv("DASKEL_APPLICATIONS_PATH", (apps_.string() + ":" + apps2_.string()).c_str(), 1);
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.alpha");
  ::setenv("DASKEL_APPLICATIONS_PATH", (apps2_.string() + ":" + apps_.string()).c_str(), 1);
  EXPECT_EQ(registry.bundleIdentifier(alpha), "com.example.alpha2");
  ::setenv("DASKEL_APPLICATIONS_PATH", (root_ / "bin").c_str(), 1);
  EXPECT_FALSE(registry.bundleIdentifier(alpha));

  if (savedValue) {
    ::setenv("DASKEL_APPLICATIONS_PATH", savedValue->c_str(), 1);
  } else {
    ::unsetenv("DASKEL_APPLICATIONS_PATH");
  }
}

// A Flatpak sandbox is imitated by a child that changes its root to a directory holding
// .flatpak-info (which needs privilege). The child still runs this test program, which a
// manifest also lists: the Flatpak application id, not the executable, decides.
TEST_F(ApplicationRegistryTest, AFlatpakProcessIsTheApplicationWithItsApplicationId) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "needs privilege to change a process's root";
  std::string self = fs::canonical("/proc/self/exe").string();
  writeManifest(apps_, "self.plist", "com.example.tests", {self}, {});
  writeManifest(apps_, "sandboxed.plist", "org.example.Sandboxed", {},
                {{"com.example.read", Value(true)}});
  ApplicationRegistry registry({apps_.string()});

  auto startSandboxed = [&](const std::string& sandboxName, const std::string& info) {
    fs::path sandbox = root_ / sandboxName;
    fs::create_directories(sandbox);
    std::ofstream(sandbox / ".flatpak-info") << info;
    auto child = TestPeerProcess::start(listener_, {.rootDirectory = sandbox.string()});
    EXPECT_TRUE(child);
    if (!child)
      return static_cast<TestPeerProcess*>(nullptr);
    EXPECT_TRUE(child->waitForRoot(sandbox.string()));
    children_.push_back(std::move(child));
    return children_.back().get();
  };

  CapturingLogSink::Scope log;
  TestPeerProcess* known =
      startSandboxed("known", "[Application]\nname=org.example.Sandboxed\nruntime=runtime/x/y/z\n");
  ASSERT_TRUE(known);
  AuditToken knownToken = tokenOf(known);
  EXPECT_EQ(registry.bundleIdentifier(knownToken), "org.example.Sandboxed");
  EXPECT_EQ(registry.entitlementValue(knownToken, "com.example.read"), Value(true));

  TestPeerProcess* unknown =
      startSandboxed("unknown", "[Application]\nname=org.example.Unregistered\n");
  ASSERT_TRUE(unknown);
  EXPECT_FALSE(registry.bundleIdentifier(tokenOf(unknown)));
  EXPECT_TRUE(log->lines().empty());

  TestPeerProcess* nameless = startSandboxed("nameless", "[Application]\nruntime=x\n");
  ASSERT_TRUE(nameless);
  AuditToken namelessToken = tokenOf(nameless);
  EXPECT_FALSE(registry.bundleIdentifier(namelessToken));
  ASSERT_EQ(log->lines().size(), 1u);
  EXPECT_EQ(log->lines()[0].level, kLogError);
  EXPECT_TRUE(
      log->lines()[0].message.starts_with("Cannot identify process " + namelessToken.description()))
      << log->lines()[0].message;

  // Dead, the sandboxed process is nothing either.
  known->kill(SIGKILL);
  known->reap();
  EXPECT_FALSE(registry.bundleIdentifier(knownToken));
}

// Look-ups from many threads while the manifests' files keep changing (same content, new
// timestamps, so every look-up may re-read them) still answer each process exactly.
TEST_F(ApplicationRegistryTest, ConcurrentLookUpsWhileManifestsAreTouchedStayExact) {
  writeAlphaAndBetaManifests();
  ApplicationRegistry registry({apps_.string()});
  AuditToken alpha = tokenOf(run(alpha_));
  AuditToken beta = tokenOf(run(beta_));

  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const AuditToken& token = t % 2 ? alpha : beta;
      const char* expected = t % 2 ? "com.example.alpha" : "com.example.beta";
      for (int i = 0; i < 200; ++i) {
        if (registry.bundleIdentifier(token) != expected)
          ++wrong;
      }
    });
  }
  std::thread toucher([&] {
    while (!stop) {
      ::utimensat(AT_FDCWD, alphaManifest_.c_str(), nullptr, 0);
      ::utimensat(AT_FDCWD, betaManifest_.c_str(), nullptr, 0);
    }
  });
  for (auto& thread : threads)
    thread.join();
  stop = true;
  toucher.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace daskel::platform
