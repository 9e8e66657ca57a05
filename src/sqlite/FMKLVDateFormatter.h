#pragma once

#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// Converts dates to text and back, in UTC and with English names, in any locale of the host.
///
/// The pattern is one of `strftime`. SQLite's own date functions read the result of `%Y-%m-%d %H:%M:%S`. Fractions of
/// a second are cut off.
class FMKLVDateFormatter {
 public:
  explicit FMKLVDateFormatter(std::string pattern);

  [[nodiscard]] std::string stringFromDate(Date date) const;
  /// Returns nullopt if the text does not match the pattern or the time is out of `Date`'s range.
  [[nodiscard]] std::optional<Date> dateFromString(const std::string& text) const;

 private:
  std::string pattern_;
};

/// Returns the seconds since 1970, exact to the microsecond. Dates are stored in this form without a formatter.
[[nodiscard]] double secondsSince1970(Date date);
/// Returns nullopt if `seconds` is out of `Date`'s range.
[[nodiscard]] std::optional<Date> dateFromSecondsSince1970(double seconds);

}  // namespace kelvo
