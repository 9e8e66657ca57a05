#include "records/KLVAppInfo.h"

#include "platform/Bundle.h"
#include "records/KLVRecordKeys.h"
#include "util/KLVMobileProvision.h"
#include "util/KLVUtilities+Device.h"

namespace kelvo {
namespace {

/// Returns the text under `key` of the bundle's Info.plist, empty if the key is missing.
std::string bundleText(std::string_view key) {
  const Value* value = Bundle::main().infoDictionary().find(key);
  return value != nullptr ? description(*value) : std::string();
}

}  // namespace

KLVAppInfo::KLVAppInfo(std::string identifier) : KLVInfo(std::move(identifier)) {
  const bool hasName = Bundle::main().infoDictionary().contains("CFBundleName");
  setIdentifier(bundleText(hasName ? "CFBundleName" : "CFBundleDisplayName"));
  setInfo(bundleText("CFBundleShortVersionString") + "(" + bundleText("CFBundleVersion") + ")", kKLVAppVersion);
  setInfo(KLVMobileProvision::releaseModeString(), kKLVAppMode);
  setInfo(bundleText("CFBundleIdentifier"), kKLVBundleId);
  setInfo(KLVUtilities::installationDate(), kKLVInstallationTime);
}

}  // namespace kelvo
