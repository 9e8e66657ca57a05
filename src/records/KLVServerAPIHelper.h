#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelvo {

class KLVInfo;

/// Translates storage names of attributes to the names that the service knows.
class KLVServerAPIHelper {
 public:
  /// The upload name of `key` for a record of the class called `className`: `key` itself when that class has no map,
  /// nullopt (leave the attribute out) when its map does not list the key. Only the exact class name counts.
  static std::optional<std::string_view> convertInClass(std::string_view key, std::string_view className);
  static std::optional<std::string_view> convertInInstance(std::string_view key, const KLVInfo& record);
};

}  // namespace kelvo
