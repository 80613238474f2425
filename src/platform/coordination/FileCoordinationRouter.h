// FileCoordinationRouter: turns "a process is about to read the item at this URL" and "a
// process has finished writing it" into calls of the coordination provider that owns the URL,
// made on that provider's operation queue. The front-ends (the named service for programs
// that cooperate, fanotify for those that do not) sit on it and only say who the process is.
//
// Routing, over the providers the FileCoordinator knows at the moment of the call:
// - a read goes to the provider whose provided-items directory contains the URL;
// - a write notice goes to that provider too, or else to the provider whose directory the URL
//   is itself: the notice reaches a provider, which decides on its own what a write to its
//   storage directory means.
// With no such provider the completion runs at once, on the calling thread, with nil.
//
// Completions: each runs at most once, whatever the provider does with the completion it is
// handed; a provider that never calls it leaves the caller waiting (the front-end's client
// has a timeout). The read completion runs on whatever thread the provider answers on; the
// write completion on the provider's operation queue, once the provider has been handed the
// notice (not once the provider has acted on it).
//
// Ownership: borrows the coordinator (not owned; the process-wide one lives for ever). Blocks
// in flight hold the provider they call.
// THREADING NOTES: immutable; every member may be called from any thread, concurrently.
// Failure: none of its own; the provider's error reaches the read completion as it came.
#pragma once

#include <functional>
#include <memory>

#include "platform/coordination/CoordinationProvider.h"
#include "platform/coordination/FileCoordinator.h"
#include "platform/url/Url.h"
#include "platform/value/Value.h"

namespace daskel::platform {

class FileCoordinationRouter {
 public:
  using ReadCompletion = std::function<void(const ErrorPtr& error)>;
  using WriteCompletion = std::function<void()>;

  explicit FileCoordinationRouter(FileCoordinator* const coordinator) : coordinator_(coordinator) {}

  // Has the owner make the item at `url` present for the reader `readerID` (the provider
  // prints it); `completion` (may be empty) hears nil when it is, or the provider's error.
  void coordinateReadingItemAtURL(const Url& url, const Value& readerID, ReadCompletion completion);
  // Hands the owner the notice that `writerID` has finished writing the item at `url`;
  // `completion` (may be empty) runs once it has.
  void didFinishWritingItemAtURL(const Url& url,
                                 const Value& writerID,
                                 WriteCompletion completion);

  // The provider a read of `url` goes to, or null.
  std::shared_ptr<CoordinationProvider> readingProviderForURL(const Url& url) const;
  // The provider a write notice for `url` goes to, or null.
  std::shared_ptr<CoordinationProvider> writingProviderForURL(const Url& url) const;

 private:
  FileCoordinator* const coordinator_;  // not owned
};

}  // namespace daskel::platform
