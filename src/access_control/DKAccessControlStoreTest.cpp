#include "access_control/DKAccessControlStore.h"

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <plist/plist.h>

#include "platform/log/CapturingLogSink.h"
#include "platform/log/Log.h"
#include "platform/testing/FakeNotifyCenter.h"

namespace daskel {
namespace {

namespace fs = std::filesystem;
using platform::CapturingLogSink;
using platform::FakeNotifyCenter;
using platform::kLogError;
using platform::kLogInfo;

constexpr char kHeader[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void writeFile(const fs::path& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

class AccessControlStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/daskel-acl-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    directory_ = root_ / "Library" / "Daskel";
    file_ = directory_ / "AccessControl.plist";
  }

  void TearDown() override {
    fs::remove_all(root_);
  }

  std::shared_ptr<DKAccessControlStore> makeStore() {
    return DKAccessControlStore::create(file_.string(), notifyCenter_);
  }

  std::size_t count(std::string_view message) const { return capture_->count(message); }

  fs::path root_;
  fs::path directory_;
  fs::path file_;
  // Every line reaches the capture; the console shows only errors.
  CapturingLogSink::Scope capture_;
  std::shared_ptr<FakeNotifyCenter> notifyCenter_ = std::make_shared<FakeNotifyCenter>();
};

TEST_F(AccessControlStoreTest, FirstGrantCreatesTheFileAndGrantsSurviveANewStoreReadingIt) {
  {
    auto store = makeStore();
    EXPECT_TRUE(fs::is_directory(directory_));
    EXPECT_FALSE(fs::exists(file_));
    EXPECT_EQ(count("Successfully read access control from disk."), 0u);
    EXPECT_FALSE(store->isProviderWithIdentifier("com.acme.cloud.provider", "docs/report.txt",
                                                 "com.acme.editor"));
    store->allowProviderWithIdentifier("com.acme.cloud.provider", "docs/report.txt",
                                       "com.acme.editor");
    EXPECT_TRUE(fs::exists(file_));
    store->allowProviderWithIdentifier("com.acme.cloud.provider", "7F2A-11", "com.acme.editor");
    store->allowProviderWithIdentifier("com.other", "x", "com.acme.viewer");
  }
  auto reread = makeStore();
  EXPECT_EQ(count("Successfully read access control from disk."), 1u);
  EXPECT_TRUE(reread->isProviderWithIdentifier("com.acme.cloud.provider", "docs/report.txt",
                                               "com.acme.editor"));
  EXPECT_TRUE(
      reread->isProviderWithIdentifier("com.acme.cloud.provider", "7F2A-11", "com.acme.editor"));
  EXPECT_TRUE(reread->isProviderWithIdentifier("com.other", "x", "com.acme.viewer"));
  EXPECT_FALSE(reread->isProviderWithIdentifier("com.other", "x", "com.acme.editor"));
}

TEST_F(AccessControlStoreTest, FileHoldsProviderConsumerAndItemsInGrantOrder) {
  auto store = makeStore();
  store->allowProviderWithIdentifier("p.one", "zeta", "c.one");
  store->allowProviderWithIdentifier("p.one", "alpha & <beta>", "c.one");
  store->allowProviderWithIdentifier("p.one", "mid", "c.two");
  store->allowProviderWithIdentifier("p.two", "only", "c.one");
  store->allowProviderWithIdentifier("p.two", "gone", "c.gone");
  store->disallowProviderWithIdentifier("p.two", "gone", "c.gone");

  std::string expected = std::string(kHeader) +
                         "<dict>\n"
                         "\t<key>p.one</key>\n"
                         "\t<dict>\n"
                         "\t\t<key>c.one</key>\n"
                         "\t\t<dict>\n"
                         "\t\t\t<key>AllowedItemIDs</key>\n"
                         "\t\t\t<array>\n"
                         "\t\t\t\t<string>zeta</string>\n"
                         "\t\t\t\t<string>alpha &amp; &lt;beta&gt;</string>\n"
                         "\t\t\t</array>\n"
                         "\t\t</dict>\n"
                         "\t\t<key>c.two</key>\n"
                         "\t\t<dict>\n"
                         "\t\t\t<key>AllowedItemIDs</key>\n"
                         "\t\t\t<array>\n"
                         "\t\t\t\t<string>mid</string>\n"
                         "\t\t\t</array>\n"
                         "\t\t</dict>\n"
                         "\t</dict>\n"
                         "\t<key>p.two</key>\n"
                         "\t<dict>\n"
                         "\t\t<key>c.one</key>\n"
                         "\t\t<dict>\n"
                         "\t\t\t<key>AllowedItemIDs</key>\n"
                         "\t\t\t<array>\n"
                         "\t\t\t\t<string>only</string>\n"
                         "\t\t\t</array>\n"
                         "\t\t</dict>\n"
                         "\t</dict>\n"
                         "</dict>\n"
                         "</plist>\n";
  EXPECT_EQ(readFile(file_), expected);
}

TEST_F(AccessControlStoreTest, GrantingTwiceKeepsOneEntryLogsOnceAndWritesOnce) {
  auto store = makeStore();
  store->allowProviderWithIdentifier("p", "i", "c");
  store->allowProviderWithIdentifier("p", "i", "c");
  EXPECT_EQ(count("Allowing provider ID p to provide item ID i to consumer ID c"), 1u);
  EXPECT_EQ(count("Committing access control list"), 1u);
  EXPECT_EQ(readFile(file_).find("<string>i</string>"),
            readFile(file_).rfind("<string>i</string>"));
}

TEST_F(AccessControlStoreTest, RevokingAMissingGrantCreatesLogsAndWritesNothing) {
  auto store = makeStore();
  store->disallowProviderWithIdentifier("p", "i", "c");
  EXPECT_FALSE(fs::exists(file_));
  store->allowProviderWithIdentifier("p", "other", "c");
  capture_->clear();
  std::string before = readFile(file_);
  store->disallowProviderWithIdentifier("p", "i", "c");
  store->disallowProviderWithIdentifier("p", "other", "d");
  store->disallowProviderWithIdentifier("q", "other", "c");
  EXPECT_TRUE(capture_->lines().empty());
  EXPECT_EQ(readFile(file_), before);
}

TEST_F(AccessControlStoreTest, RevokingPrunesEmptiedLevelsAndKeepsTheRest) {
  auto store = makeStore();
  store->allowProviderWithIdentifier("p", "one", "c");
  store->allowProviderWithIdentifier("p", "two", "c");
  store->disallowProviderWithIdentifier("p", "one", "c");
  EXPECT_EQ(count("No longer allowing provider ID p to provide item ID one to consumer ID c"), 1u);
  EXPECT_FALSE(store->isProviderWithIdentifier("p", "one", "c"));
  EXPECT_TRUE(store->isProviderWithIdentifier("p", "two", "c"));

  store->disallowProviderWithIdentifier("p", "two", "c");
  EXPECT_EQ(readFile(file_), std::string(kHeader) + "<dict/>\n</plist>\n");
}

TEST_F(AccessControlStoreTest, QueriesMatchWholeExactIdentifiers) {
  auto store = makeStore();
  store->allowProviderWithIdentifier("P", "dir/sub/item", "C");
  EXPECT_TRUE(store->isProviderWithIdentifier("P", "dir/sub/item", "C"));
  EXPECT_FALSE(store->isProviderWithIdentifier("P", "dir/sub/item", "D"));
  EXPECT_FALSE(store->isProviderWithIdentifier("Q", "dir/sub/item", "C"));
  EXPECT_FALSE(store->isProviderWithIdentifier("p", "dir/sub/item", "C"));
  EXPECT_FALSE(store->isProviderWithIdentifier("P", "dir/sub", "C"));
  EXPECT_FALSE(store->isProviderWithIdentifier("P", "DIR/sub/item", "C"));
  EXPECT_FALSE(store->isProviderWithIdentifier("P", "dir/sub/item", "c"));
}

TEST_F(AccessControlStoreTest, TheTwoQueriesTestTheirArgumentsDifferently) {
  auto store = makeStore();
  store->allowProviderWithIdentifier("", "i", "c");
  store->allowProviderWithIdentifier("p", "", "c");
  store->allowProviderWithIdentifier("p", "i", "");

  // The lenient query looks empty strings up.
  EXPECT_TRUE(store->isProviderWithIdentifier("", "i", "c"));
  EXPECT_TRUE(store->isProviderWithIdentifier("p", "", "c"));
  EXPECT_TRUE(store->isProviderWithIdentifier("p", "i", ""));
  // The strict one refuses an empty provider or item, but looks an empty consumer up.
  EXPECT_FALSE(store->isProviderIdentifier("", "i", "c"));
  EXPECT_FALSE(store->isProviderIdentifier("p", "", "c"));
  EXPECT_TRUE(store->isProviderIdentifier("p", "i", ""));

  store->allowProviderWithIdentifier("p", "i", "c");
  using Query = bool (DKAccessControlStore::*)(std::optional<std::string_view>,
                                               std::optional<std::string_view>,
                                               std::optional<std::string_view>);
  for (Query query : {static_cast<Query>(&DKAccessControlStore::isProviderWithIdentifier),
                      static_cast<Query>(&DKAccessControlStore::isProviderIdentifier)}) {
    EXPECT_TRUE(((*store).*query)("p", "i", "c"));
    EXPECT_FALSE(((*store).*query)(std::nullopt, "i", "c"));
    EXPECT_FALSE(((*store).*query)("p", std::nullopt, "c"));
    EXPECT_FALSE(((*store).*query)("p", "i", std::nullopt));
  }
}

TEST_F(AccessControlStoreTest, CorruptFileEmptiesTheListUntilTheFirstGrantReplacesIt) {
  fs::create_directories(directory_);
  writeFile(file_, "<?xml version=\"1.0\"?><plist><dict><key>p</key><dict>");
  auto store = makeStore();
  ASSERT_EQ(capture_->lines().size(), 1u);
  EXPECT_EQ(capture_->lines()[0].level, kLogError);
  EXPECT_EQ(capture_->lines()[0].message.rfind("Cannot read access control from disk. Error: ", 0),
            0u);
  EXPECT_FALSE(store->isProviderWithIdentifier("p", "i", "c"));

  store->allowProviderWithIdentifier("p", "i", "c");
  auto reread = makeStore();
  EXPECT_TRUE(reread->isProviderWithIdentifier("p", "i", "c"));
  EXPECT_NE(readFile(file_).find("<string>i</string>"), std::string::npos);
}

TEST_F(AccessControlStoreTest, BinaryFileIsReadAndTheNextCommitRewritesItAsXml) {
  fs::create_directories(directory_);
  plist_t root = plist_new_dict();
  plist_t consumers = plist_new_dict();
  plist_t entry = plist_new_dict();
  plist_t items = plist_new_array();
  plist_array_append_item(items, plist_new_string("from-binary"));
  plist_dict_set_item(entry, "AllowedItemIDs", items);
  plist_dict_set_item(consumers, "c", entry);
  plist_dict_set_item(root, "p", consumers);
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(root, &bytes, &length);
  writeFile(file_, std::string_view(bytes, length));
  free(bytes);
  plist_free(root);

  auto store = makeStore();
  EXPECT_EQ(count("Successfully read access control from disk."), 1u);
  EXPECT_TRUE(store->isProviderWithIdentifier("p", "from-binary", "c"));
  store->allowProviderWithIdentifier("p", "next", "c");
  std::string text = readFile(file_);
  EXPECT_EQ(text.rfind("<?xml", 0), 0u);
  EXPECT_NE(text.find("<string>from-binary</string>"), std::string::npos);
}

TEST_F(AccessControlStoreTest, MalformedLevelsCountAsAbsentAndAreReportedOncePerRead) {
  fs::create_directories(directory_);
  writeFile(file_, std::string(kHeader) +
                       "<dict>\n"
                       "<key>good</key><dict><key>c</key><dict><key>AllowedItemIDs</key>"
                       "<array><string>ok</string><integer>7</integer><dict/></array>"
                       "</dict></dict>\n"
                       "<key>bad-provider</key><string>not a dictionary</string>\n"
                       "<key>bad-consumer</key><dict><key>c</key><array/></dict>\n"
                       "<key>bad-items</key><dict><key>c</key><dict><key>AllowedItemIDs</key>"
                       "<string>i</string></dict></dict>\n"
                       "</dict>\n</plist>\n");
  auto store = makeStore();
  EXPECT_TRUE(store->isProviderWithIdentifier("good", "ok", "c"));
  EXPECT_FALSE(store->isProviderWithIdentifier("bad-items", "i", "c"));
  std::size_t reports = 0;
  for (const auto& line : capture_->lines()) {
    if (line.message.find("malformed") != std::string::npos) {
      ++reports;
      EXPECT_EQ(line.level, kLogError);
      EXPECT_NE(line.message.find("Ignored 5 malformed entries"), std::string::npos)
          << line.message;
    }
  }
  EXPECT_EQ(reports, 1u);

  // A root of the wrong type is no list at all, and nothing crashes.
  writeFile(file_, std::string(kHeader) + "<array><string>x</string></array>\n</plist>\n");
  auto arrayRoot = makeStore();
  EXPECT_FALSE(arrayRoot->isProviderWithIdentifier("x", "x", "x"));
  arrayRoot->allowProviderWithIdentifier("p", "i", "c");
  EXPECT_TRUE(makeStore()->isProviderWithIdentifier("p", "i", "c"));
}

TEST_F(AccessControlStoreTest, PlainFileInTheWayMakesEveryCommitFailButKeepsTheChange) {
  fs::create_directories(directory_.parent_path());
  writeFile(directory_, "in the way");
  auto store = makeStore();
  EXPECT_TRUE(capture_->lines().empty());

  store->allowProviderWithIdentifier("p", "i", "c");
  EXPECT_EQ(count("Could not write to " + file_.string()), 1u);
  EXPECT_TRUE(store->isProviderWithIdentifier("p", "i", "c"));

  // Once the way is clear, the next effective change writes the earlier one too.
  fs::remove(directory_);
  fs::create_directories(directory_);
  store->allowProviderWithIdentifier("p", "j", "c");
  auto reread = makeStore();
  EXPECT_TRUE(reread->isProviderWithIdentifier("p", "i", "c"));
  EXPECT_TRUE(reread->isProviderWithIdentifier("p", "j", "c"));
}

TEST_F(AccessControlStoreTest, FirstUnlockRereadReplacesTheListWithTheFile) {
  auto store = makeStore();
  store->allowProviderWithIdentifier("p", "mine", "c");

  // Another writer replaces the file; the re-read picks its content up.
  auto other = DKAccessControlStore::create((root_ / "other.plist").string(), nullptr);
  other->allowProviderWithIdentifier("p", "theirs", "c");
  fs::copy_file(root_ / "other.plist", file_, fs::copy_options::overwrite_existing);

  // The fake delivers at once; the re-read it queues runs before the query queued after it.
  notifyCenter_->post(platform::kFirstUnlockNotification);
  EXPECT_TRUE(store->isProviderWithIdentifier("p", "theirs", "c"));
  EXPECT_FALSE(store->isProviderWithIdentifier("p", "mine", "c"));
}

TEST_F(AccessControlStoreTest, RereadAfterTheFileWasDeletedKeepsTheGrants) {
  auto store = makeStore();
  store->allowProviderWithIdentifier("p", "i", "c");
  fs::remove(file_);
  store->rereadAccessControl();
  store->syncQueue()->sync([] {});
  EXPECT_TRUE(store->isProviderWithIdentifier("p", "i", "c"));
}

TEST_F(AccessControlStoreTest, RereadQueuedRightAfterAGrantReadsTheGrantBack) {
  auto store = makeStore();
  for (int i = 0; i < 50; ++i) {
    store->allowProviderWithIdentifier("p", "item-" + std::to_string(i), "c");
    notifyCenter_->post(platform::kFirstUnlockNotification);
  }
  store->syncQueue()->sync([] {});
  for (int i = 0; i < 50; ++i) {
    EXPECT_TRUE(store->isProviderWithIdentifier("p", "item-" + std::to_string(i), "c")) << i;
  }
  EXPECT_EQ(count("Cannot read access control from disk. Error: "), 0u);
}

TEST_F(AccessControlStoreTest, ConcurrentGrantsAndQueriesLoseNothing) {
  auto store = makeStore();
  constexpr int kThreads = 4;
  constexpr int kGrantsPerThread = 25;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kGrantsPerThread; ++i) {
        std::string item = std::to_string(t) + "/" + std::to_string(i);
        store->allowProviderWithIdentifier("p", item, "c" + std::to_string(t % 2));
        // A query after a grant, from the same thread, sees it.
        EXPECT_TRUE(store->isProviderWithIdentifier("p", item, "c" + std::to_string(t % 2)));
        if (i % 5 == 0) {
          notifyCenter_->post(platform::kFirstUnlockNotification);
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  auto reread = makeStore();
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kGrantsPerThread; ++i) {
      EXPECT_TRUE(reread->isProviderWithIdentifier("p", std::to_string(t) + "/" + std::to_string(i),
                                                   "c" + std::to_string(t % 2)));
    }
  }
}

}  // namespace
}  // namespace daskel
