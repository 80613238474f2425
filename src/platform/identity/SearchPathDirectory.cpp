#include "platform/identity/SearchPathDirectory.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/log/Log.h"

namespace daskel::platform {

std::vector<std::string> listSearchPathDirectory(const std::string& directory,
                                                 const std::function<bool(const char*)>& accept,
                                                 std::string_view what,
                                                 std::map<std::string, int>& reportedErrors) {
  std::vector<std::string> names;
  DIR* dir = ::opendir(directory.c_str());
  if (!dir) {
    const int error = errno;
    if (error == ENOENT) {
      reportedErrors.erase(directory);
      return names;
    }
    auto [it, inserted] = reportedErrors.try_emplace(directory, error);
    if (inserted || it->second != error) {
      it->second = error;
      char buffer[128];
      std::string text = ::strerror_r(error, buffer, sizeof buffer);
      DKLogError("Cannot read %@ in %@: %@", what, directory, text);
    }
    return names;
  }
  reportedErrors.erase(directory);
  while (struct dirent* entry = ::readdir(dir)) {
    if (accept(entry->d_name)) {
      names.emplace_back(entry->d_name);
    }
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace daskel::platform
