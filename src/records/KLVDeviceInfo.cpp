#include "records/KLVDeviceInfo.h"

#include "platform/Device.h"
#include "platform/UserDefaults.h"
#include "records/KLVUUID.h"
#include "util/KLVUtilities+Device.h"

namespace kelvo {
namespace {

constexpr std::string_view kKLVDeviceId = "klv_device_id";

/// The id of this installation. A stored one is never checked or replaced.
std::string deviceId() {
  UserDefaults& defaults = UserDefaults::standard();
  if (const auto stored = defaults.string(kKLVDeviceId)) return *stored;
  const std::string made = KLVDeviceInfo::getIDFA().value_or(randomUUIDString());
  defaults.set(kKLVDeviceId, made);
  defaults.synchronize();
  return made;
}

}  // namespace

KLVDeviceInfo::KLVDeviceInfo(std::string identifier) : KLVInfo(std::move(identifier)) {
  setIdentifier(deviceId());
  setInfo(KLVUtilities::deviceName(), "hardware_model");
  setInfo(Device::systemVersion(), "os_version");
  setInfo("ios", "platform");
  const ScreenSize screen = Device::screenSize();
  setInfo(Dictionary{{"width", screen.width}, {"height", screen.height}}, "dimensions");
}

std::string KLVDeviceInfo::getHardwareModel() const {
  return description(additionalInfo()["hardware_model"]);
}

void KLVDeviceInfo::logDeviceToken(const std::string& token) {
  setInfo(token, "device_registration_token");
}

std::optional<std::string> KLVDeviceInfo::getIDFA() {
  return std::nullopt;
}

}  // namespace kelvo
