#include "provider/testing/ProviderBundleTree.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "platform/extensions/ExtensionBundle.h"
#include "platform/filesystem/FileSystem.h"
#include "platform/plist/PropertyList.h"

namespace daskel {

namespace fs = std::filesystem;
using platform::Value;

Value ProviderBundleLayout::infoDictionary() const {
  Value::Dictionary extension{{platform::kOxExtensionPointIdentifierKey, Value(extensionPoint)}};
  if (!documentGroup.isNull())
    extension[platform::kOxExtensionDaskelDocumentGroupKey] = documentGroup;
  Value::Array groupValues;
  for (const std::string& group : groups)
    groupValues.emplace_back(group);
  Value::Dictionary info{
      {platform::kBundleIdentifierKey, Value(identifier)},
      {platform::kBundleExecutableKey, Value("provider")},
      {platform::kOxExtensionKey, Value(std::move(extension))},
      {platform::kEntitlementsKey, Value(Value::Dictionary{{platform::kApplicationGroupsEntitlement,
                                                            Value(std::move(groupValues))}})},
  };
  if (version)
    info[platform::kBundleVersionKey] = Value(*version);
  return Value(std::move(info));
}

ProviderBundleTree::ProviderBundleTree() {
  std::string pattern = (fs::temp_directory_path() / "daskel-provider-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr)
    return;
  std::error_code error;
  root_ = fs::canonical(pattern, error).string();
  extensions_ = root_ + "/extensions";
  containers_ = root_ + "/group-containers";
  fs::create_directories(extensions_, error);
}

ProviderBundleTree::~ProviderBundleTree() {
  if (root_.empty())
    return;
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

platform::Result<std::shared_ptr<const platform::PluginRecord>> ProviderBundleTree::writeBundle(
    const ProviderBundleLayout& layout) const {
  const std::string bundlePath = extensions_ + "/" + layout.identifier + ".dkext";
  if (auto made = platform::createDirectoryAtPath(bundlePath); !made)
    return platform::failure(made.error());
  if (auto written = platform::writePropertyListAtomically(
          layout.infoDictionary(), bundlePath + "/" + platform::kInfoPlistFileName);
      !written) {
    return platform::failure(written.error());
  }
  const std::string executable = bundlePath + "/provider";
  if (auto written = platform::writeFileAtomically(executable, "#!/bin/sh\nexit 0\n"); !written)
    return platform::failure(written.error());
  if (::chmod(executable.c_str(), 0755) != 0)
    return platform::failure(platform::posixError(errno, "chmod", executable));
  // The trust rule refuses an Info.plist writable by group or others, whatever the umask.
  const std::string info = bundlePath + "/" + platform::kInfoPlistFileName;
  if (::chmod(info.c_str(), 0644) != 0)
    return platform::failure(platform::posixError(errno, "chmod", info));

  auto bundle = platform::ExtensionBundle::read(bundlePath);
  if (!bundle)
    return platform::failure(bundle.error());
  return std::make_shared<const platform::PluginRecord>(std::move(*bundle), containers_);
}

}  // namespace daskel
