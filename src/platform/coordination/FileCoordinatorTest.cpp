#include "platform/coordination/FileCoordinator.h"

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;

// A provider that only has a directory; it can ask the coordinator something while it is
// being asked for that directory.
class DirectoryProvider : public CoordinationProvider {
 public:
  explicit DirectoryProvider(std::optional<Url> directory) : directory_(std::move(directory)) {}

  std::optional<Url> _providedItemsURL() const override {
    if (coordinator_)
      (void)coordinator_->isRegistered(*this);
    return directory_;
  }
  std::shared_ptr<OperationQueue> _providedItemsOperationQueue() const override { return nullptr; }
  std::string _fileReactorID() const override { return "directory provider"; }
  void _provideItemAtURL(const Url&, Completion completion) override {
    if (completion)
      completion(nullptr);
  }

  FileCoordinator* coordinator_ = nullptr;

 private:
  const std::optional<Url> directory_;
};

class FileCoordinatorTest : public ::testing::Test {
 protected:
  FileCoordinatorTest() {
    std::string pattern = (fs::temp_directory_path() / "daskel-coordination-XXXXXX").string();
    EXPECT_NE(::mkdtemp(pattern.data()), nullptr);
    root_ = fs::canonical(pattern).string();
  }
  ~FileCoordinatorTest() override {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }

  Url directory(const std::string& relative) {
    fs::create_directories(root_ + "/" + relative);
    return *Url::fileUrlWithPath(root_ + "/" + relative, true);
  }
  Url item(const std::string& relative) {
    return *Url::fileUrlWithPath(root_ + "/" + relative, false);
  }
  std::shared_ptr<DirectoryProvider> provider(const std::string& relative) {
    return std::make_shared<DirectoryProvider>(directory(relative));
  }

  std::string root_;
  FileCoordinator coordinator_;
};

TEST_F(FileCoordinatorTest, ProvidersAreKeptOnceInTheOrderTheyWereAdded) {
  auto first = provider("first");
  auto second = provider("second");
  coordinator_.addProvider(first);
  coordinator_.addProvider(second);
  coordinator_.addProvider(first);

  const std::vector<std::shared_ptr<CoordinationProvider>> expected{first, second};
  EXPECT_EQ(coordinator_.providers(), expected);
  EXPECT_TRUE(coordinator_.isRegistered(*first));
  EXPECT_TRUE(coordinator_.isRegistered(*second));
}

TEST_F(FileCoordinatorTest, RemovingForgetsOnlyThatProviderAndReleasesIt) {
  auto first = provider("first");
  auto second = provider("second");
  auto stranger = provider("stranger");
  coordinator_.addProvider(first);
  coordinator_.addProvider(second);

  coordinator_.removeProvider(stranger);
  EXPECT_EQ(coordinator_.providers().size(), 2u);

  std::weak_ptr<DirectoryProvider> released = first;
  coordinator_.removeProvider(first);
  first.reset();
  EXPECT_TRUE(released.expired());
  EXPECT_EQ(coordinator_.providers(), std::vector<std::shared_ptr<CoordinationProvider>>{second});
  EXPECT_FALSE(coordinator_.isRegistered(*stranger));
  coordinator_.removeProvider(nullptr);
  coordinator_.addProvider(nullptr);
  EXPECT_EQ(coordinator_.providers().size(), 1u);
}

TEST_F(FileCoordinatorTest, AURLBelongsToTheProviderWhoseDirectoryContainsIt) {
  auto documents = provider("group/Documents");
  auto notes = provider("group/Notes");
  coordinator_.addProvider(documents);
  coordinator_.addProvider(notes);

  EXPECT_EQ(coordinator_.providerForURL(item("group/Notes/today.txt")), notes);
  // Items need not exist yet, and may lie deeper.
  EXPECT_EQ(coordinator_.providerForURL(item("group/Documents/a/b/report.pdf")), documents);
}

TEST_F(FileCoordinatorTest, TheDirectoryItselfAndLookAlikeOrEscapingPathsBelongToNobody) {
  auto documents = provider("group/Documents");
  coordinator_.addProvider(documents);
  directory("group/Documents2");
  fs::create_symlink(root_ + "/outside", root_ + "/group/Documents/link");

  EXPECT_EQ(coordinator_.providerForURL(directory("group/Documents")), nullptr);
  EXPECT_EQ(coordinator_.providerForURL(item("group/Documents2/file")), nullptr);
  EXPECT_EQ(coordinator_.providerForURL(item("group/Documents/../../etc/passwd")), nullptr);
  EXPECT_EQ(coordinator_.providerForURL(item("group/Documents/link/secret")), nullptr);
  EXPECT_EQ(coordinator_.providerForURL(*Url::fromString("https://example.com/group/Documents/x")),
            nullptr);
}

