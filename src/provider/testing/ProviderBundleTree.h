// ProviderBundleTree: a temporary directory in which tests lay out provider extension bundles
// as real directories and files, and get the real PluginRecords of them (the plug-in record
// reads a bundle from disk and checks its Info.plist, so a record cannot be made up in
// memory). Group containers live in the tree too, under "group-containers/".
//
// Everything under the tree is removed when it is destroyed.
//
// Ownership: owns its directory.
// THREADING NOTES: use from one thread; the records it hands out are immutable and may be
// shared freely.
// Failure: Result errors from the file system, the property-list writer or the bundle reader.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/extensions/PluginRecord.h"
#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel {

// What a provider bundle's Info.plist says.
struct ProviderBundleLayout {
  std::string identifier = "com.example.provider";
  std::optional<std::string> version = "1.0";
  std::string extensionPoint = "com.orvane.daskel-nonui";
  // OxExtension → OxExtensionDaskelDocumentGroup; a null value leaves the key out, another
  // type is written as it is.
  platform::Value documentGroup = platform::Value("group.com.example");
  // The app groups of the entitlements.
  std::vector<std::string> groups = {"group.com.example"};

  platform::Value infoDictionary() const;
};

class ProviderBundleTree {
 public:
  ProviderBundleTree();
  ~ProviderBundleTree();
  ProviderBundleTree(const ProviderBundleTree&) = delete;
  ProviderBundleTree& operator=(const ProviderBundleTree&) = delete;

  // The tree's root (canonical: no symbolic links), "" when it could not be made.
  const std::string& root() const { return root_; }
  const std::string& extensionsDirectory() const { return extensions_; }
  const std::string& groupContainersDirectory() const { return containers_; }

  // Writes the bundle "<extensions>/<identifier>.dkext" (Info.plist and an executable file)
  // and reads its record back.
  platform::Result<std::shared_ptr<const platform::PluginRecord>> writeBundle(
      const ProviderBundleLayout& layout) const;

 private:
  std::string root_;
  std::string extensions_;
  std::string containers_;
};

}  // namespace daskel
