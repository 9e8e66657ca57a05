#include "sqlite/FMKLVFormat.h"

#include <algorithm>

namespace kelvo {

std::optional<FMKLVFormat> FMKLVFormat::parse(std::string_view format) {
  constexpr std::string_view kModifiers = "-+ #0123456789.hlqLjzt";
  constexpr std::string_view kConversions = "@cCsSdDioOuUxXeEfFgGaA";
  FMKLVFormat result;
  result.sql.reserve(format.size());
  while (!format.empty()) {
    const std::size_t text = std::min(format.find('%'), format.size());
    result.sql += format.substr(0, text);
    format.remove_prefix(text);
    if (format.empty()) break;
    format.remove_prefix(1);
    if (format.substr(0, 1) == "%") {
      result.sql += '%';
    } else {
      format.remove_prefix(std::min(format.find_first_not_of(kModifiers), format.size()));
      if (format.empty() || kConversions.find(format.front()) == std::string_view::npos) return std::nullopt;
      result.sql += '?';
      ++result.items;
    }
    format.remove_prefix(1);
  }
  return result;
}

}  // namespace kelvo
