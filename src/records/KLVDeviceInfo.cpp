#include "records/KLVDeviceInfo.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "platform/Device.h"
#include "platform/UserDefaults.h"
#include "records/KLVRecordKeys.h"
#include "records/KLVUUID.h"
#include "util/KLVDefaultsKeys.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVLogger.h"
#include "util/KLVUtilities+Device.h"

namespace kelvo {
namespace {

constexpr std::size_t kLongestNamePart = 64;

bool isSafeInNames(char character) {
  constexpr std::string_view kSafe = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-.";
  return kSafe.find(character) != std::string_view::npos;
}

/// Returns 256 bits from the system's random source as hexadecimal digits.
std::string randomSecret() {
  constexpr std::size_t kBytes = 32;
  std::array<std::uint8_t, kBytes> bytes{};
  if (::getentropy(bytes.data(), bytes.size()) != 0) throw std::runtime_error("The system has no random numbers");
  std::string text;
  for (const std::uint8_t byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

/// Returns the id of this installation. Makes and saves one if there is none. A saved one that breaks names costs an
/// ERROR line, and is replaced if the rules say so.
std::string deviceId() {
  UserDefaults& defaults = UserDefaults::standard();
  if (const auto stored = defaults.string(kKLVDeviceIdKey)) {
    if (KLVDeviceInfo::namePart(*stored) == *stored) return *stored;
    const bool replaces = KLVDeliveryRules::current().replacesForeignDeviceIds;
    KLV_ERROR("The device id \"{}\" cannot be part of names: {}", *stored,
              replaces ? "it is replaced" : "names are made without its special characters");
    if (!replaces) return *stored;
  }
  const std::string made = KLVDeviceInfo::getIDFA().value_or(randomUUIDString());
  defaults.set(kKLVEraseSecretKey, randomSecret());  // first: no id without a secret is ever on the disk
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

void KLVDeviceInfo::logDeviceToken(const std::string& token, KLVWaitingCall call) {
  const Lock lock(tokenMutex_);
  setInfo(token, kKLVDeviceToken);
  hasToken_ = true;
  tokenCall_ = std::move(call);
}

void KLVDeviceInfo::logEarlierToken(const std::string& token, KLVWaitingCall call) {
  const Lock lock(tokenMutex_);
  if (hasToken_) return;
  setInfo(token, kKLVDeviceToken);
  tokenCall_ = std::move(call);
}

KLVWaitingCall KLVDeviceInfo::tokenCall() const {
  const Lock lock(tokenMutex_);
  return tokenCall_;
}

std::string KLVDeviceInfo::eraseSecret() {
  UserDefaults& defaults = UserDefaults::standard();
  if (auto stored = defaults.string(kKLVEraseSecretKey)) return *std::move(stored);
  std::string made = randomSecret();
  defaults.set(kKLVIsNamedKey, true);  // older versions have kept no such note
  defaults.set(kKLVEraseSecretKey, made);
  defaults.synchronize();
  return made;
}

std::string KLVDeviceInfo::namePart(const std::string& deviceId) {
  if (deviceId.empty()) return "-";
  std::string safe = deviceId.substr(0, kLongestNamePart);
  std::replace_if(
      safe.begin(), safe.end(), [](char character) { return !isSafeInNames(character); }, '-');
  return safe;
}

std::optional<std::string> KLVDeviceInfo::getIDFA() {
  return std::nullopt;
}

}  // namespace kelvo
