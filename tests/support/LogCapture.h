#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kelvo::test {

/// Collects the library's log lines while it lives, at debug level.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// All lines written so far, in order.
  [[nodiscard]] std::vector<std::string> lines() const;
  /// Lines that contain `text`: "<KLV WARN> event is nil" finds level and message together.
  [[nodiscard]] std::size_t count(const std::string& text) const;
  /// Waits until a line contains `text`.
  [[nodiscard]] bool waitFor(const std::string& text) const;
};

}  // namespace kelvo::test
