#include "platform/filesystem/FileSystem.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <vector>

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;

// A fresh directory under the system's temporary directory, removed with its contents.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (fs::temp_directory_path() / "daskel-fs-XXXXXX").string();
    char* made = ::mkdtemp(pattern.data());
    EXPECT_NE(made, nullptr);
    // Canonical, so that expectations hold when the temporary directory is itself a link.
    path_ = fs::canonical(pattern).string();
  }
  ~TemporaryDirectory() {
    std::error_code ec;
    fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
    fs::remove_all(path_, ec);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

// Sets or unsets an environment variable for one scope.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) {
      old_ = old;
    }
    if (value) {
      ::setenv(name, value, 1);
    } else {
      ::unsetenv(name);
    }
  }
  ~ScopedEnvironment() {
    if (old_) {
      ::setenv(name_, old_->c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

void touch(const std::string& path) {
  std::ofstream(path) << "x";
}

Url dirUrl(const std::string& path) {
  return *Url::fileUrlWithPath(path, true);
}

Url fileUrl(const std::string& path) {
  return *Url::fileUrlWithPath(path, false);
}

DirectoryRelationship relation(const Url& directory, const Url& item) {
  auto result = relationshipOfDirectoryToItem(directory, item);
  EXPECT_TRUE(result.has_value()) << directory.absoluteString() << " / " << item.absoluteString()
                                  << ": " << (result ? "" : result.error()->description());
  return result.value_or(DirectoryRelationship::Other);
}

TEST(FileSystem, HomeDirectoryComesFromHome) {
  ScopedEnvironment home("HOME", "/somewhere/else");
  EXPECT_EQ(homeDirectory(), "/somewhere/else");
}

TEST(FileSystem, HomeDirectoryFallsBackToThePasswordDatabase) {
  ScopedEnvironment home("HOME", nullptr);
  struct passwd* entry = ::getpwuid(::getuid());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(homeDirectory(), entry->pw_dir);
}

TEST(FileSystem, FileExistsForFilesDirectoriesAndDanglingLinks) {
  TemporaryDirectory dir;
  touch(dir / "file");
  fs::create_symlink(dir / "nowhere", dir / "dangling");
  EXPECT_TRUE(fileExistsAtPath(dir / "file"));
  EXPECT_TRUE(fileExistsAtPath(dir.path()));
  EXPECT_TRUE(fileExistsAtPath(dir / "dangling"));
  EXPECT_FALSE(fileExistsAtPath(dir / "nowhere"));
  EXPECT_FALSE(fileExistsAtPath(dir / "file/below"));
}

TEST(FileSystem, CreateDirectoryMakesEveryMissingParent) {
  TemporaryDirectory dir;
  std::string deep = dir / "a/b/c";
  ASSERT_TRUE(createDirectoryAtPath(deep).has_value());
  EXPECT_TRUE(fs::is_directory(deep));
  // Creating what exists already succeeds.
  EXPECT_TRUE(createDirectoryAtPath(deep).has_value());
}

TEST(FileSystem, CreateDirectoryFailsWithThePathWhenAFileIsInTheWay) {
  TemporaryDirectory dir;
  touch(dir / "file");
  for (const std::string& path : {dir / "file", dir / "file/sub"}) {
    auto result = createDirectoryAtPath(path);
    ASSERT_FALSE(result.has_value()) << path;
    EXPECT_EQ(result.error()->domain, kPosixErrorDomain);
    EXPECT_EQ(result.error()->code, ENOTDIR) << path;
    EXPECT_EQ(result.error()->userInfo.at(kPosixErrorPathKey), Value(path));
    EXPECT_NE(result.error()->localizedDescription().find(path), std::string::npos);
  }
}

TEST(FileSystem, AppendingPathComponentNeverDoublesTheSeparator) {
  EXPECT_EQ(appendingPathComponent("/a", "b"), "/a/b");
  EXPECT_EQ(appendingPathComponent("/a/", "b"), "/a/b");
  EXPECT_EQ(appendingPathComponent("/a//", "/b"), "/a/b");
  EXPECT_EQ(appendingPathComponent("/", "b"), "/b");
  EXPECT_EQ(appendingPathComponent("a", "b.plist"), "a/b.plist");
  EXPECT_EQ(appendingPathComponent("", "b"), "b");
}

TEST(FileSystem, PosixErrorCarriesErrnoTextAndPath) {
  ErrorPtr error = posixError(ENOENT, "Could not open", "/x/y");
  EXPECT_EQ(error->domain, "posix");
  EXPECT_EQ(error->code, ENOENT);
  EXPECT_EQ(error->userInfo.at("path"), Value("/x/y"));
  EXPECT_EQ(error->localizedDescription(), "Could not open \"/x/y\": No such file or directory");
}

TEST(DirectoryRelationship, ContainsSameAndOther) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage/sub");
  touch(dir / "storage/sub/doc.txt");
  fs::create_directories(dir / "elsewhere");
  Url storage = dirUrl(dir / "storage");
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/sub/doc.txt")),
            DirectoryRelationship::Contains);
  EXPECT_EQ(relation(storage, dirUrl(dir / "storage/sub")), DirectoryRelationship::Contains);
  EXPECT_EQ(relation(storage, dirUrl(dir / "storage")), DirectoryRelationship::Same);
  EXPECT_EQ(relation(storage, dirUrl(dir / "elsewhere")), DirectoryRelationship::Other);
  EXPECT_EQ(relation(storage, dirUrl(dir.path())), DirectoryRelationship::Other);
}

TEST(DirectoryRelationship, ComparesWholeComponentsNotStringPrefixes) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "a/b");
  fs::create_directories(dir / "a/bc");
  EXPECT_EQ(relation(dirUrl(dir / "a/b"), fileUrl(dir / "a/bc/x")), DirectoryRelationship::Other);
  EXPECT_EQ(relation(dirUrl(dir / "a/b"), dirUrl(dir / "a/bc")), DirectoryRelationship::Other);
}

