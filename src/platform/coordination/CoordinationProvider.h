// CoordinationProvider: what the file coordinator calls on a provider it knows, to have an
// item made present before a process reads it and to report that a process has finished
// writing one. A provider is known for one directory (its provided-items directory); the
// coordinator calls it for items under that directory, always on the provider's own
// operation queue.
//
// Reader and writer identifiers are the coordinator's opaque values (they name the calling
// process); a provider only prints them. The optional members have defaults here that do
// what a provider that does not implement them gets: nothing.
//
// Ownership: the coordinator holds the providers it knows strongly until they are removed.
// THREADING NOTES: callbacks may arrive for several items at once; implementations keep no
// shared state or guard it themselves.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/dispatch/OperationQueue.h"
#include "platform/url/Url.h"
#include "platform/value/Value.h"

namespace daskel::platform {

class CoordinationProvider {
 public:
  using Completion = std::function<void(const ErrorPtr& error)>;

  virtual ~CoordinationProvider() = default;

  // The directory under which the provider's items live; nullopt when it has none (such a
  // provider is known to the coordinator but owns no item).
  virtual std::optional<Url> _providedItemsURL() const = 0;
  // The queue on which the coordinator calls this provider.
  virtual std::shared_ptr<OperationQueue> _providedItemsOperationQueue() const = 0;
  // The provider's name in the coordinator's log lines.
  virtual std::string _fileReactorID() const = 0;

  // Make the item at `url` present before a read; `completion` (may be empty) gets null when
  // the item is there, or why not.
  virtual void _provideItemAtURL(const Url& url, Completion completion) = 0;
  virtual void _provideItemAtURL(const Url& url, const Value& readerID, Completion completion) {
    (void)readerID;
    _provideItemAtURL(url, std::move(completion));
  }
  // A writer has finished writing the item at `url`.
  virtual void _writerWithID(const Value& writerID, const Url& url) {
    (void)writerID;
    (void)url;
  }
};

}  // namespace daskel::platform
