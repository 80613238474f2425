// ExtensionContext: what a provider extension knows about itself once it runs: its bundle
// identifier, its bundle directory and Info.plist, the app group that holds its documents,
// that group's container and the storage directory inside it
// (<group container>/Daskel Storage/).
//
// fromBundle() reads the extension's own bundle the way the daemon does (Info.plist trust
// rule included) and finds the container of the bundle's document group
// (OxExtension → OxExtensionDaskelDocumentGroup, which must be one of its entitled app
// groups). Reading the context never creates the storage directory: that is done by the
// initial set-up (see ProviderExtension).
//
// A plain immutable value; safe to read from any thread.
// Failure: fromBundle() returns the platform's errors for an unreadable or untrusted bundle,
// and errors in kSdkErrorDomain (SdkError::Misconfigured) for a bundle without a usable
// document group; the descriptions name the bundle and what is missing.
#pragma once

#include <string>

#include "platform/url/Url.h"
#include "platform/value/Result.h"
#include "platform/value/Value.h"

namespace daskel::platform {
class PluginRecord;
}

namespace daskel::sdk {

inline constexpr char kStorageDirectoryName[] = "Daskel Storage";

class ExtensionContext {
 public:
  // Reads the bundle at `bundlePath` (absolute) with the group containers under the
  // platform's group containers directory.
  static platform::Result<ExtensionContext> fromBundle(const std::string& bundlePath);
  static platform::Result<ExtensionContext> fromRecord(const platform::PluginRecord& record);
  // A context put together by hand (tests, harnesses): the storage directory is
  // `groupContainerUrl` + "Daskel Storage/".
  static platform::Result<ExtensionContext> make(std::string identifier,
                                                 std::string bundlePath,
                                                 platform::Value infoDictionary,
                                                 std::string groupIdentifier,
                                                 const platform::Url& groupContainerUrl);

  const std::string& identifier() const { return identifier_; }
  const std::string& bundlePath() const { return bundlePath_; }
  // The bundle's Info.plist, a dictionary; authors may keep their own keys in it.
  const platform::Value& infoDictionary() const { return info_; }
  const std::string& groupIdentifier() const { return groupIdentifier_; }
  // Directory file URLs (ending in "/").
  const platform::Url& groupContainerUrl() const { return groupContainerUrl_; }
  const platform::Url& storageDirectoryUrl() const { return storageDirectoryUrl_; }
  // The file-system path of the storage directory, without a trailing "/".
  std::string storageDirectoryPath() const;

 private:
  ExtensionContext(std::string identifier,
                   std::string bundlePath,
                   platform::Value info,
                   std::string groupIdentifier,
                   platform::Url groupContainerUrl,
                   platform::Url storageDirectoryUrl);

  std::string identifier_;
  std::string bundlePath_;
  platform::Value info_;
  std::string groupIdentifier_;
  platform::Url groupContainerUrl_;
  platform::Url storageDirectoryUrl_;
};

}  // namespace daskel::sdk