TEST(DirectoryRelationship, DotDotOutOfTheDirectoryIsOther) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage");
  Url storage = dirUrl(dir / "storage");
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/../../etc/passwd")),
            DirectoryRelationship::Other);
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/missing/../../x")),
            DirectoryRelationship::Other);
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/missing/../y")),
            DirectoryRelationship::Contains);
  EXPECT_EQ(relation(storage, dirUrl(dir / "storage/./sub/..")), DirectoryRelationship::Same);
}

TEST(DirectoryRelationship, ASymbolicLinkInsidePointingOutsideIsOther) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage");
  fs::create_directories(dir / "outside");
  touch(dir / "outside/secret");
  fs::create_symlink(dir / "outside", dir / "storage/escape");
  fs::create_symlink(dir / "outside/secret", dir / "storage/secret-link");
  Url storage = dirUrl(dir / "storage");
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/escape/secret")),
            DirectoryRelationship::Other);
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/escape/not-yet-there")),
            DirectoryRelationship::Other);
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/secret-link")), DirectoryRelationship::Other);
}

TEST(DirectoryRelationship, ADanglingLinkPointingOutsideIsOther) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage");
  fs::create_directories(dir / "outside");
  // Whatever is created through these links lands outside the storage directory.
  fs::create_symlink(dir / "outside/new-file", dir / "storage/absolute");
  fs::create_symlink("../outside/new-dir", dir / "storage/relative");
  Url storage = dirUrl(dir / "storage");
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/absolute")), DirectoryRelationship::Other);
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/relative/below")),
            DirectoryRelationship::Other);
}

TEST(DirectoryRelationship, ALinkThatStaysInsideIsContains) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage/real");
  fs::create_symlink("real", dir / "storage/alias");
  fs::create_symlink("real/pending", dir / "storage/dangling-inside");
  Url storage = dirUrl(dir / "storage");
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/alias/doc")), DirectoryRelationship::Contains);
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/dangling-inside")),
            DirectoryRelationship::Contains);
}

