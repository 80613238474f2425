// Listing one directory of a search path (DASKEL_APPLICATIONS_PATH, DASKEL_EXTENSIONS_PATH)
// for the files a registry reads from it, with failures reported once rather than on every
// rescan.
//
// THREADING NOTES: free functions; the caller serialises access to `reportedErrors`.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace daskel::platform {

// One name listed, with the file type the directory entry gives (DT_REG, DT_LNK, ...;
// DT_UNKNOWN on file systems that do not record it).
struct SearchPathEntry {
  std::string name;
  unsigned char type = 0;

  bool operator==(const SearchPathEntry&) const = default;
};

// The entries of `directory` whose names `accept` takes, sorted by name. A missing directory
// lists nothing and forgets any error reported for it. Any other failure lists nothing and
// logs "Cannot read <what> in <directory>: <errno text>" once per directory and errno,
// remembered in `reportedErrors` (cleared again once the directory reads).
std::vector<SearchPathEntry> listSearchPathDirectoryEntries(
    const std::string& directory,
    const std::function<bool(const char*)>& accept,
    std::string_view what,
    std::map<std::string, int>& reportedErrors);

// The names alone, as listSearchPathDirectoryEntries lists them.
std::vector<std::string> listSearchPathDirectory(const std::string& directory,
                                                 const std::function<bool(const char*)>& accept,
                                                 std::string_view what,
                                                 std::map<std::string, int>& reportedErrors);

}  // namespace daskel::platform
