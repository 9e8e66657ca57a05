#pragma once

#include <optional>
#include <string>
#include <utility>

#include "kelvo/Value.h"

namespace kelvo {

/// The attributes of a host call.
struct KLVHostAttributes {
  KLVHostAttributes() = default;
  KLVHostAttributes(Dictionary dictionary) : values(std::move(dictionary)) {}
  KLVHostAttributes(std::optional<Dictionary> dictionary, bool clean = false)
      : values(std::move(dictionary)), isClean(clean) {}

  std::optional<Dictionary> values;
  bool isClean = false;  ///< known to need no `KLVUtilities::dictionaryByRemovingNullsAndEmptyValues`
};

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

/// The same. The walk also finds out whether there is something to clean, so that most calls need no second one.
[[nodiscard]] KLVHostAttributes sanitisedAttributes(std::optional<Dictionary> dictionary);

/// Returns `text` as one line that cannot control a terminal. Control characters (C0, DEL, C1), the separators U+2028
/// and U+2029, and bytes that are not UTF-8 become escapes: "\n", "\x1b", "\u2028". Backslashes stay as they are.
[[nodiscard]] std::string onOneLine(std::string text);

}  // namespace kelvo
