// DKAccessControl: the one question the rest of the daemon asks about the access-control list:
// may a provider hand an item to a consumer? Implemented by DKAccessControlStore.
#pragma once

#include <optional>
#include <string_view>

namespace daskel {

class DKAccessControl {
 public:
  virtual ~DKAccessControl() = default;

  // Absent (nullopt) arguments answer false; empty strings are looked up like any other key.
  virtual bool isProviderWithIdentifier(std::optional<std::string_view> providerID,
                                        std::optional<std::string_view> itemID,
                                        std::optional<std::string_view> consumerID) = 0;
};

}  // namespace daskel
