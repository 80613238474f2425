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
