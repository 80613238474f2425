// AccessControlList: the in-memory access-control list, and its file form.
//
// Provider identifier -> consumer identifier -> "AllowedItemIDs" -> item identifiers, in the
// order they were granted. Identifiers are compared exactly (case-sensitive, no normalisation);
// an item identifier is a whole string and may contain "/".
//
// The file is an XML property list (any property-list form is accepted on reading):
//   <dict>
//     <key>provider</key> <dict>
//       <key>consumer</key> <dict>
//         <key>AllowedItemIDs</key> <array> <string>item</string> ... </array>
//       </dict>
//     </dict>
//   </dict>
// A file of another shape is read safely: a level or entry of the wrong type counts as absent
// and is counted in `malformedEntries`, so the caller can report it once per read.
//
// Plain data: not thread safe. DKAccessControlStore touches it only on its sync queue.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/value/Value.h"

namespace daskel {

inline constexpr char kAllowedItemIDsKey[] = "AllowedItemIDs";

class AccessControlList {
 public:
  using Items = std::vector<std::string>;
  // A consumer entry is a dictionary whose one key is "AllowedItemIDs"; nullopt when the
  // key is absent (only a file can produce that; mutations never leave it so).
  using ConsumerEntries = std::map<std::string, std::optional<Items>, std::less<>>;
  using ProviderEntries = std::map<std::string, ConsumerEntries, std::less<>>;

  // Whether provider -> consumer -> "AllowedItemIDs" holds `itemID`. Any missing level: false.
  bool contains(std::string_view providerID,
                std::string_view itemID,
                std::string_view consumerID) const;

  // Appends `itemID`, creating the levels it needs. False (and no change) when it is already
  // there.
  bool add(std::string_view providerID, std::string_view itemID, std::string_view consumerID);

  // Removes every occurrence of `itemID` and prunes levels left empty, bottom-up. False (and no
  // change) when it was not there.
  bool remove(std::string_view providerID, std::string_view itemID, std::string_view consumerID);

  bool empty() const { return providers_.empty(); }
  const ProviderEntries& providers() const { return providers_; }

  // The XML property-list document for this list, written into `buffer`'s memory when one is
  // given (see XmlPropertyListWriter).
  std::string toXml(std::string&& buffer = {}) const;

  struct Parsed;
  // Builds a list from a property-list value. Never fails: what does not fit the format is
  // left out and counted.
  static Parsed fromPropertyList(const platform::Value& root);

 private:
  void forgetXml(std::string_view providerID);
  const std::string& providerXml(const std::string& providerID,
                                 const ConsumerEntries& consumers) const;

  template <typename List>
  static auto find(List& list, std::string_view providerID, std::string_view consumerID)
      -> std::optional<std::pair<decltype(list.providers_.begin()),
                                 decltype(list.providers_.begin()->second.begin())>>;

  ProviderEntries providers_;
  // Each provider's part of the XML document, kept until that provider's entry changes, so a
  // commit re-serialises only the provider that changed.
  mutable std::map<std::string, std::string, std::less<>> providerXml_;
};

struct AccessControlList::Parsed {
  AccessControlList list;
  std::size_t malformedEntries = 0;
};

}  // namespace daskel
