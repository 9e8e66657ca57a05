#pragma once

#include <fmt/core.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kelvo/Log.h"
#include "kelvo/Value.h"

namespace kelvo {

/// The library's log. Writes one line per message to standard error, or to the host's sink.
///
/// A message below the level costs one comparison. Any other message is queued for the log thread, which formats and
/// writes the messages in order; the caller never waits, and wakes that thread only through the pool. While somebody
/// reads, as many messages may wait as calls (`Options::maxWaitingCalls`). If nobody has read standard error for a
/// second, or if the library may start no thread (`threadsAreHeld`), at most 4,096 messages wait. The logger drops the
/// later ones, and writes one line with their number. Log through the macros below: they do not evaluate the arguments
/// of a filtered message. Thread-safe.
class KLVLogger {
 public:
  using Level = LogLevel;
  using Sink = LogSink;

  /// Sets the process-wide level: messages below `lowest` are not written. INFO messages are always written. The
  /// process starts with `debug`. Returns false, without an effect, if KELVO_LOG or the host has chosen the level.
  static bool setLogLevel(Level lowest) noexcept;
  /// Takes the host's choice: messages below `lowest` are not written, INFO included. KELVO_LOG overrides it.
  static void chooseLevel(Level lowest) noexcept;
  [[nodiscard]] static bool writes(Level level) noexcept;

  /// Returns `value` as an argument of a message, or the text "(hidden)" if the lines must not carry the host's data:
  /// KELVO_LOG or the host has chosen a level other than `debug`. nil stays nil. For attributes, user ids, tokens,
  /// error texts.
  template <class T>
  [[nodiscard]] static Value hostData(const T& value) {
    return carriesHostData() ? Value(value) : Value("(hidden)");
  }
  template <class T>
  [[nodiscard]] static Value hostData(const std::optional<T>& value) {
    return value ? hostData(*value) : Value();
  }
  [[nodiscard]] static bool carriesHostData() noexcept;

  /// Installs a sink in place of standard error; an empty function restores standard error. The log thread calls the
  /// sink once per line, without the line feed. Exceptions from the sink are ignored.
  static void setSink(Sink sink);

  /// Blocks until all messages accepted so far are written, but for `limit` at most. Returns false if some are not.
  /// Returns false at once on the log thread. While the library may have no thread, the calling thread writes them: it
  /// drops what the reader of standard error does not take at once.
  static bool drain(std::chrono::milliseconds limit);
  /// Starts the log thread if messages wait for one. Called after `allowThreads`.
  static void threadsAreAllowed();

  template <class>
  using Text = const std::string&;

  /// `format` takes the arguments' descriptions. `function` is a `__PRETTY_FUNCTION__`; it must live forever. Not
  /// inline, because a line's place in the library needs less code then.
  template <class... Args>
  [[gnu::noinline]] static void log(Level level, const char* function, int line,
                                    fmt::format_string<Text<Args>...> format, Args&&... arguments) {
    std::array<Value, sizeof...(Args)> values{Value(std::forward<Args>(arguments))...};
    write(level, function, line, format, values.data(), values.size());
  }

 private:
  /// Moves the `count` values at `arguments` into the message.
  static void write(Level level, const char* function, int line, fmt::string_view format, Value* arguments,
                    std::size_t count);
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
