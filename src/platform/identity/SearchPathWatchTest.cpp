#include "platform/identity/SearchPathWatch.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/identity/IdentityTestSupport.h"
#include "platform/identity/ScopedFd.h"
#include "platform/identity/SearchPathDirectory.h"

namespace daskel::platform {
namespace {

namespace fs = std::filesystem;

// Each test works in its own temporary directory: manifests in apps/, a symbolic link
// apps/linked.plist to a file in elsewhere/.
class SearchPathWatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    apps_ = root_ / "apps";
    fs::create_directories(apps_);
    fs::create_directories(root_ / "elsewhere");
    write(apps_ / "alpha.plist", "alpha");
    write(root_ / "elsewhere" / "target.plist", "target");
    fs::create_symlink(root_ / "elsewhere" / "target.plist", apps_ / "linked.plist");
  }

  static void write(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text;
  }
  static void append(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::app) << text;
  }

  // What a registry does: reset, list, watch each file or remember its signature.
  void watchAsARegistryWould(const std::vector<std::string>& directories) {
    watch_.reset(directories);
    std::map<std::string, int> errors;
    for (const std::string& directory : directories) {
      for (const SearchPathEntry& entry : listSearchPathDirectoryEntries(
               directory, [](const char*) { return true; }, "test files", errors)) {
        const std::string path = directory + "/" + entry.name;
        if (entry.name == "." || entry.name == "..")
          continue;
        if (!watch_.watchFile(path, entry.type))
          watch_.checkSignature(path, FileSignature::ofPath(path));
      }
    }
  }

  // Watches `directories` until a check finds nothing changed. Directories above the
  // temporary one (/tmp) may see unrelated attribute changes, each of which counts as a
  // change; a watch that never settles reports changes that did not happen.
  bool settles(const std::vector<std::string>& directories) {
    for (int attempt = 0; attempt < 20; ++attempt) {
      watchAsARegistryWould(directories);
      if (!watch_.changed())
        return true;
    }
    return false;
  }

  testing::TemporaryTree tree_{"watch"};
  const fs::path root_ = tree_.root();
  fs::path apps_;
  SearchPathWatch watch_;
};

TEST_F(SearchPathWatchTest, EveryChangeToAFileOfTheDirectoryIsReportedUntilTheNextReset) {
  struct Case {
    const char* what;
    std::function<void()> prepare;
    std::function<void()> change;
  };
  const fs::path alpha = apps_ / "alpha.plist";
  const fs::path target = root_ / "elsewhere" / "target.plist";
  const std::vector<Case> cases = {
      {"a file added", nullptr, [&] { write(apps_ / "beta.plist", "beta"); }},
      {"a file written in place", nullptr, [&] { append(alpha, "more"); }},
      {"a file touched", nullptr,
       [&] { ASSERT_EQ(::utimensat(AT_FDCWD, alpha.c_str(), nullptr, 0), 0); }},
      {"a file chmod'ed", nullptr, [&] { fs::permissions(alpha, fs::perms(0666)); }},
      {"a file replaced by rename", [&] { write(root_ / "staging", "new alpha"); },
       [&] { fs::rename(root_ / "staging", alpha); }},
      {"a file renamed away", nullptr, [&] { fs::rename(apps_ / "beta.plist", root_ / "beta"); }},
      {"a file renamed in", nullptr, [&] { fs::rename(root_ / "beta", apps_ / "beta.plist"); }},
      {"a file removed", nullptr, [&] { fs::remove(apps_ / "beta.plist"); }},
      {"a file written through a hard link elsewhere",
       [&] { fs::create_hard_link(alpha, root_ / "elsewhere" / "alpha-link"); },
       [&] { append(root_ / "elsewhere" / "alpha-link", "more"); }},
      {"the target of a symbolic link written in place", nullptr, [&] { append(target, "x"); }},
      {"the target of a symbolic link chmod'ed", nullptr,
       [&] { fs::permissions(target, fs::perms(0600)); }},
      {"the target of a symbolic link replaced by rename",
       [&] { write(root_ / "elsewhere" / "staging", "new target"); },
       [&] { fs::rename(root_ / "elsewhere" / "staging", target); }},
      {"a symbolic link retargeted", [&] { write(root_ / "elsewhere" / "other.plist", "other"); },
       [&] {
         fs::remove(apps_ / "linked.plist");
         fs::create_symlink(root_ / "elsewhere" / "other.plist", apps_ / "linked.plist");
       }},
  };
  std::vector<Case> all = cases;
  if (::geteuid() == 0) {
    all.push_back(
        {"a file chown'ed", nullptr, [&] { ASSERT_EQ(::chown(alpha.c_str(), 12345, 12345), 0); }});
  }
  for (const Case& c : all) {
    SCOPED_TRACE(c.what);
    if (c.prepare)
      c.prepare();
    ASSERT_TRUE(settles({apps_.string()}));
    c.change();
    EXPECT_TRUE(watch_.changed());
    // Seen once, it stays seen: the caller has not read anything again yet.
    EXPECT_TRUE(watch_.knownChanged());
    EXPECT_TRUE(watch_.changed());
  }
}

