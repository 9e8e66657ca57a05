#pragma once

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace kelvo {

/// Writes `text` to standard error and aborts, in every build. For programming errors that would otherwise cause a
/// deadlock or damage data.
[[noreturn]] inline void assertionFailed(const char* text) {
  const std::string line = std::string("Assertion failed: (") + text + ")\n";
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
  std::abort();
}

}  // namespace kelvo
