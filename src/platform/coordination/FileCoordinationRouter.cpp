#include "platform/coordination/FileCoordinationRouter.h"

#include <atomic>
#include <optional>
#include <utility>

#include "platform/filesystem/FileSystem.h"

namespace daskel::platform {

namespace {

// A provider may call its completion more than once (a late connection error after its
// answer, say); whoever waits on the other side must hear only the first.
template <typename Completion>
Completion once(Completion completion) {
  if (!completion)
    return completion;
  auto called = std::make_shared<std::atomic<bool>>(false);
  return [called, completion = std::move(completion)](auto&&... arguments) {
    if (!called->exchange(true))
      completion(std::forward<decltype(arguments)>(arguments)...);
  };
}

// Runs `block` as an operation of the provider's queue; a provider without one is called on
// the current thread.
void onProviderQueue(const CoordinationProvider& provider, DispatchBlock block) {
  if (auto queue = provider._providedItemsOperationQueue()) {
    queue->addOperation(std::move(block));
  } else {
    block();
  }
}

}  // namespace

std::shared_ptr<CoordinationProvider> FileCoordinationRouter::readingProviderForURL(
    const Url& url) const {
  return coordinator_->providerForURL(url);
}

std::shared_ptr<CoordinationProvider> FileCoordinationRouter::writingProviderForURL(
    const Url& url) const {
  if (auto owner = coordinator_->providerForURL(url))
    return owner;
  std::optional<ResolvedItem> item;  // resolved once, at the first directory
  for (const auto& provider : coordinator_->providers()) {
    const std::optional<Url> directory = provider->_providedItemsURL();
    if (!directory)
      continue;
    if (!item)
      item.emplace(url);
    auto relationship = relationshipOfDirectoryToItem(*directory, *item);
    if (relationship && *relationship == DirectoryRelationship::Same)
      return provider;
  }
  return nullptr;
}

void FileCoordinationRouter::coordinateReadingItemAtURL(const Url& url,
                                                        const Value& readerID,
                                                        ReadCompletion completion) {
  completion = once(std::move(completion));
  auto provider = readingProviderForURL(url);
  if (!provider) {
    if (completion)
      completion(nullptr);
    return;
  }
  onProviderQueue(*provider, [provider, url, readerID, completion] {
    provider->_provideItemAtURL(url, readerID, completion);
  });
}

void FileCoordinationRouter::didFinishWritingItemAtURL(const Url& url,
                                                       const Value& writerID,
                                                       WriteCompletion completion) {
  completion = once(std::move(completion));
  auto provider = writingProviderForURL(url);
  if (!provider) {
    if (completion)
      completion();
    return;
  }
  onProviderQueue(*provider, [provider, url, writerID, completion] {
    provider->_writerWithID(writerID, url);
    if (completion)
      completion();
  });
}

}  // namespace daskel::platform
