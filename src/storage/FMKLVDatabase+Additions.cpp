#include <algorithm>
#include <cstdint>
#include <limits>

#include "storage/FMKLVDatabase.h"

namespace kelvo {

int FMKLVDatabase::intForQuery(const std::string& sql, const Array& arguments) {
  const auto rows = executeQuery(sql, arguments);
  if (!rows || !rows->next()) return 0;
  using Limits = std::numeric_limits<int>;
  const std::int64_t number = rows->objectForColumnIndex(0).asInt64();
  return static_cast<int>(std::clamp<std::int64_t>(number, Limits::min(), Limits::max()));
}

}  // namespace kelvo