TEST(DirectoryRelationship, TheDirectoryItselfMayBeReachedThroughALink) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "real-storage");
  fs::create_symlink(dir / "real-storage", dir / "storage");
  EXPECT_EQ(relation(dirUrl(dir / "storage"), fileUrl(dir / "real-storage/doc")),
            DirectoryRelationship::Contains);
  EXPECT_EQ(relation(dirUrl(dir / "storage"), dirUrl(dir / "real-storage")),
            DirectoryRelationship::Same);
}

TEST(DirectoryRelationship, AnItemNotYetPresentInsideIsContains) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage");
  Url storage = dirUrl(dir / "storage");
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/not/downloaded/yet.txt")),
            DirectoryRelationship::Contains);
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/with space.txt")),
            DirectoryRelationship::Contains);
}

TEST(DirectoryRelationship, TheRelativePathIsTheResolvedItemBelowTheResolvedDirectory) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "real-storage/real-sub");
  fs::create_symlink(dir / "real-storage", dir / "storage");
  fs::create_symlink("real-sub", dir / "real-storage/alias");
  touch(dir / "real-storage/real-sub/doc.txt");
  auto relative = [&](const Url& directory, const Url& item) {
    std::string path = "untouched";
    auto result = relationshipOfDirectoryToItem(directory, item, &path);
    EXPECT_TRUE(result.has_value()) << item.absoluteString();
    EXPECT_EQ(result.value_or(DirectoryRelationship::Other), DirectoryRelationship::Contains)
        << item.absoluteString();
    return path;
  };
  const Url storage = dirUrl(dir / "storage");
  // Links on either side are resolved, existing or missing items alike.
  EXPECT_EQ(relative(storage, fileUrl(dir / "storage/alias/doc.txt")), "real-sub/doc.txt");
  EXPECT_EQ(relative(storage, fileUrl(dir / "real-storage/alias/new.txt")), "real-sub/new.txt");
  EXPECT_EQ(relative(storage, fileUrl(dir / "storage/missing/deeper/new.txt")),
            "missing/deeper/new.txt");
  EXPECT_EQ(relative(storage, fileUrl(dir / "storage//missing//new.txt")), "missing/new.txt");
  EXPECT_EQ(relative(storage, dirUrl(dir / "storage/alias")), "real-sub");
  EXPECT_EQ(relative(dirUrl(dir / "elsewhere/../real-storage/"), fileUrl(dir / "storage/x")),
            "x");

  // Other and Same leave it alone.
  std::string path = "untouched";
  EXPECT_EQ(relationshipOfDirectoryToItem(storage, dirUrl(dir / "real-storage"), &path).value(),
            DirectoryRelationship::Same);
  EXPECT_EQ(relationshipOfDirectoryToItem(storage, fileUrl(dir / "other"), &path).value(),
            DirectoryRelationship::Other);
  EXPECT_EQ(path, "untouched");
}

TEST(DirectoryRelationship, AMissingNameBelowAFileIsJudgedLikeAnyMissingName) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage");
  touch(dir / "storage/file");
  touch(dir / "outside");
  const Url storage = dirUrl(dir / "storage");
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/file/below")), DirectoryRelationship::Contains);
  EXPECT_EQ(relation(storage, fileUrl(dir / "outside/below")), DirectoryRelationship::Other);
}

// The answer follows the file system as it is at the time of each question, also for the
// same directory URL asked about again after the directory was replaced.
TEST(DirectoryRelationship, ADirectoryReplacedByAnotherOneIsJudgedAsItIsNow) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage");
  const Url storage = dirUrl(dir / "storage");
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/doc")), DirectoryRelationship::Contains);

  // Moved away, and a new directory made in its place: the moved one is no longer it.
  fs::rename(dir / "storage", dir / "moved");
  fs::create_directories(dir / "storage");
  EXPECT_EQ(relation(storage, fileUrl(dir / "moved/doc")), DirectoryRelationship::Other);
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/doc")), DirectoryRelationship::Contains);

  // Removed and not made again: items written below it are still below it.
  fs::remove(dir / "storage");
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/doc")), DirectoryRelationship::Contains);
  EXPECT_EQ(relation(storage, dirUrl(dir / "storage")), DirectoryRelationship::Same);
}

