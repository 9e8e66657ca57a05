#pragma once

#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// Dates as text and back: a pattern of `strftime`, Greenwich time, English names, whatever the host's locale is.
/// `%Y-%m-%d %H:%M:%S` gives what SQLite's own date functions read. Parts of a second are cut off.
class FMKLVDateFormatter {
 public:
  explicit FMKLVDateFormatter(std::string pattern);

  [[nodiscard]] std::string stringFromDate(Date date) const;
  /// nullopt for a text that is not of the pattern, or a time that `Date` cannot hold.
  [[nodiscard]] std::optional<Date> dateFromString(const std::string& text) const;

 private:
  std::string pattern_;
};

/// How dates are stored without a formatter: seconds since 1970, exact to the microsecond; nullopt for what `Date`
/// cannot hold.
[[nodiscard]] double secondsSince1970(Date date);
[[nodiscard]] std::optional<Date> dateFromSecondsSince1970(double seconds);

}  // namespace kelvo
