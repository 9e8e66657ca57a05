#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelvo {

/// SQL text in which every item of a printf-like format has become a parameter.
///
/// Items are `%@` and what printf knows: flags, width, precision and length may stand in it. An item says where a
/// value goes, the value itself says as what it is bound. `%%` is a per cent sign.
struct FMKLVFormat {
  std::string sql;
  std::size_t items = 0;

  /// nullopt when something else follows a per cent sign.
  [[nodiscard]] static std::optional<FMKLVFormat> parse(std::string_view format);
};

}  // namespace kelvo
