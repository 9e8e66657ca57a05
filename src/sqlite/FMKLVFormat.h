#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelvo {

/// The SQL text of a printf-like format, with a parameter in place of every item.
///
/// An item is `%@` or a conversion of printf, with any flags, width, precision and length. It only marks the place of
/// a value. The value's own type decides the SQLite type. `%%` is a per cent sign.
struct FMKLVFormat {
  std::string sql;
  std::size_t items = 0;

  /// Returns nullopt if a per cent sign starts neither an item nor `%%`.
  [[nodiscard]] static std::optional<FMKLVFormat> parse(std::string_view format);
};

}  // namespace kelvo
