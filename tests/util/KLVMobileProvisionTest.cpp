#include "util/KLVMobileProvision.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

#include "platform/PropertyList.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

TEST(MobileProvision, FindsTheReleaseModeInTheSignedProfile) {
  ::setenv("KELVO_BUNDLE", (home() + "/bundle").c_str(), 1);
  const Value debuggable = Dictionary{{"get-task-allow", true}};
  const Dictionary::Entry devices{"ProvisionedDevices", Array{"device"}}, none{"ProvisionedDevices", Array{}};
  const std::pair<Dictionary, const char*> cases[] = {
      {{{"ProvisionsAllDevices", true}, devices, {"Entitlements", debuggable}}, "Enterprise"},
      {{{"ProvisionsAllDevices", false}, devices, {"Entitlements", debuggable}}, "Developer"},
      {{devices, {"Entitlements", "of the wrong type"}}, "AdHoc"},
      {{none, {"Entitlements", debuggable}}, "AppStore"},
      {{}, "Simulator"}};
  for (const auto& [profile, mode] : cases) {
    const std::string before("\x30\x82\x00\xFF<pl\x00", 8),
        after("\x00\xA0</plist\x00\x01", 11);  // the signature's bytes
    writeFileForTest(home() + "/bundle/Resources/embedded.mobileprovision",
                     before + serialisePropertyList(profile) + after);
    const auto printMode = [] {
      std::cerr << "mode=" << KLVMobileProvision::releaseModeString() << ".\n";
      std::_Exit(0);
    };
    // The library keeps the profile for the life of the process, so each case runs in a process of its own.
    EXPECT_EXIT(printMode(), testing::ExitedWithCode(0), std::string("mode=") + mode + "\\.");
  }
}

}  // namespace
}  // namespace kelvo::test
