#include "util/KLVUtilities+Device.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include "platform/Clock.h"
#include "platform/Device.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/JSON.h"
#include "platform/UserDefaults.h"
#include "util/KLVDefaultsKeys.h"
#include "util/KLVUtilities+Files.h"

namespace kelvo {
namespace {

constexpr const char* kKLVSDKFootprintFile = "com.kelvo.SDK.footprint";
constexpr const char* kKLVFootprintKey = "klv_footprint_time";
constexpr std::int64_t kMillisecondsPerSecond = 1000;
constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;

}  // namespace

std::int64_t KLVUtilities::installationDate() {
  struct statx facts {};
  const char* path = Directories::documents().c_str();
  if (::statx(AT_FDCWD, path, AT_STATX_SYNC_AS_STAT, STATX_BTIME | STATX_MTIME, &facts) != 0) return 0;
  // Not every file system keeps the creation time.
  const auto& time = (facts.stx_mask & STATX_BTIME) != 0 ? facts.stx_btime : facts.stx_mtime;
  return time.tv_sec * kMillisecondsPerSecond + time.tv_nsec / kNanosecondsPerMillisecond;
}

std::string KLVUtilities::deviceName() {
  return Device::machine();
}

bool KLVUtilities::isFirstSession() {
  if (fileExists(Directories::inLibrary(kKLVSDKFootprintFile))) return false;
  saveConfig(jsonText(Dictionary{{kKLVFootprintKey, description(Clock::now())}}), kKLVSDKFootprintFile);
  UserDefaults& defaults = UserDefaults::standard();
  if (!defaults.contains(kKLVLegacyFirstSessionKey)) return true;
  defaults.remove(kKLVLegacyFirstSessionKey);
  return false;
}

std::optional<std::string> KLVUtilities::stringWithDeviceToken(const std::optional<Data>& token) {
  if (!token) return std::nullopt;
  std::string text;
  for (const std::uint8_t byte : *token) text += fmt::format("{:02X}", byte);
  return text;
}

}  // namespace kelvo
