#include "provider/DKExtensionHostContext.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "provider/protocol/DKVendorProtocol.h"

namespace daskel {
namespace {

TEST(DKExtensionHostContextTest, EachProtocolIsOneObjectForEveryCallerOnEveryThread) {
  std::vector<const platform::IpcInterface*> hosts(8);
  std::vector<const platform::IpcInterface*> vendors(8);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < hosts.size(); ++i) {
    threads.emplace_back([&, i] {
      hosts[i] = &DKExtensionHostContext::_extensionAuxiliaryHostProtocol();
      vendors[i] = &DKExtensionHostContext::_extensionAuxiliaryVendorProtocol();
    });
  }
  for (auto& thread : threads)
    thread.join();
  for (std::size_t i = 0; i < hosts.size(); ++i) {
    EXPECT_EQ(hosts[i], &DKExtensionHostContext::_extensionAuxiliaryHostProtocol());
    EXPECT_EQ(vendors[i], &DKExtensionHostContext::_extensionAuxiliaryVendorProtocol());
  }
  const platform::ExtensionContextClass contextClass = DKExtensionHostContext::contextClass();
  EXPECT_EQ(&contextClass.hostInterface(), hosts[0]);
  EXPECT_EQ(&contextClass.vendorInterface(), vendors[0]);
}

TEST(DKExtensionHostContextTest, TheHostExportsNothingAndTheVendorAllSevenOperations) {
  const auto& host = DKExtensionHostContext::_extensionAuxiliaryHostProtocol();
  const auto& vendor = DKExtensionHostContext::_extensionAuxiliaryVendorProtocol();
  namespace S = DKVendorSelector;
  for (const char* selector :
       {S::kPerformInitialSetup, S::kProvidePlaceholder, S::kStartProviding, S::kItemChanged,
        S::kStopProviding, S::kIdentifierForItem, S::kURLForItemIdentifier}) {
    EXPECT_EQ(host.operation(selector), nullptr) << selector;
    EXPECT_NE(vendor.operation(selector), nullptr) << selector;
  }
}

}  // namespace
}  // namespace daskel
