// FileCoordinator: the registry of coordination providers, one per provided-items directory,
// and the routing of a URL to the provider whose directory holds it. The front-ends that
// turn reads and writes of other processes into calls (a named service for programs that
// cooperate, fanotify for those that do not) are built on it.
//
// addProvider()/removeProvider() are called by the providers themselves, on their own
// operation queue, so a removal queued after an addition runs after it. Adding a provider
// that is already known does nothing; removing one that is not known does nothing.
//
// Observers (addObserver) hear of every addition and removal that changed the table: called
// on the thread that made the change, after the table changed and before addProvider() or
// removeProvider() returns, outside the mutex. Changes made on different threads may reach
// an observer concurrently and in either order, so an observer that keeps its own picture
// should re-read providers() rather than replay the changes.
//
// Ownership: holds the added providers strongly. shared() is the process-wide coordinator;
// tests make their own.
// THREADING NOTES: every member may be called from any thread; the table is guarded by a
// mutex that is never held while a provider is called.
// Failure: none to report; a provider without a provided-items directory owns no URL.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <vector>

#include "platform/coordination/CoordinationProvider.h"
#include "platform/url/Url.h"

namespace daskel::platform {

class FileCoordinator {
 public:
  static FileCoordinator& shared();

  enum class Change { Added, Removed };
  using Observer =
      std::function<void(const std::shared_ptr<CoordinationProvider>& provider, Change change)>;
  using ObserverToken = std::uint64_t;

  FileCoordinator() = default;
  FileCoordinator(const FileCoordinator&) = delete;
  FileCoordinator& operator=(const FileCoordinator&) = delete;

  void addProvider(std::shared_ptr<CoordinationProvider> provider);
  void removeProvider(const std::shared_ptr<CoordinationProvider>& provider);

  // The providers known now, in the order they were added.
  std::vector<std::shared_ptr<CoordinationProvider>> providers() const;
  bool isRegistered(const CoordinationProvider& provider) const;

  // The known provider whose provided-items directory contains `url` (not equal to it), or
  // null.
  std::shared_ptr<CoordinationProvider> providerForURL(const Url& url) const;

  // Calls `observer` for every later addition and removal, until removeObserver(). Providers
  // already known are not reported; read providers() after adding the observer.
  ObserverToken addObserver(Observer observer);
  // After it returns the observer is not called again: it waits for calls running on other
  // threads to finish. Called from within an observer call it returns at once.
  void removeObserver(ObserverToken token);

 private:
  void notify(const std::shared_ptr<CoordinationProvider>& provider, Change change);

  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<CoordinationProvider>> providers_;
  std::map<ObserverToken, std::shared_ptr<Observer>> observers_;
  ObserverToken nextObserverToken_ = 1;
  // Held shared while observers run, exclusively by removeObserver() to wait for them.
  std::shared_mutex observerCallMutex_;
};

}  // namespace daskel::platform
