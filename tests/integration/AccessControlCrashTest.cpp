// Crash safety of the access-control file: a process granting in a loop is killed with SIGKILL
// at random moments, many times over the same file. After every kill the file must parse and
// hold exactly a prefix of the grants made, including every grant the process had reported
// as returned, never a torn or empty file.
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "access_control/AccessControlList.h"
#include "helpers/ChildProcess.h"
#include "platform/plist/PropertyList.h"

namespace daskel {
namespace {

namespace fs = std::filesystem;

// The number of items in the file for p/c, after checking they are item-0 ... item-(n-1).
long checkedPrefixLength(const fs::path& file) {
  auto root = platform::readPropertyListFile(file.string());
  EXPECT_TRUE(root.has_value()) << "the file does not parse: "
                                << (root ? "" : root.error()->description());
  if (!root) return -1;
  const platform::Value* items = nullptr;
  if (const auto* p = root->find("p")) {
    if (const auto* c = p->find("c")) {
      items = c->find(kAllowedItemIDsKey);
    }
  }
  EXPECT_TRUE(items && items->array()) << "the file holds no item list";
  if (!items || !items->array()) return -1;
  const auto& array = *items->array();
  for (std::size_t i = 0; i < array.size(); ++i) {
    const std::string* text = array[i].string();
    EXPECT_TRUE(text && *text == "item-" + std::to_string(i)) << "entry " << i << " is wrong";
  }
  return static_cast<long>(array.size());
}

TEST(AccessControlCrashSafety, FileAlwaysHoldsAPrefixOfTheGrantsAfterSigkill) {
  char pattern[] = "/tmp/daskel-acl-crash-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  fs::path root = pattern;
  fs::path file = root / "AccessControl.plist";

  unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> delayMicros(0, 40000);

  constexpr int kRuns = 40;
  long confirmed = 0;  // grants some child reported as returned
  int killsAfterFirstWrite = 0;
  for (int run = 0; run < kRuns; ++run) {
    std::string error;
    auto child = testing::ChildProcess::start(DASKEL_ACL_GRANT_LOOP, {file.string(), "p", "c"},
                                              {"DASKEL_LOG=global=3"}, &error);
    ASSERT_TRUE(child.has_value()) << error;
    std::this_thread::sleep_for(std::chrono::microseconds(delayMicros(random)));
    child->kill(SIGKILL);
    int status = child->wait();
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
        << "the grant loop ended on its own, status " << status;

    long lastReported = -1;
    std::string output = child->readToEnd();
    for (std::size_t start = 0; start < output.size();) {
      auto end = output.find('\n', start);
      if (end == std::string::npos) break;
      lastReported = std::stol(output.substr(start, end - start));
      start = end + 1;
    }
    if (lastReported >= 0) confirmed = lastReported + 1;

    if (!fs::exists(file)) {
      ASSERT_EQ(confirmed, 0) << "the file vanished after grants were confirmed";
      continue;
    }
    ASSERT_GT(fs::file_size(file), 0u) << "empty file after run " << run;
    long length = checkedPrefixLength(file);
    ASSERT_GE(length, confirmed) << "a confirmed grant was lost in run " << run;
    // At most the one grant in flight when the kill came may be there unconfirmed.
    ASSERT_LE(length, confirmed + 1) << "run " << run;
    confirmed = length;
    ++killsAfterFirstWrite;
  }
  EXPECT_GT(killsAfterFirstWrite, kRuns / 2) << "too few kills landed while the file existed";
  // Each start sweeps the temporary files of killed writes, so at most the last run's is left.
  std::size_t leftovers = 0;
  for (const auto& entry : fs::directory_iterator(root)) {
    if (entry.path() != file) ++leftovers;
  }
  EXPECT_LE(leftovers, 1u);
  fs::remove_all(root);
}

}  // namespace
}  // namespace daskel
