#include "platform/testing/MountTable.h"

#include <fstream>
#include <sstream>

namespace daskel::platform::testing {

int mountsAt(const std::string& path) {
  std::ifstream in("/proc/self/mountinfo");
  int count = 0;
  for (std::string line; std::getline(in, line);) {
    // The fifth field is the mount point, with spaces and such written as \ooo.
    std::istringstream fields(line);
    std::string field;
    for (int i = 0; i < 5; ++i)
      fields >> field;
    std::string decoded;
    for (std::size_t i = 0; i < field.size(); ++i) {
      if (field[i] == '\\' && i + 3 < field.size()) {
        decoded += static_cast<char>(std::stoi(field.substr(i + 1, 3), nullptr, 8));
        i += 3;
      } else {
        decoded += field[i];
      }
    }
    count += decoded == path ? 1 : 0;
  }
  return count;
}

}  // namespace daskel::platform::testing
