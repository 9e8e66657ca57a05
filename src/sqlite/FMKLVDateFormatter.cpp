#include "sqlite/FMKLVDateFormatter.h"

#include <time.h>

#include <chrono>
#include <cmath>
#include <utility>

#include "platform/ClassicLocale.h"

namespace kelvo {
namespace {

constexpr std::size_t kUsualLength = 64;  // bytes; enough for a date in any common pattern
constexpr int kTmYear1970 = 70;           // `tm_year` counts from 1900

}  // namespace

FMKLVDateFormatter::FMKLVDateFormatter(std::string pattern) : pattern_(std::move(pattern)) {}

std::string FMKLVDateFormatter::stringFromDate(Date date) const {
  const time_t seconds = std::chrono::floor<std::chrono::seconds>(date).time_since_epoch().count();
  tm parts{};
  gmtime_r(&seconds, &parts);
  const std::string marked = pattern_ + ".";  // the result is never empty, so 0 means that `text` is too short
  std::string text(kUsualLength, '\0');
  for (;;) {
    const std::size_t length = strftime_l(text.data(), text.size(), marked.c_str(), &parts, classicLocale());
    if (length > 0) return text.substr(0, length - 1);
    text.resize(2 * text.size());
  }
}

std::optional<Date> FMKLVDateFormatter::dateFromString(const std::string& text) const {
  tm parts{};
  parts.tm_year = kTmYear1970;
  parts.tm_mday = 1;
  const char* rest = strptime_l(text.c_str(), pattern_.c_str(), &parts, classicLocale());
  if (rest != text.c_str() + text.size()) return std::nullopt;
  const auto eastOfGreenwich = parts.tm_gmtoff;  // timegm resets it
  return dateFromSecondsSince1970(static_cast<double>(timegm(&parts) - eastOfGreenwich));
}

double secondsSince1970(Date date) {
  return std::chrono::duration<double>(date.time_since_epoch()).count();
}

std::optional<Date> dateFromSecondsSince1970(double seconds) {
  const std::chrono::duration<double> largest = Date::duration::max();
  if (!(std::abs(seconds) < largest.count())) return std::nullopt;
  return Date(std::chrono::round<std::chrono::microseconds>(std::chrono::duration<double>(seconds)));
}

}  // namespace kelvo
