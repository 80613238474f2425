// FakeAppExtensionMatching: an AppExtensionMatching for tests, driven by the test instead of
// by bundles appearing in the extension directories.
//
// beginMatching() keeps the handler and reports the current list once; every report() after
// that sets the current list and reports it again. Reports are delivered one at a time, in
// the order they were made, on the fake's own serial queue (the real one reports from its
// watcher's queue); drain() waits until every report made so far has been handled.
// recordForIdentifier() answers from the records the test set (ProviderBundleTree makes real
// ones from bundles on disk).
//
// How it differs from the real one: nothing is read from disk or watched; the list is exactly
// what the test reported, in that order; beginMatching() fails only when told to, and may be
// called again (the new handler replaces the old one).
//
// Ownership: shared; holds the extensions of the current list and the records strongly.
// THREADING NOTES: every member may be called from any thread, except drain() and reportCount()
// from a handler (they wait on the queue the handler runs on).
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/extensions/AppExtension.h"
#include "platform/extensions/PluginRecord.h"

namespace daskel {

class FakeAppExtensionMatching final : public platform::AppExtensionMatching {
 public:
  FakeAppExtensionMatching();
  FakeAppExtensionMatching(const FakeAppExtensionMatching&) = delete;
  FakeAppExtensionMatching& operator=(const FakeAppExtensionMatching&) = delete;

  // The error the next beginMatching() calls return (and then report nothing); null lets them
  // start.
  void setBeginMatchingError(platform::ErrorPtr error);
  // Sets the current list and, once matching has begun, reports it with `error`.
  void report(std::vector<std::shared_ptr<platform::AppExtension>> extensions,
              platform::ErrorPtr error = nullptr);
  // Waits until every report made so far has been delivered.
  void drain();

  void setRecord(std::shared_ptr<const platform::PluginRecord> record);  // under its identifier
  void removeRecord(const std::string& identifier);

  // The extension points matching was begun for, in call order.
  std::vector<std::string> matchedPoints() const;
  std::size_t reportCount() const;  // reports delivered so far

  // AppExtensionMatching.
  platform::ErrorPtr beginMatching(const std::string& extensionPointIdentifier,
                                   Handler handler) override;
  std::shared_ptr<const platform::PluginRecord> recordForIdentifier(
      const std::string& identifier) const override;

 private:
  void deliverLocked(platform::ErrorPtr error);

  const std::shared_ptr<platform::DispatchQueue> queue_;
  mutable std::mutex mutex_;
  platform::ErrorPtr beginError_;
  std::shared_ptr<Handler> handler_;
  std::vector<std::shared_ptr<platform::AppExtension>> extensions_;
  std::map<std::string, std::shared_ptr<const platform::PluginRecord>> records_;
  std::vector<std::string> matchedPoints_;
  std::shared_ptr<std::size_t> delivered_;  // written on queue_ only
};

}  // namespace daskel
