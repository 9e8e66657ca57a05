#include "records/KLVServerAPIHelper.h"

#include <span>

#include "records/KLVRecordKeys.h"

namespace kelvo {
namespace {

using Name = KLVKeyMap::Name;

// The library itself never sets the attributes whose storage names are literals here.
constexpr Name kAppInfo[] = {{kKLVId, "app_name"},       kKLVAppVersion, kKLVBundleId, kKLVInstallationTime,
                             {"sdk_first_run_time_web"}, kKLVAppMode};

constexpr Name kDeviceInfo[] = {kKLVId,          kKLVHardwareModel, kKLVDimensions, kKLVOSVersion,
                                kKLVDeviceToken, kKLVPlatform,      {"dpi"},        {"dimensions_in_pixels"}};

// Kept: no "id", so this record's identifier is never uploaded.
constexpr Name kSDKInfo[] = {kKLVSDKVersionKey, kKLVConfigId, kKLVTickInterval, kKLVChunkRetryWindow, kKLVSDKStartTime};

constexpr Name kSession[] = {kKLVId,
                             kKLVLaunchTime,
                             {"launch_time_web"},
                             kKLVLaunchTimeString,
                             kKLVStartupTime,
                             kKLVIsBackground,
                             kKLVIsFirstSession,
                             kKLVProcessName,
                             kKLVIsFatal,
                             kKLVLaunchType,
                             kKLVDuration,
                             {"total_duration"},
                             {kKLVCustomInfo, "additional_info"}};

constexpr Name kUser[] = {kKLVId, {kKLVCustomInfo, "additional_info"}};

constexpr Name kSystemEvent[] = {{kKLVId, "name"}, kKLVTime};

constexpr Name kAppEvent[] = {{kKLVId, "name"}, kKLVTime, {"category"}, {kKLVCustomInfo, "additional_info"}};

constexpr Name kNavigationEvent[] = {{kKLVId, "navigation_id"}, kKLVName, kKLVDuration, {kKLVTime, "transition_time"}};

constexpr Name kObservationEvent[] = {{kKLVId, "incident_id"},
                                      {kKLVType, "incident_type"},
                                      {kKLVTime, "time_of_occurrence"},
                                      {kKLVCustomInfo, "incident_specific_details"},
                                      {"navigation_id"},
                                      {"associated_event"},
                                      {"health_snapshot"}};

constexpr Name kChunk[] = {kKLVId, kKLVChunkNumber, kKLVChunkReportingTimes};

struct Map {
  std::string_view className;
  std::span<const Name> names;
};

constexpr Map kMasterMap[] = {{"KLVAppInfo", kAppInfo},
                              {"KLVDeviceInfo", kDeviceInfo},
                              {"KLVSDKInfo", kSDKInfo},
                              {"KLVSession", kSession},
                              {"KLVSystemEvent", kSystemEvent},
                              {"KLVAppEvent", kAppEvent},
                              {"KLVNavigationEvent", kNavigationEvent},
                              {"KLVObservationEvent", kObservationEvent},
                              {"KLVChunk", kChunk},
                              {"KLVUser", kUser}};

}  // namespace

KLVKeyMap KLVKeyMap::ofClass(std::string_view className) {
  for (const Map& map : kMasterMap) {
    if (map.className == className) return KLVKeyMap(map.names);
  }
  return {};
}

std::optional<std::string_view> KLVKeyMap::convert(std::string_view key) const {
  if (names_.empty()) return key;
  for (const Name& name : names_) {
    if (name.stored == key) return name.uploaded;
  }
  return std::nullopt;
}

std::optional<std::string_view> KLVServerAPIHelper::convertInClass(std::string_view key, std::string_view className) {
  return KLVKeyMap::ofClass(className).convert(key);
}

}  // namespace kelvo
