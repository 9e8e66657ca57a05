#pragma once

#include <string_view>

#include "kelvo/Event.h"

namespace kelvo {

/// Case-sensitive; any other text logs a warning and gives `unknown`.
KLVEventType typeFromString(std::string_view name);

inline constexpr std::string_view kKLVAppOpened = "klv_app_opened";
inline constexpr std::string_view kKLVForeground = "FOREGROUND";
inline constexpr std::string_view kKLVBackground = "BACKGROUND";

}  // namespace kelvo
