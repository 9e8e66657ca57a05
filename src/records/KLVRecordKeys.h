#pragma once

#include <string_view>

namespace kelvo {

// The storage names of record attributes, and the names of an upload's sections. Files, database and service use
// them, so they never change.

// --- Every record.
inline constexpr std::string_view kKLVId = "id";
/// A record's storage form keeps all attributes under this key, as one JSON text.
inline constexpr std::string_view kKLVAdditionalInfo = "__additional_info__";
/// The host's own attributes, nested in the attributes.
inline constexpr std::string_view kKLVCustomInfo = "__custom_info__";

// --- Application, device, library.
inline constexpr std::string_view kKLVAppVersion = "app_version";
inline constexpr std::string_view kKLVAppMode = "app_mode";
inline constexpr std::string_view kKLVBundleId = "bundle_id";
inline constexpr std::string_view kKLVInstallationTime = "installation_time";
inline constexpr std::string_view kKLVHardwareModel = "hardware_model";
inline constexpr std::string_view kKLVOSVersion = "os_version";
inline constexpr std::string_view kKLVPlatform = "platform";
inline constexpr std::string_view kKLVDimensions = "dimensions";
inline constexpr std::string_view kKLVDeviceToken = "device_registration_token";
inline constexpr std::string_view kKLVSDKVersionKey = "sdk_version";
inline constexpr std::string_view kKLVSDKStartTime = "sdk_start_time";
inline constexpr std::string_view kKLVConfigId = "config_id";
inline constexpr std::string_view kKLVTickInterval = "tick_interval";
inline constexpr std::string_view kKLVChunkRetryWindow = "chunk_retry_window";

// --- Session.
inline constexpr std::string_view kKLVLaunchTime = "launch_time";
inline constexpr std::string_view kKLVLaunchTimeString = "launch_time_string";
inline constexpr std::string_view kKLVLaunchType = "launch_type";
inline constexpr std::string_view kKLVStartupTime = "startup_time";
inline constexpr std::string_view kKLVIsFirstSession = "is_first_session";
inline constexpr std::string_view kKLVIsBackground = "is_background";
inline constexpr std::string_view kKLVIsFatal = "is_fatal";
inline constexpr std::string_view kKLVProcessName = "process_name";
inline constexpr std::string_view kKLVDuration = "duration";  // also of a screen

// --- Events.
inline constexpr std::string_view kKLVTime = "time";
inline constexpr std::string_view kKLVType = "type";
inline constexpr std::string_view kKLVName = "name";
inline constexpr std::string_view kKLVLifetimeCountAttribute = "klv_lt_count";
inline constexpr std::string_view kKLVLifetimeCountSlot = "klv_lt_count_slot";
/// A column only: the event's number in its session, from 1.
inline constexpr std::string_view kKLVEventIndex = "identifier";

// --- Chunks. The names of a row's attributes are the columns of the table "chunkmeta" (storage/KLVSchema.h).
inline constexpr std::string_view kKLVChunkNumber = "number";
inline constexpr std::string_view kKLVChunkId = kKLVId;
inline constexpr std::string_view kKLVChunkSid = "sid";
inline constexpr std::string_view kKLVChunkCid = "cid";
inline constexpr std::string_view kKLVChunkStart = "start";
inline constexpr std::string_view kKLVChunkEnd = "end";
inline constexpr std::string_view kKLVChunkReportingTimes = "reporting_times";
inline constexpr std::string_view kKLVChunkStatus = "status";

// --- Sections of an upload's body.
inline constexpr std::string_view kKLVBodySDKInfo = "sdk_info";
inline constexpr std::string_view kKLVBodySessionInfo = "session_info";
inline constexpr std::string_view kKLVBodyAppInfo = "app_info";
inline constexpr std::string_view kKLVBodyDeviceInfo = "device_info";
inline constexpr std::string_view kKLVBodyChunkMeta = "chunk_meta";
inline constexpr std::string_view kKLVBodyChunkDetails = "chunk_details";
inline constexpr std::string_view kKLVBodyUserAttributes = "user_attributes";

}  // namespace kelvo
