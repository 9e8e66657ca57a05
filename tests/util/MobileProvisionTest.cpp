#include "util/KLVMobileProvision.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "platform/PropertyList.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

/// A signed profile: the property list amid bytes that are no text.
std::string signedProfile(const std::string& plist) {
  return std::string("\x30\x82\x00\xFF<pl\x00", 8) + plist + std::string("\x00\xA0</plist\x00\x01", 11);
}

void installProfile(const std::string& content) {
  ::setenv("KELVO_BUNDLE", (home() + "/bundle").c_str(), 1);
  writeFileForTest(home() + "/bundle/Resources/embedded.mobileprovision", content);
}

TEST(MobileProvision, TellsHowTheApplicationWasDistributed) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the profile is kept for the process: each case has its own
  const Dictionary debuggable{{"get-task-allow", true}};
  const Array devices{"device"};
  const struct {
    Dictionary profile;
    const char* mode;
  } cases[] = {
      {{{"ProvisionsAllDevices", true}, {"ProvisionedDevices", devices}, {"Entitlements", debuggable}}, "Enterprise"},
      {{{"ProvisionsAllDevices", false}, {"ProvisionedDevices", devices}, {"Entitlements", debuggable}}, "Developer"},
      {{{"ProvisionedDevices", devices}, {"Entitlements", Dictionary{{"get-task-allow", false}}}}, "AdHoc"},
      {{{"ProvisionedDevices", devices}, {"Entitlements", "of the wrong type"}}, "AdHoc"},
      {{{"ProvisionedDevices", Array{}}, {"Entitlements", debuggable}}, "AppStore"},
      {{}, "Simulator"}};
  for (const auto& [profile, mode] : cases) {
    EXPECT_EXIT(
        {
          installProfile(signedProfile(serialisePropertyList(profile)));
          const std::string seen = KLVMobileProvision::releaseModeString();
          std::filesystem::remove_all(home());
          std::fprintf(stderr, "mode=%s.\n", seen.c_str());
          std::_Exit(0);
        },
        testing::ExitedWithCode(0), std::string("mode=") + mode + "\\.");
  }
}

TEST(MobileProvision, LooksAgainUntilAProfileParsesAndThenKeepsIt) {
  const LogCapture log;
  const auto expectMode = [](const std::string& content, const char* mode) {
    installProfile(content);
    EXPECT_EQ(KLVMobileProvision::releaseModeString(), mode) << content;
  };
  expectMode("", "Simulator");
  EXPECT_EQ(log.count("<KLV DEBUG> unable to find beginning of plist"), 1U);
  expectMode("</plist><plist><dict>", "Simulator");
  EXPECT_EQ(log.count("<KLV DEBUG> unable to find end of plist"), 1U);
  expectMode("<plist><dict></array></plist>", "Simulator");
  expectMode("<plist><array><string>a</string></array></plist>", "Simulator");
  EXPECT_EQ(log.count("<KLV ERROR> error parsing extracted plist — "), 2U);
  EXPECT_EQ(KLVMobileProvision::getMobileProvision(), std::nullopt);

  const std::string good = serialisePropertyList({{"ProvisionsAllDevices", true}});
  expectMode(signedProfile(good.substr(good.find("<plist"))), "Enterprise");
  expectMode("", "Enterprise");
}

}  // namespace
}  // namespace kelvo::test
