#pragma once

#include <string_view>

#include "kelvo/Event.h"

namespace kelvo {

/// Returns the type whose name is `name` (case-sensitive). Any other text logs a warning and returns `unknown`.
KLVEventType typeFromString(std::string_view name);

/// The types of the events that chunks carry. A stored event of any other type stays on this device.
inline constexpr KLVEventType kTypesInChunks[] = {KLVEventType::system,          KLVEventType::navigation,
                                                  KLVEventType::userInteraction, KLVEventType::app,
                                                  KLVEventType::customError,     KLVEventType::applicationCrash};

// Names of events that the library itself produces.
inline constexpr std::string_view kKLVAppOpened = "klv_app_opened";
inline constexpr std::string_view kKLVForeground = "FOREGROUND";
inline constexpr std::string_view kKLVBackground = "BACKGROUND";

}  // namespace kelvo
