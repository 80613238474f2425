// Test support for the extension tests: a temporary directory tree that is removed
// afterwards, and extension bundles written into it as real directories and files.
//
// THREADING NOTES: used from the test's own thread only.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/extensions/ExtensionBundle.h"
#include "platform/plist/PropertyList.h"
#include "platform/value/Value.h"

namespace daskel::platform::extension_test {

namespace fs = std::filesystem;

inline constexpr char kProviderPoint[] = "com.orvane.daskel-nonui";

// What a test bundle's Info.plist says; info() builds the dictionary.
struct BundleContent {
  std::string identifier = "com.example.provider";
  std::string executable = "provider";
  std::optional<std::string> version = "1.0";
  std::string point = kProviderPoint;
  std::optional<std::string> documentGroup = "group.com.example";
  std::vector<std::string> groups = {"group.com.example"};

  Value info() const {
    Value::Dictionary extension{{kOxExtensionPointIdentifierKey, Value(point)}};
    if (documentGroup)
      extension[kOxExtensionDaskelDocumentGroupKey] = Value(*documentGroup);
    Value::Array groupValues;
    for (const std::string& group : groups)
      groupValues.emplace_back(group);
    Value::Dictionary info{
        {kBundleIdentifierKey, Value(identifier)},
        {kBundleExecutableKey, Value(executable)},
        {kOxExtensionKey, Value(std::move(extension))},
        {kEntitlementsKey,
         Value(Value::Dictionary{{kApplicationGroupsEntitlement, Value(std::move(groupValues))}})},
    };
    if (version)
      info[kBundleVersionKey] = Value(*version);
    return Value(std::move(info));
  }
};

// Writes `bytes` to `path` in place (truncating) and sets `mode`.
inline void writeFile(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    ASSERT_TRUE(out.good()) << "cannot write " << path;
  }
  ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path << ": " << std::strerror(errno);
}

// Replaces `path` by a new file (a new inode) renamed over it, the way installers update
// files. Returns nothing; failures fail the test.
inline void replaceFile(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
  const std::string temporary = path + ".new";
  writeFile(temporary, bytes, mode);
  ASSERT_EQ(::rename(temporary.c_str(), path.c_str()), 0) << path << ": " << std::strerror(errno);
}

inline std::string executableBytes() {
  return "#!/bin/sh\nexit 0\n";
}

// A temporary directory for one test, removed with everything in it at the end.
class TemporaryTree {
 public:
  TemporaryTree() {
    std::string pattern = (fs::temp_directory_path() / "daskel-extensions-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
      ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
    root_ = fs::canonical(pattern);
  }
  ~TemporaryTree() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  TemporaryTree(const TemporaryTree&) = delete;
  TemporaryTree& operator=(const TemporaryTree&) = delete;

  const fs::path& root() const { return root_; }
  std::string path(const std::string& relative) const { return (root_ / relative).string(); }

  // Makes directory `relative` (and its parents).
  std::string directory(const std::string& relative) const {
    fs::create_directories(root_ / relative);
    return path(relative);
  }

  // Writes bundle `<directory>/<name>` (name with its ".dkext") with an Info.plist from
  // `content` and an executable file; returns the bundle's path.
  std::string bundle(const std::string& directory,
                     const std::string& name,
                     const BundleContent& content = {},
                     bool withExecutable = true) const {
    const std::string bundlePath = (fs::path(directory) / name).string();
    fs::create_directories(bundlePath);
    writeFile(bundlePath + "/" + kInfoPlistFileName, serializeXmlPropertyList(content.info()));
    if (withExecutable)
      writeFile(bundlePath + "/" + content.executable, executableBytes(), 0755);
    return bundlePath;
  }

 private:
  fs::path root_;
};

inline std::string infoPlistPath(const std::string& bundlePath) {
  return bundlePath + "/" + kInfoPlistFileName;
}

}  // namespace daskel::platform::extension_test