TEST(DirectoryRelationship, ADirectoryReplacedByALinkElsewhereIsJudgedByTheLinksTarget) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage");
  fs::create_directories(dir / "elsewhere");
  const Url storage = dirUrl(dir / "storage");
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/doc")), DirectoryRelationship::Contains);
  EXPECT_EQ(relation(storage, fileUrl(dir / "elsewhere/doc")), DirectoryRelationship::Other);

  fs::remove(dir / "storage");
  fs::create_symlink(dir / "elsewhere", dir / "storage");
  EXPECT_EQ(relation(storage, fileUrl(dir / "elsewhere/doc")), DirectoryRelationship::Contains);
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/doc")), DirectoryRelationship::Contains);
  EXPECT_EQ(relation(storage, dirUrl(dir / "elsewhere")), DirectoryRelationship::Same);

  // And back to a directory of its own: what is elsewhere is outside again.
  fs::remove(dir / "storage");
  fs::create_directories(dir / "storage");
  EXPECT_EQ(relation(storage, fileUrl(dir / "elsewhere/doc")), DirectoryRelationship::Other);
  EXPECT_EQ(relation(storage, fileUrl(dir / "storage/doc")), DirectoryRelationship::Contains);
}

TEST(DirectoryRelationship, AnItemReplacedByALinkOutsideIsOther) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage/sub");
  fs::create_directories(dir / "outside");
  const Url storage = dirUrl(dir / "storage");
  const Url item = fileUrl(dir / "storage/sub/doc");
  EXPECT_EQ(relation(storage, item), DirectoryRelationship::Contains);
  fs::remove(dir / "storage/sub");
  fs::create_symlink(dir / "outside", dir / "storage/sub");
  EXPECT_EQ(relation(storage, item), DirectoryRelationship::Other);
  fs::remove(dir / "storage/sub");
  fs::create_symlink(dir / "outside/gone", dir / "storage/sub");
  EXPECT_EQ(relation(storage, item), DirectoryRelationship::Other);
}

