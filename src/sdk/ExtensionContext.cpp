#include "sdk/ExtensionContext.h"

#include "platform/extensions/PluginRecord.h"
#include "sdk/SdkError.h"

namespace daskel::sdk {

using platform::failure;
using platform::Result;
using platform::Url;
using platform::Value;

ExtensionContext::ExtensionContext(std::string identifier,
                                   std::string bundlePath,
                                   Value info,
                                   std::string groupIdentifier,
                                   Url groupContainerUrl,
                                   Url storageDirectoryUrl)
    : identifier_(std::move(identifier)),
      bundlePath_(std::move(bundlePath)),
      info_(std::move(info)),
      groupIdentifier_(std::move(groupIdentifier)),
      groupContainerUrl_(std::move(groupContainerUrl)),
      storageDirectoryUrl_(std::move(storageDirectoryUrl)) {}

Result<ExtensionContext> ExtensionContext::fromBundle(const std::string& bundlePath) {
  auto record = platform::PluginRecord::read(bundlePath);
  if (!record) {
    return failure(record.error());
  }
  return fromRecord(*record);
}

Result<ExtensionContext> ExtensionContext::fromRecord(const platform::PluginRecord& record) {
  const std::optional<std::string> group = record.bundle().documentGroup();
  if (!group) {
    return failure(sdkError(SdkError::Misconfigured,
                            record.bundlePath() + ": the Info.plist names no document group "
                                "(OxExtension → OxExtensionDaskelDocumentGroup)"));
  }
  auto container = record.groupContainerUrl(*group);
  if (!container) {
    return failure(sdkError(SdkError::Misconfigured,
                            record.bundlePath() + ": no container for document group " + *group +
                                ": " + container.error()->localizedDescription()));
  }
  return make(record.identifier(), record.bundlePath(), record.infoDictionary(), *group,
              *container);
}

Result<ExtensionContext> ExtensionContext::make(std::string identifier,
                                                std::string bundlePath,
                                                Value infoDictionary,
                                                std::string groupIdentifier,
                                                const Url& groupContainerUrl) {
  // A container URL without its trailing "/" would lose its last component on appending.
  std::optional<Url> container =
      groupContainerUrl.hasDirectoryPath()
          ? groupContainerUrl
          : Url::fileUrlWithPath(groupContainerUrl.path(), /*isDirectory=*/true);
  std::optional<Url> storage =
      container && container->isFileUrl()
          ? container->appendingPathComponent(kStorageDirectoryName, /*isDirectory=*/true)
          : std::nullopt;
  if (!storage) {
    return failure(sdkError(SdkError::Misconfigured,
                            "group container " + groupContainerUrl.absoluteString() +
                                " is not a file URL"));
  }
  return ExtensionContext(std::move(identifier), std::move(bundlePath), std::move(infoDictionary),
                          std::move(groupIdentifier), std::move(*container), std::move(*storage));
}

std::string ExtensionContext::storageDirectoryPath() const {
  std::string path = storageDirectoryUrl_.path();
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

}  // namespace daskel::sdk
