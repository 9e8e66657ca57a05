#pragma once

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

#include "kelvo/Value.h"

namespace kelvo {

/// Adds up the host's time in the foreground from the reported transitions. Counts each stretch once.
///
/// The first stretch needs no report: it begins when the counting begins. A clock that is set back never makes a
/// stretch or an absence negative. Not thread-safe.
class KLVForegroundTime {
 public:
  using Seconds = std::chrono::duration<double>;

  explicit KLVForegroundTime(Date start) : began_(start) {}

  /// The host comes to the foreground. Returns how long it was in the background, nullopt if it was not there.
  /// Kept: in the foreground already, the stretch begins again at `when`.
  std::optional<Seconds> enter(Date when) {
    const auto left = std::exchange(left_, std::nullopt);
    began_ = when;
    if (!left) return std::nullopt;
    return between(*left, when);
  }
  /// The host goes to the background. Returns the length of the stretch that ends; zero if the host was there already.
  Seconds leave(Date when) {
    const auto began = std::exchange(began_, std::nullopt);
    if (!began) return Seconds::zero();
    left_ = when;
    const Seconds stretch = between(*began, when);
    total_ += stretch;
    return stretch;
  }
  /// Returns whether the host is in the background, by its latest report.
  [[nodiscard]] bool isInBackground() const noexcept { return left_.has_value(); }
  /// Returns the sum of all stretches that have ended.
  [[nodiscard]] Seconds total() const noexcept { return total_; }

 private:
  static Seconds between(Date start, Date end) { return std::max(Seconds(end - start), Seconds::zero()); }

  std::optional<Date> began_;  ///< set while the host is in the foreground
  std::optional<Date> left_;   ///< set while it is in the background
  Seconds total_{0};
};

}  // namespace kelvo
