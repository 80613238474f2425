// ProviderExtension: the class a provider author subclasses. A provider extension is a small
// program whose main() makes one object of the subclass and hands it to run():
//
//   class NotesProvider : public daskel::sdk::ProviderExtension {
//     void startProviding(const Url& url, ItemCompletion done) override { ...; done(nullptr); }
//   };
//   int main(int argc, char** argv) {
//     NotesProvider provider;
//     return daskel::sdk::run(provider, argc, argv);
//   }
//
// The daemon calls the seven operations of the vendor protocol; each receives a Completion
// (see Completion.h) to call once, from any thread, with the reply's values in the protocol's
// order. An error an operation sends keeps its domain, code and description (make one with
// makeError in SdkError.h); nil is allowed for every value.
//
//   operation              completion arguments       default
//   performInitialSetup    (error)                    success
//   providePlaceholder     (placeholder URL, error)   writes a small file at
//                                                     placeholderUrlForItem(url) (and a stand-in
//                                                     at the item's path, see below) and
//                                                     replies with it
//   startProviding         (error)                    none: every provider implements it
//   stopProviding          (error)                    success
//   itemChanged            (error)                    success
//   identifierForItem      (error, identifier)        the item's path relative to the storage
//                                                     directory (itemIdentifierForUrl)
//   urlForItemIdentifier   (error, URL)               storage directory + identifier
//                                                     (urlForItemIdentifier)
//
// Stand-ins: where the daemon may use fanotify, a plain open() of an item by any program makes
// the provider provide it first, but only when there is a file at the item's path: an open
// of a name with nothing at it fails with ENOENT before the daemon hears of it. An item that
// is not present therefore keeps an empty file at its path, a stand-in, marked as such with
// the extended attribute kStandInAttribute ("user.daskel.stand-in"). The SDK makes them:
// writePlaceholderFile creates one beside each placeholder it writes when nothing is at the
// item's path (never clobbering what is there), and evictToStandIn, for stopProviding,
// replaces provided contents by one. startProviding should fetch an item whose path holds a
// stand-in (isStandIn) as it fetches a missing one. A provider that writes fetched contents
// into the stand-in in place, rather than renaming a new file over it, should remove the
// attribute; an empty file with the attribute is taken for a stand-in. On a file system that
// refuses user extended attributes (ENOTSUP) stand-ins cannot be marked, and there every
// empty regular file counts as a stand-in, so an empty document is fetched again on each
// startProviding.
//
// Initial set-up: before the author's performInitialSetup runs, the SDK creates the storage
// directory (<group container>/Daskel Storage/, mode 0700); when that fails the author's code
// is not called and the daemon receives the error. The reply to the daemon carries the
// extension's identifier and the storage directory URL along with the error.
//
// Ownership: the author owns the object; run() (or a test harness) borrows it and must be
// given one that outlives it.
// THREADING NOTES: each request of the daemon is a connection of its own whose operations
// arrive in order on that connection's serial queue; requests run concurrently, so
// operations may run on several threads at once and overrides must be thread safe. An
// operation may block (a slow copy): that holds up only its own request. The context
// accessors may be used from any thread once operations arrive (the context is set before
// the first request is served and never changes).
// Failure: operations report through their completions; run() reports on standard error
// through the platform's log and through its exit status.
#pragma once

#include <optional>
#include <string>

#include "platform/url/Url.h"
#include "platform/value/Error.h"
#include "platform/value/Result.h"
#include "sdk/Completion.h"
#include "sdk/ExtensionContext.h"
#include "sdk/SdkError.h"

namespace daskel::sdk {

using platform::ErrorPtr;
using platform::Url;

using SetupCompletion = Completion<ErrorPtr>;
using PlaceholderCompletion = Completion<std::optional<Url>, ErrorPtr>;
using ItemCompletion = Completion<ErrorPtr>;
using IdentifierCompletion = Completion<ErrorPtr, std::optional<std::string>>;
using UrlCompletion = Completion<ErrorPtr, std::optional<Url>>;

class ProviderExtension {
 public:
  ProviderExtension() = default;
  virtual ~ProviderExtension() = default;
  ProviderExtension(const ProviderExtension&) = delete;
  ProviderExtension& operator=(const ProviderExtension&) = delete;

  // The vendor operations. See the table above for defaults.
  virtual void performInitialSetup(SetupCompletion completion);
  virtual void providePlaceholder(const Url& url, PlaceholderCompletion completion);
  virtual void startProviding(const Url& url, ItemCompletion completion) = 0;
  virtual void stopProviding(const Url& url, ItemCompletion completion);
  virtual void itemChanged(const Url& url, ItemCompletion completion);
  virtual void identifierForItem(const Url& url, IdentifierCompletion completion);
  virtual void urlForItemIdentifier(const std::string& identifier, UrlCompletion completion);

