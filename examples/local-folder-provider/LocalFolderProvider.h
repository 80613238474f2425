// LocalFolderProvider: an example provider extension whose items mirror a folder on the local
// disk, the source folder. An item's identifier is its path relative to the source folder,
// which is also its path relative to the storage directory, so the SDK's identifier and URL
// defaults apply; this class adds the check that an identifier stays inside the source folder
// too.
//
//   providePlaceholder  writes ".<name>" beside the item: an XML property list with the
//                       item's Name, Size (bytes) and ModificationDate (seconds since 1970);
//                       the SDK adds an empty stand-in at the item's path if nothing is there
//   startProviding      copies the source file into the storage directory (temporary file +
//                       rename, so a reader never sees half a copy), unless a copy is present
//                       that is not older than the source file; a stand-in is not present
//   stopProviding       evicts the item: replaces the storage copy by a stand-in (so a plain
//                       open() fetches it again), never touching the source
//   itemChanged         copies the storage copy back over the source file, the same way
//
// Where the source folder is: the Info.plist key "LocalFolderSourceDirectory", an absolute
// path, a path starting with "~/" (the user's home), or a path relative to the bundle
// directory; or the folder given to the constructor (tests).
//
// Ownership: a plain object owned by main() (or a test); keeps no state of its own beyond the
// optional source folder given at construction.
// THREADING NOTES: operations may run concurrently on different request queues; each works
// on its own files, and two copies of one file race only to the last rename, which is whole.
// Failure: through the completions: SdkError::InvalidItem for identifiers or URLs that lead
// out of the source folder or the storage directory, POSIX-domain errors (errno, its text,
// the path) for file-system failures, SdkError::Misconfigured when no source folder is set.
#pragma once

#include <optional>
#include <string>

#include "sdk/ProviderExtension.h"

namespace daskel::examples {

inline constexpr char kLocalFolderSourceDirectoryKey[] = "LocalFolderSourceDirectory";

class LocalFolderProvider final : public sdk::ProviderExtension {
 public:
  LocalFolderProvider() = default;
  // Uses `sourceDirectory` (absolute) instead of the Info.plist key.
  explicit LocalFolderProvider(std::string sourceDirectory)
      : sourceDirectory_(std::move(sourceDirectory)) {}

  void performInitialSetup(sdk::SetupCompletion completion) override;
  void providePlaceholder(const sdk::Url& url, sdk::PlaceholderCompletion completion) override;
  void startProviding(const sdk::Url& url, sdk::ItemCompletion completion) override;
  void stopProviding(const sdk::Url& url, sdk::ItemCompletion completion) override;
  void itemChanged(const sdk::Url& url, sdk::ItemCompletion completion) override;
  void urlForItemIdentifier(const std::string& identifier,
                            sdk::UrlCompletion completion) override;

  // The source folder, without a trailing "/".
  platform::Result<std::string> sourceDirectory() const;
  // The source file of the item with `identifier`; refused when it leads out of the source
  // folder ("..", a symbolic link pointing elsewhere).
  platform::Result<std::string> sourcePathForIdentifier(const std::string& identifier) const;

 private:
  // The item's identifier and source path, for an item URL inside the storage directory.
  struct Item {
    std::string identifier;
    std::string sourcePath;
    std::string storagePath;
  };
  platform::Result<Item> itemAt(const sdk::Url& url) const;

  const std::optional<std::string> sourceDirectory_;
};

}  // namespace daskel::examples
