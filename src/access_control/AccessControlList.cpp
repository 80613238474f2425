#include "access_control/AccessControlList.h"

#include <algorithm>

#include "platform/plist/PropertyList.h"

namespace daskel {

using platform::Value;

// The provider and consumer entries of a pair, when both exist and the consumer entry holds
// an "AllowedItemIDs" array. Shared by the const query and the mutating removal.
template <typename List>
auto AccessControlList::find(List& list, std::string_view providerID, std::string_view consumerID)
    -> std::optional<std::pair<decltype(list.providers_.begin()),
                               decltype(list.providers_.begin()->second.begin())>> {
  auto provider = list.providers_.find(providerID);
  if (provider == list.providers_.end()) {
    return std::nullopt;
  }
  auto consumer = provider->second.find(consumerID);
  if (consumer == provider->second.end() || !consumer->second) {
    return std::nullopt;
  }
  return std::pair{provider, consumer};
}

bool AccessControlList::contains(std::string_view providerID,
                                 std::string_view itemID,
                                 std::string_view consumerID) const {
  auto location = find(*this, providerID, consumerID);
  if (!location) {
    return false;
  }
  const Items& items = *location->second->second;
  return std::find(items.begin(), items.end(), itemID) != items.end();
}

bool AccessControlList::add(std::string_view providerID,
                            std::string_view itemID,
                            std::string_view consumerID) {
  auto provider = providers_.try_emplace(std::string(providerID)).first;
  auto consumer = provider->second.try_emplace(std::string(consumerID)).first;
  if (!consumer->second) {
    consumer->second.emplace();
  }
  Items& items = *consumer->second;
  if (std::find(items.begin(), items.end(), itemID) != items.end()) {
    return false;
  }
  items.emplace_back(itemID);
  forgetXml(providerID);
  return true;
}

bool AccessControlList::remove(std::string_view providerID,
                               std::string_view itemID,
                               std::string_view consumerID) {
  auto location = find(*this, providerID, consumerID);
  if (!location) {
    return false;
  }
  auto [provider, consumer] = *location;
  Items& items = *consumer->second;
  auto removed = std::remove(items.begin(), items.end(), itemID);
  if (removed == items.end()) {
    return false;
  }
  items.erase(removed, items.end());
  forgetXml(providerID);
  // Prune bottom-up, stopping at the first level that still holds something. A consumer entry
  // has no key but "AllowedItemIDs", so an empty array leaves it empty.
  if (items.empty()) {
    provider->second.erase(consumer);
    if (provider->second.empty()) {
      providers_.erase(provider);
    }
  }
  return true;
}

void AccessControlList::forgetXml(std::string_view providerID) {
  if (auto cached = providerXml_.find(providerID); cached != providerXml_.end()) {
    providerXml_.erase(cached);
  }
}

const std::string& AccessControlList::providerXml(const std::string& providerID,
                                                  const ConsumerEntries& consumers) const {
  auto cached = providerXml_.find(providerID);
  if (cached != providerXml_.end()) {
    return cached->second;
  }
  auto writer = platform::XmlPropertyListWriter::fragment(1);
  writer.key(providerID);
  writer.beginDictionary();
  for (const auto& [consumerID, items] : consumers) {
    writer.key(consumerID);
    writer.beginDictionary();
    if (items) {
      writer.key(kAllowedItemIDsKey);
      writer.beginArray();
      for (const auto& item : *items) {
        writer.string(item);
      }
      writer.endArray();
    }
    writer.endDictionary();
  }
  writer.endDictionary();
  return providerXml_.emplace(providerID, writer.finish()).first->second;
}

std::string AccessControlList::toXml(std::string&& buffer) const {
  platform::XmlPropertyListWriter writer(std::move(buffer));
  writer.beginDictionary();
  for (const auto& [providerID, consumers] : providers_) {
    writer.raw(providerXml(providerID, consumers));
  }
  writer.endDictionary();
  return writer.finish();
}

AccessControlList::Parsed AccessControlList::fromPropertyList(const Value& root) {
  Parsed parsed;
  const Value::Dictionary* providers = root.dictionary();
  if (!providers) {
    // A root of another type holds no grants at all.
    parsed.malformedEntries = root.isNull() ? 0 : 1;
    return parsed;
  }
  for (const auto& [providerID, providerValue] : *providers) {
    const Value::Dictionary* consumers = providerValue.dictionary();
    if (!consumers) {
      ++parsed.malformedEntries;
      continue;
    }
    ConsumerEntries& consumerEntries = parsed.list.providers_[providerID];
    for (const auto& [consumerID, consumerValue] : *consumers) {
      const Value::Dictionary* entry = consumerValue.dictionary();
      if (!entry) {
        ++parsed.malformedEntries;
        continue;
      }
      std::optional<Items>& items = consumerEntries[consumerID];
      for (const auto& [key, itemsValue] : *entry) {
        if (key != kAllowedItemIDsKey) {
          ++parsed.malformedEntries;
          continue;
        }
        const Value::Array* array = itemsValue.array();
        if (!array) {
          ++parsed.malformedEntries;
          continue;
        }
        items.emplace();
        items->reserve(array->size());
        for (const Value& item : *array) {
          if (const std::string* text = item.string()) {
            items->push_back(*text);
          } else {
            ++parsed.malformedEntries;
          }
        }
      }
    }
  }
  return parsed;
}

}  // namespace daskel