TEST_F(FileCoordinatorTest, AProviderWithoutADirectoryOwnsNothingButStaysKnown) {
  auto homeless = std::make_shared<DirectoryProvider>(std::nullopt);
  auto documents = provider("Documents");
  coordinator_.addProvider(homeless);
  coordinator_.addProvider(documents);

  EXPECT_EQ(coordinator_.providerForURL(item("Documents/x")), documents);
  EXPECT_EQ(coordinator_.providerForURL(item("elsewhere/x")), nullptr);
  EXPECT_TRUE(coordinator_.isRegistered(*homeless));
}

TEST_F(FileCoordinatorTest, AProviderMayCallTheCoordinatorWhileItIsAskedForItsDirectory) {
  // Were the table's mutex held while providers are asked, this would deadlock.
  auto documents = provider("Documents");
  documents->coordinator_ = &coordinator_;
  coordinator_.addProvider(documents);
  EXPECT_EQ(coordinator_.providerForURL(item("Documents/x")), documents);
}

TEST_F(FileCoordinatorTest, ConcurrentAdditionsRemovalsAndLookUpsLoseNoProvider) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 50;
  auto anchor = provider("anchor");
  coordinator_.addProvider(anchor);
  std::vector<std::vector<std::shared_ptr<DirectoryProvider>>> kept(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kPerThread; ++i)
      kept[t].push_back(provider("p" + std::to_string(t) + "-" + std::to_string(i)));
  }

  std::atomic<bool> wrongOwner = false;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        coordinator_.addProvider(kept[t][i]);
        if (i % 2 == 1)
          coordinator_.removeProvider(kept[t][i]);
        if (coordinator_.providerForURL(item("anchor/file")) != anchor)
          wrongOwner = true;
      }
    });
  }
  for (auto& thread : threads)
    thread.join();

  EXPECT_FALSE(wrongOwner);
  EXPECT_EQ(coordinator_.providers().size(), 1u + kThreads * kPerThread / 2);
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kPerThread; ++i)
      EXPECT_EQ(coordinator_.isRegistered(*kept[t][i]), i % 2 == 0) << t << "-" << i;
  }
}

TEST_F(FileCoordinatorTest, ObserversHearEveryChangeThatAltersTheTableUntilTheyAreRemoved) {
  auto first = provider("first");
  auto second = provider("second");
  std::vector<std::pair<CoordinationProvider*, FileCoordinator::Change>> heard;
  const auto token = coordinator_.addObserver(
      [&](const std::shared_ptr<CoordinationProvider>& changed, FileCoordinator::Change change) {
        // The table already shows the change when the observer hears of it.
        EXPECT_EQ(coordinator_.isRegistered(*changed), change == FileCoordinator::Change::Added);
        heard.emplace_back(changed.get(), change);
      });
  coordinator_.addProvider(first);
  coordinator_.addProvider(first);  // already known: no change
  coordinator_.addProvider(second);
  coordinator_.removeProvider(first);
  coordinator_.removeProvider(first);  // not known any more: no change
  coordinator_.removeObserver(token);
  coordinator_.removeProvider(second);

  using Change = FileCoordinator::Change;
  const std::vector<std::pair<CoordinationProvider*, Change>> expected{
      {first.get(), Change::Added}, {second.get(), Change::Added}, {first.get(), Change::Removed}};
  EXPECT_EQ(heard, expected);
}

TEST_F(FileCoordinatorTest, AnObserverMayAskTheCoordinatorWhileItIsCalled) {
  auto first = provider("first");
  std::vector<std::size_t> sizes;
  const auto token = coordinator_.addObserver(
      [&](const std::shared_ptr<CoordinationProvider>&, FileCoordinator::Change) {
        sizes.push_back(coordinator_.providers().size());
        (void)coordinator_.providerForURL(item("first/file"));
      });
  coordinator_.addProvider(first);
  coordinator_.removeProvider(first);
  coordinator_.removeObserver(token);
  EXPECT_EQ(sizes, (std::vector<std::size_t>{1, 0}));
}

TEST(FileCoordinatorSharedTest, SharedIsOneCoordinatorForTheProcess) {
  EXPECT_EQ(&FileCoordinator::shared(), &FileCoordinator::shared());
}

}  // namespace
}  // namespace daskel::platform
