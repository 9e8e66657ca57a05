#pragma once

#include <functional>
#include <string_view>

namespace kelvo {

/// The level of a log line, and the lowest level that is written. `off` is a threshold only, never a line's level.
///
/// The environment variable KELVO_LOG (off, error, warn, info or debug) overrides every other choice of the level.
enum class LogLevel { debug, info, warn, error, off };

/// Takes one log line, without the line feed. Control characters in it are escaped, so that it is one line.
using LogSink = std::function<void(LogLevel level, std::string_view line)>;

}  // namespace kelvo
