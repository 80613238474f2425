// Test support shared by the identity module's tests: a temporary directory per test.
#pragma once

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

namespace daskel::platform::testing {

// A fresh directory, daskel-<purpose>-XXXXXX under the system's temporary directory, with its
// canonical path; removed with everything in it when the tree goes.
class TemporaryTree {
 public:
  explicit TemporaryTree(const std::string& purpose) {
    std::string pattern =
        (std::filesystem::temp_directory_path() / ("daskel-" + purpose + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr)
      ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
    root_ = std::filesystem::canonical(pattern);
  }
  ~TemporaryTree() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  TemporaryTree(const TemporaryTree&) = delete;
  TemporaryTree& operator=(const TemporaryTree&) = delete;

  const std::filesystem::path& root() const { return root_; }
  std::string path(const std::string& relative) const { return (root_ / relative).string(); }

 private:
  std::filesystem::path root_;
};

}  // namespace daskel::platform::testing