  // Context: valid once the extension serves requests (asserted in debug builds).
  const ExtensionContext& context() const;
  const std::string& identifier() const { return context().identifier(); }
  const Url& storageDirectoryUrl() const { return context().storageDirectoryUrl(); }
  const Url& groupContainerUrl() const { return context().groupContainerUrl(); }
  bool hasContext() const { return context_.has_value(); }

  // Sets the context. run() and the test harness call it before serving; calling it while
  // requests are served is a programming error.
  void setContext(ExtensionContext context) { context_ = std::move(context); }

  // The defaults' building blocks, for authors who override an operation but keep its rule.
  // Errors are SdkError::InvalidItem naming the URL or identifier.
  //
  // The identifier of the item at `url`: its path relative to the storage directory, after
  // resolving symbolic links of the part that exists and removing "." and ".." ("a/b.txt").
  // Refused: not a file URL, outside the storage directory, the directory itself.
  platform::Result<std::string> itemIdentifierForUrl(const Url& url) const;
  // The storage directory + `identifier`, a directory URL when the identifier ends in "/" or
  // names an existing directory. Refused: empty, absolute, a ".." component, a NUL, or a path
  // that leads out of the storage directory through a symbolic link.
  platform::Result<Url> urlForIdentifier(const std::string& identifier) const;
  // Where the placeholder of the item at `url` lives: the same directory, with "." put before
  // the item's name ("…/a/.b.txt" for "…/a/b.txt"). The item must be inside the storage
  // directory.
  platform::Result<Url> placeholderUrlForItem(const Url& url) const;
  // What writePlaceholderFile does at the path of the item the placeholder describes.
  enum class StandIn {
    // Creates an empty stand-in there when nothing is there (a file, a directory, a link).
    CreateIfAbsent,
    // Leaves the item's path alone: for items that are directories, which need none.
    None,
  };
  // Writes `bytes` atomically at `placeholderUrl`, creating missing parent directories, and,
  // when the placeholder's name is "." + the item's name (as placeholderUrlForItem makes it)
  // and `standIn` says so, a stand-in at the item's path (mode 0644). The stand-in is made
  // whole and marked before it appears, and is moved into place only while the name is free,
  // so nothing already there is ever replaced.
  // Errors: SdkError::StorageUnavailable with the path and errno text, for the placeholder or
  // the stand-in (the placeholder is written even when the stand-in then fails).
  static platform::Result<void> writePlaceholderFile(const Url& placeholderUrl,
                                                     const std::string& bytes,
                                                     StandIn standIn = StandIn::CreateIfAbsent);

  // The extended attribute that marks a stand-in (its value is empty).
  static constexpr char kStandInAttribute[] = "user.daskel.stand-in";
  // Whether the file at `url` is a stand-in rather than provided contents: an empty regular
  // file (a symbolic link never is one) carrying kStandInAttribute, or any empty regular file
  // on a file system that refuses user extended attributes. False when nothing is there.
  // Opens nothing, so it is not held by file coordination.
  static bool isStandIn(const Url& url);
  // Evicts the item at `url`: replaces whatever file is there (or nothing) by an empty
  // stand-in, in one rename of a temporary ".<name>.stand-in-XXXXXX" file, so a reader sees
  // the old contents or the stand-in, and the item stays fetchable by a plain open(). The
  // stand-in keeps the permission bits of the file it replaces (0644 otherwise). A stand-in
  // already there is left as it is. Refused (SdkError::InvalidItem) for URLs without an
  // identifier (itemIdentifierForUrl) and for directories.
  // Errors: SdkError::StorageUnavailable with the path and errno text.
  platform::Result<void> evictToStandIn(const Url& url) const;

 private:
  std::optional<ExtensionContext> context_;
};

// Runs `provider` as a provider extension: the whole of an extension's main(). Reads
// DASKEL_EXTENSION_CONTROL_FD and DASKEL_EXTENSION_IDENTIFIER, reads the bundle in the working
// directory, sends ready, serves requests until the daemon closes the control socket, then
// returns 0. Started by hand (no control descriptor) it explains on standard error that the
// daemon starts it and returns 2; a bundle it cannot use is explained and returns 1.
int run(ProviderExtension& provider, int argc, char** argv);

}  // namespace daskel::sdk
