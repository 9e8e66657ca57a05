#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kelvo::inspect {

/// The result of one check.
struct Finding {
  enum class Grade { good, doubtful, bad };
  Grade grade = Grade::good;
  std::string subject;  ///< "bundle", "home" ...
  std::string result;
  std::string advice;  ///< how to fix it, empty for a good result
};

/// Checks the usual causes of trouble: bundle, home, trusted authorities, proxy, the service's answer and the clock.
///
/// `program` is the executable that links the library; without it, the environment decides. `home` replaces the home
/// that the program would use. Blocks for ten seconds at most, while it waits for one answer of the service. Creates
/// nothing but a temporary file in the home. Thread: main, because it sets KELVO_BUNDLE.
[[nodiscard]] std::vector<Finding> examine(const std::optional<std::string>& program,
                                           const std::optional<std::string>& home);

}  // namespace kelvo::inspect
