#pragma once

#include <optional>
#include <string_view>

namespace kelvo {

/// Translates the storage names of attributes to the upload names that the service knows. Thread-safe.
class KLVServerAPIHelper {
 public:
  /// Returns the upload name of `key` for a record of class `className`. Returns `key` if the class has no key map, and
  /// nullopt (leave the attribute out) if its map lacks the key. A subclass does not inherit the map of its base.
  static std::optional<std::string_view> convertInClass(std::string_view key, std::string_view className);
};

}  // namespace kelvo
