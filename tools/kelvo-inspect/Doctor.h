#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kelvo::inspect {

/// One thing that was looked at.
struct Finding {
  enum class Grade { good, doubtful, bad };
  Grade grade = Grade::good;
  std::string subject;  ///< "bundle", "home" ...
  std::string what;     ///< what was found
  std::string advice;   ///< what to do about it; empty when it is good
};

/// Looks at what usually goes wrong for `program`, an executable that links the library (this one without): its bundle,
/// its home (`home`, or the one that it would use), authorities, proxy, the service's answer and the clock. Asks the
/// service once, for at most ten seconds; makes nothing but a file that it removes again.
[[nodiscard]] std::vector<Finding> examine(const std::optional<std::string>& program,
                                           const std::optional<std::string>& home);

}  // namespace kelvo::inspect
