#include "util/KLVUtilities+Dates.h"

#include <fmt/format.h>

#include <ctime>

namespace kelvo {
namespace {

struct Moment {
  std::int64_t seconds = 0;  ///< since 1970
  int milliseconds = 0;      ///< 0 to 999
};

std::string textOf(Moment moment) {
  const std::time_t seconds = moment.seconds;
  std::tm local{};
  if (localtime_r(&seconds, &local) == nullptr) return "";  // a year that no calendar holds
  const long offset = local.tm_gmtoff / 60;
  const long distance = offset < 0 ? -offset : offset;
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}{}{:02}{:02}", 1900L + local.tm_year, local.tm_mon + 1,
                     local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, moment.milliseconds,
                     offset < 0 ? '-' : '+', distance / 60, distance % 60);
}

/// The number in the digits [start, start + size) of `text`, or -1.
int digits(std::string_view text, std::size_t start, std::size_t size) {
  int number = 0;
  for (const char digit : text.substr(start, size)) {
    if (digit < '0' || digit > '9') return -1;
    number = number * 10 + (digit - '0');
  }
  return number;
}

std::optional<Moment> momentOf(std::string_view text) {
  constexpr std::string_view kForm = "0000-00-00T00:00:00.000+0000";
  if (text.size() != kForm.size()) return std::nullopt;
  const char sign = text[23];
  if (sign != '+' && sign != '-') return std::nullopt;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (i != 23 && (kForm[i] == '0' ? text[i] < '0' || text[i] > '9' : text[i] != kForm[i])) return std::nullopt;
  }
  std::tm utc{};
  utc.tm_year = digits(text, 0, 4) - 1900;
  utc.tm_mon = digits(text, 5, 2) - 1;
  utc.tm_mday = digits(text, 8, 2);
  utc.tm_hour = digits(text, 11, 2);
  utc.tm_min = digits(text, 14, 2);
  utc.tm_sec = digits(text, 17, 2);
  const int offsetHours = digits(text, 24, 2);
  const int offsetMinutes = digits(text, 26, 2);
  if (utc.tm_hour > 23 || utc.tm_min > 59 || utc.tm_sec > 59 || offsetHours > 23 || offsetMinutes > 59) {
    return std::nullopt;
  }
  const std::tm given = utc;
  const std::int64_t seconds = timegm(&utc);
  if (utc.tm_mon != given.tm_mon || utc.tm_mday != given.tm_mday) return std::nullopt;  // there is no 30 February
  const std::int64_t offset = offsetHours * 3600 + offsetMinutes * 60;
  return Moment{sign == '-' ? seconds + offset : seconds - offset, digits(text, 20, 3)};
}

}  // namespace

/// Reads the time zone, so that no later conversion has to.
void KLVUtilities::initializeDateFormatter() {
  ::tzset();
}

std::optional<Date> KLVUtilities::dateFromKLVDateString(const std::optional<std::string>& text) {
  const auto moment = text ? momentOf(*text) : std::nullopt;
  if (!moment) return std::nullopt;
  using std::chrono::floor, std::chrono::seconds;
  const bool holds = moment->seconds > floor<seconds>(Date::min()).time_since_epoch().count() &&
                     moment->seconds < floor<seconds>(Date::max()).time_since_epoch().count();
  if (!holds) return std::nullopt;
  return Date(seconds(moment->seconds) + std::chrono::milliseconds(moment->milliseconds));
}

std::string KLVUtilities::dateKLVStringFromNSDate(Date date) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(date);
  const auto rest = std::chrono::floor<std::chrono::milliseconds>(date - seconds);
  return textOf({seconds.time_since_epoch().count(), static_cast<int>(rest.count())});
}

double KLVUtilities::timeIntervalFromKLVDateString(const std::optional<std::string>& text) {
  const auto moment = text ? momentOf(*text) : std::nullopt;
  return moment ? static_cast<double>(moment->seconds) + moment->milliseconds / 1000.0 : 0;
}

std::string KLVUtilities::dateKLVStringFromTimeInterval(std::int64_t seconds) {
  return textOf({seconds, 0});
}

}  // namespace kelvo
