#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// Converts dates to text such as 2024-03-05T14:07:09.123+0530 and back. Thread-safe.
///
/// The writers use the device's time zone; the readers accept any offset. A text in any other form does not parse.
namespace KLVUtilities {

/// Reads the device's time zone from the environment, so that later conversions need not.
void initializeDateFormatter();
/// Returns nullopt if `text` is nullopt, does not parse, or is outside the range of `Date`.
std::optional<Date> dateFromKLVDateString(const std::optional<std::string>& text);
/// Truncates to milliseconds. Returns the empty text for a year that the C library cannot represent.
std::string dateKLVStringFromNSDate(Date date);
/// Returns seconds since 1970, with milliseconds; 0 if `text` is nullopt or does not parse.
double timeIntervalFromKLVDateString(const std::optional<std::string>& text);
/// `seconds` counts since 1970. Returns the empty text for a year that the C library cannot represent.
std::string dateKLVStringFromTimeInterval(std::int64_t seconds);

}  // namespace KLVUtilities
}  // namespace kelvo
