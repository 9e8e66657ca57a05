#pragma once

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace kelvo {

/// Ends the process over a mistake in its own code, in every build: going on would deadlock or damage data.
[[noreturn]] inline void assertionFailed(const char* text) {
  const std::string line = std::string("Assertion failed: (") + text + ")\n";
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
  std::abort();
}

}  // namespace kelvo
