#include "network/RetryAfter.h"

#include <algorithm>
#include <charconv>
#include <system_error>

#include "network/Curl.h"

namespace kelvo {
namespace {

constexpr std::chrono::seconds kNow{0};
constexpr std::chrono::seconds kLongest{3600};
constexpr const char* kDigits = "0123456789";
constexpr const char* kCapitals = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";

std::chrono::seconds secondsOf(const std::string& digits) {
  std::chrono::seconds::rep count = 0;
  const auto [end, code] = std::from_chars(digits.data(), digits.data() + digits.size(), count);
  return code == std::errc::result_out_of_range ? kLongest : std::chrono::seconds(count);
}

}  // namespace

std::optional<std::chrono::seconds> retryAfter(const std::string& field, Date now) {
  if (field.empty()) return std::nullopt;
  if (field.find_first_not_of(kDigits) == field.npos) return std::clamp(secondsOf(field), kNow, kLongest);
  // curl also reads dates without a weekday, and so texts that are no HTTP date, such as "2.5".
  if (field.find_first_of(kCapitals) != 0) return std::nullopt;
  const auto date = curl().getdate(field.c_str(), nullptr);
  if (date == -1) return std::nullopt;
  // In seconds, because a `Date` cannot hold the year 9999.
  const auto wait = std::chrono::seconds(date) - std::chrono::floor<std::chrono::seconds>(now.time_since_epoch());
  return std::clamp(wait, kNow, kLongest);
}

}  // namespace kelvo
