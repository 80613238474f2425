// What Daskel reads about another process from /proc: its start time and state
// (/proc/<pid>/stat), the executable it runs (/proc/<pid>/exe) and, for a process in a
// Flatpak sandbox, its application id (/proc/<pid>/root/.flatpak-info).
//
// Every read names the process by pid only, so its answer is about whichever process holds
// that pid at the moment: callers check the process's AuditToken is still alive after
// reading, which proves the pid was not reused in between.
//
// THREADING NOTES: free functions without shared state; safe from any thread.
// Failure: Result errors are POSIX-domain errors carrying the errno and the /proc path, or,
// for content that cannot be understood, an error whose description says what is wrong.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/value/Result.h"

namespace daskel::platform {

struct ProcessStat {
  // Field 3: R, S, D, Z (zombie), X (dead), ...
  char state = '?';
  // Field 22: clock ticks after boot when the process started.
  std::uint64_t startTime = 0;
};

// Parses the one line of /proc/<pid>/stat. The command name in parentheses may itself hold
// spaces and parentheses; the fields are counted after its last ')'.
std::optional<ProcessStat> parseProcessStat(std::string_view line);
Result<ProcessStat> readProcessStat(pid_t pid);

// The target of /proc/<pid>/exe as the kernel reports it: an absolute path, with
// " (deleted)" appended when that file has been unlinked since the process started it.
inline constexpr std::string_view kDeletedExecutableSuffix = " (deleted)";
Result<std::string> readProcessExecutablePath(pid_t pid);

// The Flatpak application id of a sandboxed process: the "name" key of the "[Application]"
// group of .flatpak-info at the root of the process's file-system view. nullopt when that
// file does not exist (not a Flatpak process), which is also the answer for a pid that names
// no process: whether the process is still there is the caller's question to its token.
// Fails when the file cannot be opened for another reason (not allowed to look into the
// process's root; a symbolic link), or exists but is no regular file, cannot be read or has
// no valid name.
Result<std::optional<std::string>> readFlatpakApplicationId(pid_t pid);
// Parses the key-file text of .flatpak-info. nullopt without a non-empty name in
// "[Application]".
std::optional<std::string> parseFlatpakApplicationId(std::string_view keyFile);

}  // namespace daskel::platform
