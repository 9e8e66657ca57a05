#include "util/KLVMobileProvision.h"

#include <array>

#include "platform/Bundle.h"
#include "platform/Files.h"
#include "platform/ProcessWide.h"
#include "platform/PropertyList.h"
#include "platform/ThreadSafety.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

struct Cache {
  Mutex mutex;
  std::optional<Dictionary> profile GUARDED_BY(mutex);
};

Cache& cache() {
  static ProcessWide<Cache> instance;
  return *instance;
}

/// Returns the property list, with both its tags, from between the signature's binary parts.
std::optional<std::string> extractedPlist(const std::string& text) {
  constexpr std::string_view kEnd = "</plist>";
  const auto start = text.find("<plist");
  if (start == std::string::npos) {
    KLV_DEBUG("unable to find beginning of plist");
    return std::nullopt;
  }
  const auto end = text.find(kEnd, start);
  if (end == std::string::npos) {
    KLV_DEBUG("unable to find end of plist");
    return std::nullopt;
  }
  return text.substr(start, end + kEnd.size() - start);
}

}  // namespace

std::optional<Dictionary> KLVMobileProvision::profileIn(const std::string& text) {
  const auto plist = extractedPlist(text);
  if (!plist) return std::nullopt;
  std::string error = "its root is no dictionary";
  const auto value = parsePropertyList(*plist, &error);
  auto profile = value ? value->asDictionary() : std::nullopt;
  if (!profile) KLV_ERROR("error parsing extracted plist — {}", error);
  return profile;
}

std::optional<Dictionary> KLVMobileProvision::getMobileProvision() {
  Cache& kept = cache();
  {
    const Lock lock(kept.mutex);
    if (kept.profile) return kept.profile;
  }
  const auto resource = Bundle::main().open("embedded", "mobileprovision");
  const auto text = resource ? readFile(resource->file) : std::nullopt;
  auto profile = text ? profileIn(*text) : std::nullopt;
  const Lock lock(kept.mutex);
  kept.profile = profile;
  return profile;
}

KLVMobileProvision::ReleaseMode KLVMobileProvision::releaseMode() {
  return releaseModeOf(getMobileProvision());
}

KLVMobileProvision::ReleaseMode KLVMobileProvision::releaseModeOf(const std::optional<Dictionary>& profile) {
  if (!profile || profile->empty()) return ReleaseMode::simulator;
  if ((*profile)["ProvisionsAllDevices"].asBool()) return ReleaseMode::enterprise;
  const auto* devices = (*profile)["ProvisionedDevices"].get<Array>();
  if (devices == nullptr || devices->empty()) return ReleaseMode::appStore;
  const auto* entitlements = (*profile)["Entitlements"].get<Dictionary>();
  const bool debuggable = entitlements != nullptr && (*entitlements)["get-task-allow"].asBool();
  return debuggable ? ReleaseMode::developer : ReleaseMode::adHoc;
}

std::string KLVMobileProvision::releaseModeString() {
  constexpr std::array<const char*, 6> kTexts{"Unknown", "Simulator", "Developer", "AdHoc", "AppStore", "Enterprise"};
  return kTexts.at(static_cast<std::size_t>(releaseMode()));
}

}  // namespace kelvo
