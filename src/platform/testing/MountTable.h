// MountTable: what tests and benchmarks ask of this process's mount table
// (/proc/self/mountinfo), to check the mounts a component made or left behind.
//
// THREADING NOTES: free functions; each reads the table anew.
// Failure: an unreadable table counts as holding no mounts.
#pragma once

#include <string>

namespace daskel::platform::testing {

// How many mounts have `path` (absolute, as mountinfo spells it once decoded: the table
// writes a space as \040) as their mount point.
int mountsAt(const std::string& path);

}  // namespace daskel::platform::testing