// Without dangling links, the answer and the relative path are those of comparing the
// weakly canonical forms of both sides component by component, whichever way each side
// happens to be resolved (existing, missing below an existing ancestor, through links).
TEST(DirectoryRelationship, AgreesWithComparingWeaklyCanonicalFormsAcrossATreeOfLinks) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage/sub/deeper");
  fs::create_directories(dir / "outside/inner");
  touch(dir / "storage/sub/doc.txt");
  touch(dir / "outside/inner/file");
  fs::create_symlink("sub", dir / "storage/alias");
  fs::create_symlink(dir / "outside", dir / "storage/escape");
  fs::create_symlink("../storage/sub", dir / "outside/back");
  fs::create_symlink(dir / "storage", dir / "storage-link");
  fs::create_symlink("storage-link/alias", dir / "chain");

  const std::vector<std::string> directories = {"storage", "storage/sub", "storage-link",
                                                "chain", "outside", "storage/missing"};
  const std::vector<std::string> items = {
      "storage", "storage/sub/doc.txt", "storage/alias/doc.txt", "storage/alias/new/x",
      "storage/escape/inner/file", "storage/escape/new", "outside/back/doc.txt",
      "outside/back/new/deeper", "storage-link/sub", "chain/deeper/new.txt", "chain",
      "storage/missing", "storage/missing/a/b", "storage//sub///deeper/new",
      "storage/sub/doc.txt/below", "storage/sub/../alias/x", "storage/./sub/new",
      "outside/missing/../../storage/sub/x", "storagex/sub", dir.path()};

  auto reference = [](const std::string& directory, const std::string& item,
                      std::string* relative) {
    auto parts = [](const std::string& path) {
      std::vector<std::string> result;
      for (const auto& part : fs::weakly_canonical(path)) {
        if (!part.empty())
          result.push_back(part.string());
      }
      return result;
    };
    const auto d = parts(directory);
    const auto i = parts(item);
    if (i.size() < d.size() || !std::equal(d.begin(), d.end(), i.begin()))
      return DirectoryRelationship::Other;
    if (i.size() == d.size())
      return DirectoryRelationship::Same;
    relative->clear();
    for (std::size_t k = d.size(); k < i.size(); ++k)
      *relative += (relative->empty() ? "" : "/") + i[k];
    return DirectoryRelationship::Contains;
  };

  for (const std::string& itemName : items) {
    const std::string item = itemName.front() == '/' ? itemName : dir / itemName;
    // Resolved once and compared with every directory, as a look-up among providers does.
    const ResolvedItem resolved(fileUrl(item));
    for (const std::string& directoryName : directories) {
      const std::string directory = dir / directoryName;
      std::string expectedRelative;
      const DirectoryRelationship expected = reference(directory, item, &expectedRelative);
      for (const Url& directoryUrl : {dirUrl(directory), fileUrl(directory)}) {
        for (const bool ahead : {false, true}) {
          SCOPED_TRACE(ahead ? "item resolved ahead" : "item resolved per call");
          std::string relative;
          auto result = ahead
                            ? relationshipOfDirectoryToItem(directoryUrl, resolved, &relative)
                            : relationshipOfDirectoryToItem(directoryUrl, fileUrl(item), &relative);
          ASSERT_TRUE(result.has_value()) << directory << " / " << item;
          EXPECT_EQ(*result, expected) << directory << " / " << item;
          if (expected == DirectoryRelationship::Contains) {
            EXPECT_EQ(relative, expectedRelative) << directory << " / " << item;
          }
        }
      }
    }
  }
}

TEST(DirectoryRelationship, AnItemResolvedAheadIsJudgedOnThatResolution) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage/real");
  fs::create_directories(dir / "outside");
  fs::create_symlink(dir / "storage/real", dir / "storage/moving");
  const ResolvedItem item(fileUrl(dir / "storage/moving/doc"));
  // The link now points outside; the item was resolved while it pointed inside.
  fs::remove(dir / "storage/moving");
  fs::create_symlink(dir / "outside", dir / "storage/moving");
  EXPECT_EQ(relationshipOfDirectoryToItem(dirUrl(dir / "storage"), item),
            DirectoryRelationship::Contains);
  EXPECT_EQ(
      relationshipOfDirectoryToItem(dirUrl(dir / "storage"), fileUrl(dir / "storage/moving/doc")),
      DirectoryRelationship::Other);
}

TEST(DirectoryRelationship, AnItemResolvedAheadFailsAsTheItemWouldWithTheDirectorysErrorFirst) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage");
  fs::create_symlink("loop", dir / "storage/loop");
  const Url web = *Url::fromString("http://example.com/storage/");
  const ResolvedItem looping(fileUrl(dir / "storage/loop/doc"));
  const ResolvedItem notAFile(web);

  auto loop = relationshipOfDirectoryToItem(dirUrl(dir / "storage"), looping);
  ASSERT_FALSE(loop.has_value());
  EXPECT_EQ(loop.error()->code, ELOOP);
  auto webItem = relationshipOfDirectoryToItem(dirUrl(dir / "storage"), notAFile);
  ASSERT_FALSE(webItem.has_value());
  EXPECT_EQ(webItem.error()->code, EINVAL);
  // A directory that is not a file URL, or that cannot be resolved itself, is what is reported.
  auto webDirectory = relationshipOfDirectoryToItem(web, looping);
  ASSERT_FALSE(webDirectory.has_value());
  EXPECT_EQ(webDirectory.error()->code, EINVAL);
  // Both sides loop: the same error as the item resolved per call, the directory's.
  fs::create_symlink("other", dir / "other");
  auto bothLoop = relationshipOfDirectoryToItem(dirUrl(dir / "other"), looping);
  auto perCall =
      relationshipOfDirectoryToItem(dirUrl(dir / "other"), fileUrl(dir / "storage/loop/doc"));
  ASSERT_FALSE(bothLoop.has_value());
  ASSERT_FALSE(perCall.has_value());
  EXPECT_EQ(bothLoop.error()->code, ELOOP);
  EXPECT_EQ(bothLoop.error()->userInfo, perCall.error()->userInfo);
}

