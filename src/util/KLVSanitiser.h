#pragma once

#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// Makes of a host's argument what JSON can carry. Both run on the caller's thread, before the argument is kept:
///
/// - NaN and infinities are dropped;
/// - bytes of texts and keys that are no UTF-8 become U+FFFD, one for each longest beginning of a character that
///   breaks off. Of two keys that become equal the later value stays;
/// - arrays and dictionaries below the 64th level are dropped, the argument itself being the first.
///
/// Each kind of repair is told in one WARN line a call. What needs no repair comes back with its content shared,
/// and nothing is allocated for it.
[[nodiscard]] std::optional<Dictionary> sanitised(std::optional<Dictionary> dictionary);
[[nodiscard]] std::optional<std::string> sanitised(std::optional<std::string> text);

}  // namespace kelvo
