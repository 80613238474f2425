#include "sdk/ProviderExtension.h"

#include <sys/stat.h>

#include <cassert>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "platform/filesystem/FileSystem.h"
#include "platform/plist/PropertyList.h"
#include "platform/value/Value.h"

namespace daskel::sdk {

namespace fs = std::filesystem;
using platform::DirectoryRelationship;
using platform::failure;
using platform::Result;
using platform::Value;

namespace {

// The path without trailing separators ("/" stays "/").
std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

Result<void> requireInside(const Url& storage, const Url& item, const std::string& what) {
  auto relationship = platform::relationshipOfDirectoryToItem(storage, item);
  if (!relationship) {
    return failure(sdkError(SdkError::InvalidItem,
                            what + ": " + relationship.error()->localizedDescription()));
  }
  if (*relationship != DirectoryRelationship::Contains) {
    return failure(sdkError(SdkError::InvalidItem,
                            what + " is not inside the storage directory " +
                                storage.absoluteString()));
  }
  return {};
}

}  // namespace

const ExtensionContext& ProviderExtension::context() const {
  assert(context_ && "the extension's context is set before it serves requests");
  return *context_;
}

void ProviderExtension::performInitialSetup(SetupCompletion completion) {
  completion(nullptr);
}

void ProviderExtension::providePlaceholder(const Url& url, PlaceholderCompletion completion) {
  auto placeholder = placeholderUrlForItem(url);
  if (!placeholder) {
    completion(std::nullopt, placeholder.error());
    return;
  }
  auto identifier = itemIdentifierForUrl(url);
  Value::Dictionary description{{"Name", Value(url.lastPathComponent())}};
  if (identifier) {
    description.emplace("ItemIdentifier", Value(*identifier));
  }
  auto written =
      writePlaceholderFile(*placeholder, platform::serializeXmlPropertyList(Value(description)));
  if (!written) {
    completion(std::nullopt, written.error());
    return;
  }
  completion(*placeholder, nullptr);
}

void ProviderExtension::stopProviding(const Url&, ItemCompletion completion) {
  completion(nullptr);
}

void ProviderExtension::itemChanged(const Url&, ItemCompletion completion) {
  completion(nullptr);
}

void ProviderExtension::identifierForItem(const Url& url, IdentifierCompletion completion) {
  auto identifier = itemIdentifierForUrl(url);
  if (!identifier) {
    completion(identifier.error(), std::nullopt);
    return;
  }
  completion(nullptr, std::move(*identifier));
}

void ProviderExtension::urlForItemIdentifier(const std::string& identifier,
                                             UrlCompletion completion) {
  auto url = urlForIdentifier(identifier);
  if (!url) {
    completion(url.error(), std::nullopt);
    return;
  }
  completion(nullptr, std::move(*url));
}

Result<std::string> ProviderExtension::itemIdentifierForUrl(const Url& url) const {
  const std::string what = "item " + url.absoluteString();
  if (!url.isFileUrl()) {
    return failure(sdkError(SdkError::InvalidItem, what + " is not a file URL"));
  }
  // The identifier is the relative path the containment test itself resolved and judged:
  // each side is resolved once.
  std::string relative;
  auto relationship =
      platform::relationshipOfDirectoryToItem(storageDirectoryUrl(), url, &relative);
  if (!relationship) {
    return failure(sdkError(SdkError::InvalidItem,
                            what + ": " + relationship.error()->localizedDescription()));
  }
  if (*relationship != DirectoryRelationship::Contains || relative.empty()) {
    return failure(sdkError(SdkError::InvalidItem,
                            what + " is not inside the storage directory " +
                                storageDirectoryUrl().absoluteString()));
  }
  return relative;
}

Result<Url> ProviderExtension::urlForIdentifier(const std::string& identifier) const {
  const std::string what = "item identifier \"" + identifier + "\"";
  if (identifier.empty() || identifier.front() == '/' ||
      identifier.find('\0') != std::string::npos) {
    return failure(sdkError(SdkError::InvalidItem, what + " is not a relative path"));
  }
  for (const auto& component : fs::path(identifier)) {
    if (component == "..") {
      return failure(sdkError(SdkError::InvalidItem, what + " leads out of the storage directory"));
    }
  }
  const std::string path = context().storageDirectoryPath() + "/" + identifier;
  std::error_code ignored;
  const bool isDirectory = identifier.back() == '/' || fs::is_directory(path, ignored);
  std::optional<Url> url = Url::fileUrlWithPath(withoutTrailingSlash(path), isDirectory);
  if (!url) {
    return failure(sdkError(SdkError::InvalidItem, what + " makes no valid URL"));
  }
  if (auto inside = requireInside(storageDirectoryUrl(), *url, what); !inside) {
    return failure(inside.error());
  }
  return *url;
}

Result<Url> ProviderExtension::placeholderUrlForItem(const Url& url) const {
  const std::string what = "item " + url.absoluteString();
  if (!url.isFileUrl()) {
    return failure(sdkError(SdkError::InvalidItem, what + " is not a file URL"));
  }
  if (auto inside = requireInside(storageDirectoryUrl(), url, what); !inside) {
    return failure(inside.error());
  }
  const std::string name = url.lastPathComponent();
  std::optional<Url> parent = url.deletingLastPathComponent();
  std::optional<Url> placeholder =
      parent && !name.empty() ? parent->appendingPathComponent("." + name, false) : std::nullopt;
  if (!placeholder) {
    return failure(sdkError(SdkError::InvalidItem, what + " has no name to make a placeholder of"));
  }
  return *placeholder;
}

Result<void> ProviderExtension::writePlaceholderFile(const Url& placeholderUrl,
                                                     const std::string& bytes) {
  const std::string path = placeholderUrl.path();
  std::error_code error;
  fs::create_directories(fs::path(path).parent_path(), error);
  if (error) {
    return failure(sdkError(SdkError::StorageUnavailable,
                            "cannot make the directory of placeholder " + path + ": " +
                                error.message()));
  }
  auto written = platform::writeFileAtomically(path, bytes);
  if (!written) {
    return failure(sdkError(SdkError::StorageUnavailable,
                            "cannot write placeholder " + path + ": " +
                                written.error()->localizedDescription()));
  }
  return {};
}

}  // namespace daskel::sdk
