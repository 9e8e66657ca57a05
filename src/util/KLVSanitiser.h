#pragma once

#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// Returns the host's argument, repaired so that JSON can carry it:
///
/// - It drops NaN and infinities.
/// - It replaces invalid UTF-8 in texts and keys with U+FFFD, one for each maximal invalid part. If two keys become
///   equal, the later value wins.
/// - It drops arrays and dictionaries below level 64. The argument itself is level 1.
///
/// Each kind of repair writes one WARN line per call. An argument that needs no repair is returned with its content
/// shared, without any allocation. Thread: the caller's, before the argument is stored.
[[nodiscard]] std::optional<Dictionary> sanitised(std::optional<Dictionary> dictionary);
[[nodiscard]] std::optional<std::string> sanitised(std::optional<std::string> text);

/// Returns `text` as one line that cannot control a terminal. Control characters (C0, DEL, C1), the separators U+2028
/// and U+2029, and bytes that are not UTF-8 become escapes: "\n", "\x1b", "\u2028". Backslashes stay as they are.
[[nodiscard]] std::string onOneLine(std::string text);

}  // namespace kelvo
