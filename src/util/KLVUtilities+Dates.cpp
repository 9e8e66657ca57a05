#include "util/KLVUtilities+Dates.h"

#include <fmt/format.h>

#include <ctime>

namespace kelvo {
namespace {

constexpr long kFirstTmYear = 1900;  // struct tm counts years from here
constexpr int kMinutesPerHour = 60;
constexpr int kSecondsPerMinute = 60;

struct Moment {
  std::int64_t seconds = 0;  ///< since 1970
  int milliseconds = 0;      ///< 0 to 999
};

std::string textOf(Moment moment) {
  const std::time_t seconds = moment.seconds;
  std::tm local{};
  if (localtime_r(&seconds, &local) == nullptr) return "";  // the year does not fit into an int
  const long offset = local.tm_gmtoff / kSecondsPerMinute;  // minutes
  const long distance = offset < 0 ? -offset : offset;
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}{}{:02}{:02}", kFirstTmYear + local.tm_year,
                     local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, moment.milliseconds,
                     offset < 0 ? '-' : '+', distance / kMinutesPerHour, distance % kMinutesPerHour);
}

/// Returns the number that `size` digits of `text`, from `start`, form. The caller has checked that they are digits.
int number(std::string_view text, std::size_t start, std::size_t size) {
  int result = 0;
  for (const char digit : text.substr(start, size)) result = result * 10 + (digit - '0');
  return result;
}

std::optional<Moment> momentOf(std::string_view text) {
  constexpr std::string_view kForm = "0000-00-00T00:00:00.000+0000";
  constexpr std::size_t kSignAt = kForm.find('+');
  if (text.size() != kForm.size()) return std::nullopt;
  const char sign = text[kSignAt];
  if (sign != '+' && sign != '-') return std::nullopt;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool fits = kForm[i] == '0' ? text[i] >= '0' && text[i] <= '9' : text[i] == kForm[i];
    if (!fits && i != kSignAt) return std::nullopt;
  }
  std::tm utc{};
  utc.tm_year = number(text, 0, 4) - static_cast<int>(kFirstTmYear);
  utc.tm_mon = number(text, 5, 2) - 1;
  utc.tm_mday = number(text, 8, 2);
  utc.tm_hour = number(text, 11, 2);
  utc.tm_min = number(text, 14, 2);
  utc.tm_sec = number(text, 17, 2);
  const int offsetHours = number(text, 24, 2);
  const int offsetMinutes = number(text, 26, 2);
  if (utc.tm_hour > 23 || utc.tm_min > 59 || utc.tm_sec > 59 || offsetHours > 23 || offsetMinutes > 59) {
    return std::nullopt;
  }
  const std::tm given = utc;
  const std::int64_t seconds = timegm(&utc);
  if (utc.tm_mon != given.tm_mon || utc.tm_mday != given.tm_mday) return std::nullopt;  // such as 30 February
  const std::int64_t offset = (offsetHours * kMinutesPerHour + offsetMinutes) * kSecondsPerMinute;
  return Moment{sign == '-' ? seconds + offset : seconds - offset, number(text, 20, 3)};
}

}  // namespace

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
