#include "records/KLVAppInfo.h"

#include "platform/Bundle.h"
#include "util/KLVMobileProvision.h"
#include "util/KLVUtilities+Device.h"

namespace kelvo {
namespace {

/// The text under `key` of the bundle's `Info.plist`; empty when absent.
std::string bundleText(std::string_view key) {
  const Value* value = Bundle::main().infoDictionary().find(key);
  return value != nullptr ? description(*value) : std::string();
}

}  // namespace

KLVAppInfo::KLVAppInfo(std::string identifier) : KLVInfo(std::move(identifier)) {
  const bool hasName = Bundle::main().infoDictionary().contains("CFBundleName");
  setIdentifier(bundleText(hasName ? "CFBundleName" : "CFBundleDisplayName"));
  setInfo(bundleText("CFBundleShortVersionString") + "(" + bundleText("CFBundleVersion") + ")", "app_version");
  setInfo(KLVMobileProvision::releaseModeString(), "app_mode");
  setInfo(bundleText("CFBundleIdentifier"), "bundle_id");
  setInfo(KLVUtilities::installationDate(), "installation_time");
}

}  // namespace kelvo
