// Process ancestry: which process started a process (its parent, field 4 of
// /proc/<pid>/stat), and whether a process descends from one a caller picks out. The
// transparent file-coordination front-end uses it to let through the opens of the processes
// an extension starts (a helper that downloads into the storage directory), not only those
// of the extension itself.
//
// The walk reads by pid and follows the parent chain as it is at the moment of each read: a
// process whose parent exits is handed to a subreaper or to init, so a helper whose
// extension has ended descends from it no more. A pid that cannot be read (the process has
// vanished) ends the walk with "no". Answers are meant for one decision made at once.
//
// THREADING NOTES: free functions without shared state; safe from any thread. The predicate
// is called on the calling thread, once per process looked at.
// Failure: readParentProcessId returns a POSIX-domain error carrying the errno and the /proc
// path, or, for a line that cannot be understood, an error saying so.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string_view>

#include "platform/value/Result.h"

namespace daskel::platform {

// How many generations up isProcessOrDescendantOf looks by default: enough for an extension
// that runs a shell that runs a pipeline, small enough that the walk stays a few reads.
inline constexpr int kDefaultAncestryGenerations = 8;

// The parent's pid from one line of /proc/<pid>/stat; 0 for a process whose parent is outside
// its pid namespace (and for the first process). The command name in parentheses may itself
// hold spaces and parentheses; the fields are counted after its last ')'.
std::optional<pid_t> parseParentProcessId(std::string_view statLine);
Result<pid_t> readParentProcessId(pid_t pid);

// Whether `matches` holds for `pid` itself or for one of its ancestors at most
// `maximumGenerations` parents up (1: the parent only). The walk ends at the first match, at
// a process without a parent, and with false at a pid whose /proc entry cannot be read.
bool isProcessOrDescendantOf(pid_t pid,
                             const std::function<bool(pid_t)>& matches,
                             int maximumGenerations = kDefaultAncestryGenerations);

}  // namespace daskel::platform