TEST_F(SearchPathWatchTest, ADirectoryChangedItselfOrReplacedAboveIsReported) {
  const fs::path nested = root_ / "mid" / "apps";
  fs::create_directories(nested);
  write(nested / "alpha.plist", "alpha");

  ASSERT_TRUE(settles({nested.string()}));
  fs::permissions(nested, fs::perms(0700));
  EXPECT_TRUE(watch_.changed()) << "the directory chmod'ed";

  ASSERT_TRUE(settles({nested.string()}));
  fs::rename(nested, root_ / "mid" / "apps.old");
  fs::create_directories(nested);
  EXPECT_TRUE(watch_.changed()) << "the directory replaced";

  // An empty directory can be replaced in one step.
  fs::create_directories(root_ / "empty");
  fs::create_directories(root_ / "replacement");
  ASSERT_TRUE(settles({(root_ / "empty").string()}));
  fs::rename(root_ / "replacement", root_ / "empty");
  EXPECT_TRUE(watch_.changed()) << "an empty directory replaced by rename";

  // Nothing happens to the directory's own inode here: only the path now leads elsewhere.
  ASSERT_TRUE(settles({nested.string()}));
  fs::rename(root_ / "mid", root_ / "mid.old");
  fs::create_directories(nested);
  EXPECT_TRUE(watch_.changed()) << "a directory above replaced";

  ASSERT_TRUE(settles({nested.string()}));
  fs::remove_all(root_ / "mid");
  EXPECT_TRUE(watch_.changed()) << "a directory above removed";
}

TEST_F(SearchPathWatchTest, ADirectoryReachedThroughASymbolicLinkIsFollowedWhenRetargeted) {
  fs::create_directories(root_ / "v1");
  fs::create_directories(root_ / "v2");
  write(root_ / "v1" / "alpha.plist", "one");
  write(root_ / "v2" / "alpha.plist", "two");
  fs::create_symlink(root_ / "v1", root_ / "current");
  const std::string throughLink = (root_ / "current").string();
  const std::string throughLinkedParent = (root_ / "current" / ".." / "v1").string();

  ASSERT_TRUE(settles({throughLink}));
  fs::remove(root_ / "current");
  fs::create_symlink(root_ / "v2", root_ / "current");
  EXPECT_TRUE(watch_.changed()) << "the link retargeted";

  // The link's target edited still counts as the directory's content.
  ASSERT_TRUE(settles({throughLink}));
  append(root_ / "v2" / "alpha.plist", "more");
  EXPECT_TRUE(watch_.changed()) << "a file in the linked directory written";

  ASSERT_TRUE(settles({throughLinkedParent}));
  fs::remove(root_ / "current");
  fs::create_symlink(root_ / "v1" / "missing", root_ / "current");
  EXPECT_TRUE(watch_.changed()) << "a link on the way retargeted";

  // A link in the target of the link: nothing on the path as spelled changes.
  fs::remove(root_ / "current");
  fs::create_symlink(root_ / "release", root_ / "current");
  fs::create_symlink(root_ / "v1", root_ / "release");
  ASSERT_TRUE(settles({throughLink}));
  fs::remove(root_ / "release");
  fs::create_symlink(root_ / "v2", root_ / "release");
  EXPECT_TRUE(watch_.changed()) << "a link the link leads through retargeted";
}

TEST_F(SearchPathWatchTest, AMissingDirectoryIsQuietUntilItAppears) {
  const fs::path missing = root_ / "later" / "apps";
  ASSERT_TRUE(settles({missing.string(), apps_.string()}));
  fs::create_directories(root_ / "later");
  fs::create_directories(missing);
  EXPECT_TRUE(watch_.changed());

  // A directory that cannot be one (a file on the way) is as quiet, and as watched.
  const std::string impossible = (apps_ / "alpha.plist" / "apps").string();
  ASSERT_TRUE(settles({impossible}));
  fs::remove(apps_ / "alpha.plist");
  fs::create_directories(impossible);
  EXPECT_TRUE(watch_.changed());
}

TEST_F(SearchPathWatchTest, AMountOverTheDirectoryIsReported) {
  // Regular files only: nothing is stat'ed by the check, only the mount table can tell.
  fs::remove(apps_ / "linked.plist");
  fs::create_directories(root_ / "other");
  write(root_ / "other" / "beta.plist", "beta");
  // In a child with a mount namespace of its own, so that no other process sees the mount.
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      ::_exit(2);
    }
    if (!settles({apps_.string()}))
      ::_exit(3);
    if (::mount((root_ / "other").c_str(), apps_.c_str(), nullptr, MS_BIND, nullptr) != 0)
      ::_exit(2);
    ::_exit(watch_.changed() ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 2)
    GTEST_SKIP() << "needs privilege to mount in a namespace of its own";
  EXPECT_NE(WEXITSTATUS(status), 3) << "the watch never settled";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "the mount went unreported";
}

TEST_F(SearchPathWatchTest, AnotherDescriptorIsPolledInTheSameCheckWhateverTheWatchSays) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ScopedFd readEnd(ends[0]), writeEnd(ends[1]);

  // Before any reset nothing is watched, and the descriptor is still polled.
  struct pollfd other = {readEnd.get(), POLLIN, 0};
  EXPECT_TRUE(watch_.changed(&other));
  EXPECT_EQ(other.revents, 0);

  // Whatever the watch answers (a directory above may see unrelated changes), the
  // descriptor's own events come back.
  ASSERT_TRUE(settles({apps_.string()}));
  other.revents = POLLERR;
  watch_.changed(&other);
  EXPECT_EQ(other.revents, 0) << "revents is what the poll said, not what was there";

  ASSERT_EQ(::write(writeEnd.get(), "x", 1), 1);
  watch_.changed(&other);
  EXPECT_EQ(other.revents, POLLIN);

  append(apps_ / "alpha.plist", "more");
  EXPECT_TRUE(watch_.changed(&other));
  EXPECT_EQ(other.revents, POLLIN);

  // A closed write end reads as hang-up, as an exited process's pidfd reads as input.
  writeEnd.reset();
  char byte;
  ASSERT_EQ(::read(readEnd.get(), &byte, 1), 1);
  EXPECT_TRUE(watch_.changed(&other));
  EXPECT_NE(other.revents & POLLHUP, 0);
}

}  // namespace
}  // namespace daskel::platform
