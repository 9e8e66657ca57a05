#pragma once

#include <string_view>

namespace kelvo {

// Keys of the user defaults. They are on disk, so they never change.
inline constexpr std::string_view kKLVDeviceIdKey = "klv_device_id";
/// The secret that proves that a deletion request comes from this device.
inline constexpr std::string_view kKLVEraseSecretKey = "klv_erase_secret";
/// True once a request may have named the device.
inline constexpr std::string_view kKLVIsNamedKey = "klv_is_named";
inline constexpr std::string_view kKLVSessionCountKey = "klv_session_count";
inline constexpr std::string_view kKLVRetentionDayKey = "klv_ret_day";
inline constexpr std::string_view kKLVRetentionDayCountKey = "klv_ret_day_count";
inline constexpr std::string_view kKLVClientEventsHashKey = "klv_client_events_hash";
/// A format: "{}" is the module, such as "rta".
inline constexpr std::string_view kKLVModuleHashKey = "klv_{}_hash";
/// A copy of the ledger's sums, as JSON.
inline constexpr std::string_view kKLVLedgerKey = "klv_ledger";

// Written by earlier versions only. They are read once and removed.
inline constexpr std::string_view kKLVLegacyEnableSDKKey = "klv_enable_sdk";
inline constexpr std::string_view kKLVLegacyFirstSessionKey = "klv_is_first_session";

}  // namespace kelvo
