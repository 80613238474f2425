#include "platform/identity/SearchPathDirectory.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/log/Log.h"

namespace daskel::platform {

std::vector<SearchPathEntry> listSearchPathDirectoryEntries(
    const std::string& directory,
    const std::function<bool(const char*)>& accept,
    std::string_view what,
    std::map<std::string, int>& reportedErrors) {
  std::vector<SearchPathEntry> entries;
  DIR* dir = ::opendir(directory.c_str());
  if (!dir) {
    const int error = errno;
    if (error == ENOENT) {
      reportedErrors.erase(directory);
      return entries;
    }
    auto [it, inserted] = reportedErrors.try_emplace(directory, error);
    if (inserted || it->second != error) {
      it->second = error;
      char buffer[128];
      std::string text = ::strerror_r(error, buffer, sizeof buffer);
      DKLogError("Cannot read %@ in %@: %@", what, directory, text);
    }
    return entries;
  }
  reportedErrors.erase(directory);
  while (struct dirent* entry = ::readdir(dir)) {
    if (accept(entry->d_name)) {
      entries.push_back({entry->d_name, entry->d_type});
    }
  }
  ::closedir(dir);
  std::sort(entries.begin(), entries.end(),
            [](const SearchPathEntry& a, const SearchPathEntry& b) { return a.name < b.name; });
  return entries;
}

std::vector<std::string> listSearchPathDirectory(const std::string& directory,
                                                 const std::function<bool(const char*)>& accept,
                                                 std::string_view what,
                                                 std::map<std::string, int>& reportedErrors) {
  std::vector<std::string> names;
  for (SearchPathEntry& entry :
       listSearchPathDirectoryEntries(directory, accept, what, reportedErrors)) {
    names.push_back(std::move(entry.name));
  }
  return names;
}

}  // namespace daskel::platform
