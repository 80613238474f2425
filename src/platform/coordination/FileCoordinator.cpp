#include "platform/coordination/FileCoordinator.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "platform/filesystem/FileSystem.h"

namespace daskel::platform {

namespace {
// How many observer calls the current thread is inside.
thread_local int tNotifyDepth = 0;
}  // namespace

FileCoordinator& FileCoordinator::shared() {
  // Lives for the life of the process: providers may still be called during exit.
  static FileCoordinator* const coordinator = new FileCoordinator();
  return *coordinator;
}

void FileCoordinator::addProvider(std::shared_ptr<CoordinationProvider> provider) {
  if (!provider)
    return;
  {
    std::lock_guard lock(mutex_);
    if (std::ranges::find(providers_, provider) != providers_.end())
      return;
    providers_.push_back(provider);
  }
  notify(provider, Change::Added);
}

void FileCoordinator::removeProvider(const std::shared_ptr<CoordinationProvider>& provider) {
  std::shared_ptr<CoordinationProvider> removed;  // released after the lock
  {
    std::lock_guard lock(mutex_);
    auto found = std::ranges::find(providers_, provider);
    if (found == providers_.end())
      return;
    removed = std::move(*found);
    providers_.erase(found);
  }
  notify(removed, Change::Removed);
}

FileCoordinator::ObserverToken FileCoordinator::addObserver(Observer observer) {
  std::lock_guard lock(mutex_);
  const ObserverToken token = nextObserverToken_++;
  observers_.emplace(token, std::make_shared<Observer>(std::move(observer)));
  return token;
}

void FileCoordinator::removeObserver(ObserverToken token) {
  {
    std::lock_guard lock(mutex_);
    observers_.erase(token);
  }
  // Waits for calls that began before the erasure, unless this thread is making one (an
  // observer whose last owner lets go of it during the call): waiting would never end.
  if (tNotifyDepth == 0)
    std::unique_lock wait(observerCallMutex_);
}

void FileCoordinator::notify(const std::shared_ptr<CoordinationProvider>& provider,
                             Change change) {
  std::shared_lock calling(observerCallMutex_);
  std::vector<std::shared_ptr<Observer>> observers;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [token, observer] : observers_)
      observers.push_back(observer);
  }
  ++tNotifyDepth;
  for (const auto& observer : observers)
    (*observer)(provider, change);
  --tNotifyDepth;
}

std::vector<std::shared_ptr<CoordinationProvider>> FileCoordinator::providers() const {
  std::lock_guard lock(mutex_);
  return providers_;
}

bool FileCoordinator::isRegistered(const CoordinationProvider& provider) const {
  std::lock_guard lock(mutex_);
  return std::ranges::any_of(providers_,
                             [&](const auto& known) { return known.get() == &provider; });
}

std::shared_ptr<CoordinationProvider> FileCoordinator::providerForURL(const Url& url) const {
  // Providers are asked for their directory outside the lock: the question may take a
  // provider's own lock, and a provider may call back into the coordinator.
  std::optional<ResolvedItem> item;  // resolved once, at the first directory
  for (const auto& provider : providers()) {
    const std::optional<Url> directory = provider->_providedItemsURL();
    if (!directory)
      continue;
    if (!item)
      item.emplace(url);
    auto relationship = relationshipOfDirectoryToItem(*directory, *item);
    if (relationship && *relationship == DirectoryRelationship::Contains)
      return provider;
  }
  return nullptr;
}

}  // namespace daskel::platform
