#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kelvo::test {

/// Collects the library's log lines while it lives, at debug level. Only one object may exist at a time.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// Returns all lines written so far, in order.
  [[nodiscard]] std::vector<std::string> lines() const;
  /// Returns the number of lines that contain `text`, for example "<KLV WARN> event is nil".
  [[nodiscard]] std::size_t count(const std::string& text) const;
  /// Blocks until a line contains `text`. Returns false if none does within ten seconds.
  [[nodiscard]] bool waitFor(const std::string& text) const;
};

}  // namespace kelvo::test
