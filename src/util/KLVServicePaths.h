#pragma once

#include <string>
#include <string_view>

namespace kelvo {

// The paths of the service. Callers replace each placeholder, such as <app-id>, before use.
inline constexpr std::string_view kKLVSDKEnableURL = "/v2/api/<app-id>/sdk/enabled-status?platform=ios&sdk_version=";
inline constexpr std::string_view kKLVSDKConfigURL = "/v2/api/config/<app-id>/ios";
inline constexpr std::string_view kKLVSDKUserInfoURL = "/v2/api/user?appId=";
inline constexpr std::string_view kKLVSDKUserDeletionURL = "/v2/api/user?appId=<app-id>&userId=<user-id>";
/// The header with the secret of the device, of the user-info request and of the deletion request.
inline constexpr std::string_view kKLVEraseHeader = "X-Kelvo-Erase";
inline constexpr std::string_view kKLVSDKChunkURL = "/v2/api/<app-id>/chunks";
inline constexpr std::string_view kKLVSDKSyncValidateURL =
    "/v2/sync/<app-id>/validate?userId=<user-id>&actionType=<action-type>&version=<version>&platform=ios";
inline constexpr std::string_view kKLVSDKRTASyncURL =
    "/v2/sync/<app-id>/rta?userId=<user-id>&actionType=rta&version=<version>&platform=ios";
inline constexpr std::string_view kKLVSDKSurveySyncURL =
    "/v2/sync/<app-id>/surveys?userId=<user-id>&actionType=survey&version=<version>&platform=ios";
inline constexpr std::string_view kKLVClientEventValidateURL =
    "/v2/sync/<app-id>/client-events/validate?userId=<user-id>&version=<version>&platform=ios";
inline constexpr std::string_view kKLVClientEventsURL =
    "/v2/sync/<app-id>/client-events?userId=<user-id>&version=<version>&platform=ios";

/// Returns `text` with every `placeholder` replaced by `value`. Escapes nothing.
std::string byReplacing(std::string_view text, std::string_view placeholder, std::string_view value);

}  // namespace kelvo
