#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// Dates as text such as 2024-03-05T14:07:09.123+0530, in the device's time zone.
namespace KLVUtilities {

void initializeDateFormatter();
std::optional<Date> dateFromKLVDateString(const std::optional<std::string>& text);
std::string dateKLVStringFromNSDate(Date date);
/// Seconds since 1970; 0 for text that does not parse.
double timeIntervalFromKLVDateString(const std::optional<std::string>& text);
/// `seconds` since 1970.
std::string dateKLVStringFromTimeInterval(std::int64_t seconds);

}  // namespace KLVUtilities
}  // namespace kelvo
