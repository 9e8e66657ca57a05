#include "records/KLVDeviceInfo.h"

#include "platform/Device.h"
#include "platform/UserDefaults.h"
#include "records/KLVRecordKeys.h"
#include "records/KLVUUID.h"
#include "util/KLVDefaultsKeys.h"
#include "util/KLVUtilities+Device.h"

namespace kelvo {
namespace {

/// Returns the id of this installation. Makes and saves one if there is none; never checks or replaces a saved one.
std::string deviceId() {
  UserDefaults& defaults = UserDefaults::standard();
  if (const auto stored = defaults.string(kKLVDeviceIdKey)) return *stored;
  const std::string made = KLVDeviceInfo::getIDFA().value_or(randomUUIDString());
  defaults.set(kKLVDeviceIdKey, made);
  defaults.synchronize();
  return made;
}

}  // namespace

KLVDeviceInfo::KLVDeviceInfo(std::string identifier) : KLVInfo(std::move(identifier)) {
  setIdentifier(deviceId());
  setInfo(KLVUtilities::deviceName(), kKLVHardwareModel);
  setInfo(Device::systemVersion(), kKLVOSVersion);
  setInfo("ios", kKLVPlatform);  // Kept: "ios", also on Linux.
  const ScreenSize screen = Device::screenSize();
  setInfo(Dictionary{{"width", screen.width}, {"height", screen.height}}, kKLVDimensions);
}

std::string KLVDeviceInfo::getHardwareModel() const {
  return description(additionalInfo()[kKLVHardwareModel]);
}

void KLVDeviceInfo::logDeviceToken(const std::string& token) {
  setInfo(token, kKLVDeviceToken);
}

std::optional<std::string> KLVDeviceInfo::getIDFA() {
  return std::nullopt;
}

}  // namespace kelvo
