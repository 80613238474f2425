// Listing one directory of a search path (DASKEL_APPLICATIONS_PATH, DASKEL_EXTENSIONS_PATH)
// for the files a registry reads from it, with failures reported once rather than on every
// rescan.
//
// THREADING NOTES: a free function; the caller serialises access to `reportedErrors`.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace daskel::platform {

// The names in `directory` that `accept` takes, sorted. A missing directory lists nothing
// and forgets any error reported for it. Any other failure lists nothing and logs
// "Cannot read <what> in <directory>: <errno text>" once per directory and errno, remembered
// in `reportedErrors` (cleared again once the directory reads).
std::vector<std::string> listSearchPathDirectory(const std::string& directory,
                                                 const std::function<bool(const char*)>& accept,
                                                 std::string_view what,
                                                 std::map<std::string, int>& reportedErrors);

}  // namespace daskel::platform
