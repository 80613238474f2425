#include "platform/extensions/ExtensionCatalog.h"

#include "platform/identity/SearchPathDirectory.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "platform/filesystem/FileSystem.h"
#include "platform/locations/Locations.h"
#include "platform/log/Log.h"

namespace daskel::platform {

ExtensionCatalog::ExtensionCatalog()
    : ExtensionCatalog(extensionsPath(), platform::groupContainersDirectory()) {}

ExtensionCatalog::ExtensionCatalog(std::vector<std::string> directories,
                                   std::string groupContainersDirectory)
    : directories_(std::move(directories)),
      groupContainersDirectory_(std::move(groupContainersDirectory)) {}

ExtensionCatalog::~ExtensionCatalog() = default;

bool ExtensionCatalog::isBundleName(std::string_view name) {
  return name.size() > kExtensionBundleSuffix.size() && name.front() != '.' &&
         name.ends_with(kExtensionBundleSuffix);
}

ExtensionCatalog::Records ExtensionCatalog::scan(const BundleVisitor& beforeReading) {
  std::lock_guard lock(mutex_);
  Records records;
  std::set<std::string> seen;
  std::unordered_map<std::string, std::string> pathOfIdentifier;
  std::set<Conflict> conflicts;

  for (const std::string& directory : directories_) {
    if (directory.empty() || directory.front() != '/') {
      // Bundle paths become file URLs, which a relative path cannot make.
      auto [it, inserted] = directoryErrors_.try_emplace(directory, EINVAL);
      if (inserted)
        DKLogError("Ignoring extensions directory %@: not an absolute path", directory);
      continue;
    }
    const std::vector<std::string> names = listSearchPathDirectory(
        directory, [](const char* name) { return isBundleName(name); }, "extension bundles",
        directoryErrors_);

    for (const std::string& name : names) {
      const std::string path = appendingPathComponent(directory, name);
      // The same directory listed twice adds nothing.
      if (!seen.insert(path).second)
        continue;
      if (beforeReading)
        beforeReading(path);

      const FileSignature current =
          FileSignature::ofPath(appendingPathComponent(path, kInfoPlistFileName));
      auto cached = bundles_.find(path);
      if (cached == bundles_.end() || cached->second.infoSignature.unstable ||
          !(cached->second.infoSignature == current)) {
        FileSignature signature;
        auto bundle = ExtensionBundle::read(path, &signature);
        if (!bundle) {
          DKLogError("Ignoring extension bundle %@: %@", path,
                     bundle.error()->localizedDescription());
        }
        std::shared_ptr<const PluginRecord> previous =
            cached == bundles_.end() ? nullptr : cached->second.record;
        cached = bundles_
                     .insert_or_assign(
                         path, CachedBundle{signature, std::move(bundle), std::move(previous)})
                     .first;
      } else if (cached->second.bundle) {
        cached->second.bundle = cached->second.bundle->withCurrentExecutableIdentity();
      }

      CachedBundle& entry = cached->second;
      if (!entry.bundle) {
        entry.record.reset();
        continue;
      }
      auto record = std::make_shared<const PluginRecord>(*entry.bundle, groupContainersDirectory_);
      if (entry.record && *entry.record == *record)
        record = entry.record;
      entry.record = record;

      auto [winner, first] = pathOfIdentifier.try_emplace(record->identifier(), path);
      if (!first) {
        Conflict conflict{record->identifier(), path, winner->second};
        if (!conflicts_.contains(conflict)) {
          DKLogNotice("Ignoring extension bundle %@: its identifier %@ is already used by %@", path,
                      record->identifier(), winner->second);
        }
        conflicts.insert(std::move(conflict));
        continue;
      }
      records.push_back(std::move(record));
    }
  }
  std::erase_if(bundles_, [&](const auto& entry) { return !seen.contains(entry.first); });
  conflicts_ = std::move(conflicts);
  return records;
}

ExtensionCatalog::Records ExtensionCatalog::matching(const Records& records,
                                                     std::string_view extensionPointIdentifier) {
  Records result;
  for (const auto& record : records) {
    if (record->extensionPointIdentifier() == extensionPointIdentifier)
      result.push_back(record);
  }
  return result;
}

std::shared_ptr<const PluginRecord> ExtensionCatalog::recordForIdentifier(
    std::string_view identifier) {
  for (auto& record : scan()) {
    if (record->identifier() == identifier)
      return record;
  }
  return nullptr;
}

}  // namespace daskel::platform
