#include "kelvo-events/Dates.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdio>

namespace kelvo::registry {

using std::chrono::sys_days;
using std::chrono::year_month_day;

std::optional<int> dayOf(const std::string& date) {
  int year = 0;
  unsigned month = 0;
  unsigned day = 0;
  if (std::sscanf(date.c_str(), "%4d-%2u-%2u", &year, &month, &day) != 3) return std::nullopt;
  if (fmt::format("{:04}-{:02}-{:02}", year, month, day) != date) return std::nullopt;
  const year_month_day calendar{std::chrono::year(year), std::chrono::month(month), std::chrono::day(day)};
  if (!calendar.ok()) return std::nullopt;
  return sys_days(calendar).time_since_epoch().count();
}

std::string today() {
  const year_month_day now(std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now()));
  return fmt::format("{:04}-{:02}-{:02}", int(now.year()), unsigned(now.month()), unsigned(now.day()));
}

}  // namespace kelvo::registry
