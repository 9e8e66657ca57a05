#pragma once

#include <string_view>

namespace kelvo {

// Files in the Library directory. They are on disk, so the names never change.
inline constexpr std::string_view kKLVDeviceInfo = "device_info";
inline constexpr std::string_view kKLVUserDB = "com.kelvo.db.user";
inline constexpr std::string_view kKLVEventsBuffer = "com.kelvo.db.eventsbuffer";
inline constexpr std::string_view kKLVConsent = "com.kelvo.consent.json";
inline constexpr std::string_view kKLVSDKFrequencyConfig = "com.kelvo.frequency.config.json";
inline constexpr std::string_view kKLVClientEventsPath = "com.kelvo.SDK.clientevents";
inline constexpr std::string_view kKLVSDKPIDMIDForRTA = "com.kelvo.SDK.rta.pidmid";
inline constexpr std::string_view kKLVSDKPIDMIDForSurvey = "com.kelvo.SDK.survey.pidmid";
inline constexpr std::string_view kKLVSDKRTAConfigLocation = "com.kelvo.SDK.v2.rta.config.json";
inline constexpr std::string_view kKLVSDKSurveyConfigLocation = "com.kelvo.SDK.v2.survey.config.json";
inline constexpr std::string_view kKLVSdkConfigLocation = "com.kelvo.SDK.config.json";
inline constexpr std::string_view kKLVSDKEnableStatusConfig = "com.kelvo.SDK.enable.status.json";

// Files in a session's directory, Library/<session id>.
inline constexpr std::string_view kKLVAppInfo = "app_info";
inline constexpr std::string_view kKLVSDKInfo = "sdk_info";
inline constexpr std::string_view kKLVSessionInfo = "session_info";

}  // namespace kelvo
