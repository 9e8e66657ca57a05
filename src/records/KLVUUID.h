#pragma once

#include <string>

namespace kelvo {

inline constexpr const char* kKLVZeroUUID = "00000000-0000-0000-0000-000000000000";

/// Returns a new random UUID in upper case.
std::string randomUUIDString();

}  // namespace kelvo
