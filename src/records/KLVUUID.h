#pragma once

#include <string>

namespace kelvo {

inline constexpr const char* kKLVZeroUUID = "00000000-0000-0000-0000-000000000000";

/// A fresh random UUID, upper-case.
std::string randomUUIDString();

}  // namespace kelvo
