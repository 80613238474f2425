// ExtensionMatcher: continuous matching of the extensions of one extension point (for example
// "com.orvane.daskel-nonui"). It reports the FULL list of matching plug-in records (see
// ExtensionCatalog for search order, what is left out and why) once at start, and again after
// every change of that list: a bundle added, removed or renamed, its Info.plist or executable
// replaced or rewritten, its Info.plist made untrusted or trusted again.
//
// How changes are seen: inotify watches on every search directory and on every bundle
// directory in them (the Info.plist and the executable are watched through their bundle
// directory, so a file renamed over one of them is seen as well as one rewritten in place).
// A search directory that does not exist yet is covered by a watch on its nearest existing
// ancestor, for the one name that leads towards it; when that name appears the watches are
// set up again, so a directory created later (even several levels deep) is picked up. (Not
// covered: an existing search directory whose *ancestor* is renamed away keeps being watched
// at its new place until some other event leads to a rescan.)
//
// Debouncing: the first relevant event starts a short settle time; every further event
// restarts it, up to a maximum delay after the first, and then the directories are rescanned
// once. So a bundle being copied in leads to few rescans; a rescan whose list equals the last
// one reported (an unrelated file, a malformed bundle) reports nothing.
//
// Delivery: the handler is called on the given dispatch queue, one call at a time, in order,
// even when that queue is concurrent. If new lists come while a call is running or pending,
// only the latest is delivered next (each list is complete, so nothing is lost).
//
// Ownership: the caller owns the matcher. It owns its inotify descriptor, an eventfd used to
// stop, its watcher thread and its catalog. Blocks submitted to the queue hold a shared state
// object, not the matcher, so blocks still pending after the matcher is gone are harmless.
// THREADING NOTES: start() and stop() may be called from any thread. The watcher thread
// reads events and rescans; it never calls the handler. stop() (also the destructor) joins
// the watcher thread, guarantees that no handler call starts afterwards, and waits for a
// call in progress, unless it is made from inside that handler call. Members whose names
// begin with watcherThread are touched only on the watcher thread.
// Failure: start() returns POSIX-domain errors (inotify, eventfd, thread); what the watcher
// meets later (a directory that cannot be watched, a lost inotify descriptor) is logged.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/extensions/ExtensionCatalog.h"
#include "platform/extensions/PluginRecord.h"
#include "platform/value/Result.h"

namespace daskel::platform {

struct ExtensionMatchingOptions {
  // The search directories; DASKEL_EXTENSIONS_PATH (extensionsPath()) when not given.
  std::optional<std::vector<std::string>> directories;
  // Where group containers live; DASKEL_GROUP_CONTAINERS_DIR when not given.
  std::optional<std::string> groupContainersDirectory;
  // Quiet time after the last event before a rescan.
  std::chrono::milliseconds settleTime{75};
  // Longest wait from the first event of a burst to its rescan, however busy the directories.
  std::chrono::milliseconds maximumDelay{1000};
};

class ExtensionMatcher {
 public:
  using Records = ExtensionCatalog::Records;
  using Handler = std::function<void(const Records& records)>;

  // Starts matching `extensionPointIdentifier`. `handler` (required) is called on `queue`
  // (the default-priority global queue when null) with the first list as soon as the
  // directories have been read, then after every change.
  static Result<std::unique_ptr<ExtensionMatcher>> start(std::string extensionPointIdentifier,
                                                         std::shared_ptr<DispatchQueue> queue,
                                                         Handler handler,
                                                         ExtensionMatchingOptions options = {});

  ~ExtensionMatcher();
  ExtensionMatcher(const ExtensionMatcher&) = delete;
  ExtensionMatcher& operator=(const ExtensionMatcher&) = delete;

  // Ends matching; see THREADING NOTES. Calling it again does nothing.
  void stop();

  const std::string& extensionPointIdentifier() const { return extensionPointIdentifier_; }
  const std::vector<std::string>& directories() const { return catalog_.directories(); }

 private:
  class Delivery;

  // What one inotify watch is for; one watch descriptor may serve several purposes.
  struct WatchPurpose {
    // BundleFile: a bundle's Info.plist or executable, watched as a file for writes in place.
    enum class Kind { SearchDirectory, Ancestor, Bundle, BundleFile };
    Kind kind;
    std::string path;
    // Ancestor: the entry name that leads towards the missing search directory.
    // Bundle: the executable's file name ("" while unknown).
    std::string name;
  };

  ExtensionMatcher(std::string extensionPointIdentifier,
                   std::shared_ptr<Delivery> delivery,
                   ExtensionMatchingOptions options,
                   int inotifyFd,
                   int stopFd);

  // The watcher thread: initial report, then events, debouncing and rescans until stopped.
  void watcherThreadRun();
  // Reads every queued event; sets `relevant` when one of them calls for a rescan. False when
  // the inotify descriptor failed for good.
  bool watcherThreadDrainEvents(bool& relevant);
  bool watcherThreadIsRelevant(int wd, std::uint32_t mask, const std::string& name);
  // Sets the watches up anew and rescans; returns the matching records.
  Records watcherThreadRescan();
  void watcherThreadWatchSearchDirectory(const std::string& directory,
                                         std::map<int, std::vector<WatchPurpose>>& watches);
  int watcherThreadAddWatch(const std::string& path);
  void watcherThreadWatchBundleFile(const std::string& path,
                                    std::map<int, std::vector<WatchPurpose>>& watches);

  const std::string extensionPointIdentifier_;
  const std::shared_ptr<Delivery> delivery_;
  const ExtensionMatchingOptions options_;
  ExtensionCatalog catalog_;
  const int inotifyFd_;
  const int stopFd_;

  std::map<int, std::vector<WatchPurpose>> watcherThreadWatches_;
  std::optional<Records> watcherThreadLastReport_;
  // Search directory or bundle to the errno last logged for it, so a failing watch is
  // reported once.
  std::map<std::string, int> watcherThreadWatchErrors_;

  std::mutex stopMutex_;  // makes concurrent stop() calls join the watcher once
  std::thread watcher_;
};

}  // namespace daskel::platform