TEST(DirectoryRelationship, TrailingSeparatorsAreIgnored) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage");
  EXPECT_EQ(relation(fileUrl(dir / "storage"), dirUrl(dir / "storage")),
            DirectoryRelationship::Same);
  EXPECT_EQ(relation(*Url::fromString(dirUrl(dir / "storage").absoluteString() + "/"),
                     fileUrl(dir / "storage")),
            DirectoryRelationship::Same);
  EXPECT_EQ(relation(dirUrl(dir / "missing"), fileUrl(dir / "missing")),
            DirectoryRelationship::Same);
}

TEST(DirectoryRelationship, ANonFileUrlFails) {
  TemporaryDirectory dir;
  Url web = *Url::fromString("http://example.com/storage/");
  auto result = relationshipOfDirectoryToItem(web, fileUrl(dir / "x"));
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error()->code, EINVAL);
  EXPECT_FALSE(relationshipOfDirectoryToItem(dirUrl(dir.path()), web).has_value());
}

TEST(DirectoryRelationship, ADecodedNulFails) {
  TemporaryDirectory dir;
  auto item = Url::fromString(dirUrl(dir.path()).absoluteString() + "x%00/../../etc");
  ASSERT_TRUE(item.has_value());
  EXPECT_FALSE(relationshipOfDirectoryToItem(dirUrl(dir.path()), *item).has_value());
}

TEST(DirectoryRelationship, ASymbolicLinkLoopFails) {
  TemporaryDirectory dir;
  fs::create_directories(dir / "storage");
  fs::create_symlink(dir / "storage/b", dir / "storage/a");
  fs::create_symlink(dir / "storage/a", dir / "storage/b");
  fs::create_symlink("self", dir / "storage/self");
  for (const char* name : {"storage/a/doc", "storage/self", "storage/b"}) {
    auto result = relationshipOfDirectoryToItem(dirUrl(dir / "storage"), fileUrl(dir / name));
    ASSERT_FALSE(result.has_value()) << name;
    EXPECT_EQ(result.error()->code, ELOOP) << name;
  }
}

// Runs `body` in a child process and returns its exit status; as root the child first becomes
// "nobody", so that permission checks apply to it.
int runUnprivileged(const std::function<int()>& body) {
  pid_t child = ::fork();
  if (child == 0) {
    if (::geteuid() == 0 &&
        (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0)) {
      ::_exit(255);
    }
    ::_exit(body());
  }
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
    return -1;
  }
  return WEXITSTATUS(status);
}

TEST(DirectoryRelationship, AnUnreadablePrefixFails) {
  TemporaryDirectory dir;
  fs::permissions(dir.path(),
                  fs::perms::owner_all | fs::perms::others_read | fs::perms::others_exec);
  fs::create_directories(dir / "locked/inner");
  fs::permissions(dir / "locked", fs::perms::owner_all);
  int code = runUnprivileged([&] {
    auto result =
        relationshipOfDirectoryToItem(dirUrl(dir.path()), fileUrl(dir / "locked/inner/doc"));
    return result.has_value() ? 0 : static_cast<int>(result.error()->code);
  });
  EXPECT_EQ(code, EACCES);
}

}  // namespace
}  // namespace daskel::platform
