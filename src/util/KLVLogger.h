#pragma once

#include <fmt/core.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kelvo/Value.h"

namespace kelvo {

/// The library's system log: a line a message on standard error, or in the host's sink.
///
/// A message below the level costs one comparison. One above it is handed to a thread of its own, which formats
/// and writes in order; the caller never waits for it. At most 4,096 lines wait; later ones are dropped, and a line
/// says how many. Write through the macros below: they leave their arguments alone when the level filters the line.
class KLVLogger {
 public:
  enum class Level { debug, info, warn, error };
  using Sink = std::function<void(Level level, std::string_view line)>;

  /// The process-wide threshold, 0 at first: debug is written below 2, warn below 3, error below 4, info always.
  static void setLogLevel(int level) noexcept;
  [[nodiscard]] static bool writes(Level level) noexcept;

  /// Replaces standard error; an empty function brings it back. Called on the log thread, a line at a time without
  /// its line feed; what it throws is dropped.
  static void setSink(Sink sink);

  /// Waits until all lines accepted so far are written, but no longer than `limit`; false when they are not.
  static bool drain(std::chrono::milliseconds limit);

  template <class>
  using Text = const std::string&;

  /// `format` takes the arguments' descriptions. `function` is a `__PRETTY_FUNCTION__`.
  template <class... Args>
  static void log(Level level, const char* function, int line, fmt::format_string<Text<Args>...> format,
                  Args&&... arguments) {
    write(level, function, line, format, {Value(std::forward<Args>(arguments))...});
  }

 private:
  static void write(Level level, const char* function, int line, fmt::string_view format, std::vector<Value> arguments);
};

}  // namespace kelvo

#define KLV_LOG(level, ...)                                                       \
  do {                                                                            \
    if (::kelvo::KLVLogger::writes(level)) {                                      \
      ::kelvo::KLVLogger::log(level, __PRETTY_FUNCTION__, __LINE__, __VA_ARGS__); \
    }                                                                             \
  } while (false)
#define KLV_DEBUG(...) KLV_LOG(::kelvo::KLVLogger::Level::debug, __VA_ARGS__)
#define KLV_INFO(...) KLV_LOG(::kelvo::KLVLogger::Level::info, __VA_ARGS__)
#define KLV_WARN(...) KLV_LOG(::kelvo::KLVLogger::Level::warn, __VA_ARGS__)
#define KLV_ERROR(...) KLV_LOG(::kelvo::KLVLogger::Level::error, __VA_ARGS__)
