#include "records/KLVServerAPIHelper.h"

#include "records/KLVInfo.h"

namespace kelvo {
namespace {

struct Name {
  std::string_view stored;
  std::string_view uploaded;
};

constexpr Name kAppInfo[] = {{"id", "app_name"},
                             {"app_version", "app_version"},
                             {"bundle_id", "bundle_id"},
                             {"installation_time", "installation_time"},
                             {"sdk_first_run_time_web", "sdk_first_run_time_web"},
                             {"app_mode", "app_mode"}};

constexpr Name kDeviceInfo[] = {{"id", "id"},
                                {"hardware_model", "hardware_model"},
                                {"dimensions", "dimensions"},
                                {"os_version", "os_version"},
                                {"device_registration_token", "device_registration_token"},
                                {"platform", "platform"},
                                {"dpi", "dpi"},
                                {"dimensions_in_pixels", "dimensions_in_pixels"}};

// Kept: no "id", so this record's identifier is never uploaded.
constexpr Name kSDKInfo[] = {{"sdk_version", "sdk_version"},
                             {"config_id", "config_id"},
                             {"tick_interval", "tick_interval"},
                             {"chunk_retry_window", "chunk_retry_window"},
                             {"sdk_start_time", "sdk_start_time"}};

constexpr Name kSession[] = {{"id", "id"},
                             {"launch_time", "launch_time"},
                             {"launch_time_web", "launch_time_web"},
                             {"launch_time_string", "launch_time_string"},
                             {"startup_time", "startup_time"},
                             {"is_background", "is_background"},
                             {"is_first_session", "is_first_session"},
                             {"process_name", "process_name"},
                             {"is_fatal", "is_fatal"},
                             {"launch_type", "launch_type"},
                             {"duration", "duration"},
                             {"total_duration", "total_duration"},
                             {"__custom_info__", "additional_info"}};

constexpr Name kUser[] = {{"id", "id"}, {"__custom_info__", "additional_info"}};

constexpr Name kSystemEvent[] = {{"id", "name"}, {"time", "time"}};

constexpr Name kAppEvent[] = {
    {"id", "name"}, {"time", "time"}, {"category", "category"}, {"__custom_info__", "additional_info"}};

constexpr Name kNavigationEvent[] = {
    {"id", "navigation_id"}, {"name", "name"}, {"duration", "duration"}, {"time", "transition_time"}};

constexpr Name kObservationEvent[] = {{"id", "incident_id"},
                                      {"type", "incident_type"},
                                      {"time", "time_of_occurrence"},
                                      {"__custom_info__", "incident_specific_details"},
                                      {"navigation_id", "navigation_id"},
                                      {"associated_event", "associated_event"},
                                      {"health_snapshot", "health_snapshot"}};

constexpr Name kChunk[] = {{"id", "id"}, {"number", "number"}, {"reporting_times", "reporting_times"}};

struct Map {
  template <std::size_t kCount>
  constexpr Map(std::string_view itsClass, const Name (&itsNames)[kCount])
      : className(itsClass), first(itsNames), last(itsNames + kCount) {}

  std::string_view className;
  const Name* first;
  const Name* last;
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

std::optional<std::string_view> KLVServerAPIHelper::convertInClass(std::string_view key, std::string_view className) {
  for (const Map& map : kMasterMap) {
    if (map.className != className) continue;
    for (const Name* name = map.first; name != map.last; ++name) {
      if (name->stored == key) return name->uploaded;
    }
    return std::nullopt;
  }
  return key;
}

std::optional<std::string_view> KLVServerAPIHelper::convertInInstance(std::string_view key, const KLVInfo& record) {
  return convertInClass(key, record.className());
}

}  // namespace kelvo
