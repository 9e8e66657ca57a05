#pragma once

#include <optional>
#include <span>
#include <string_view>

namespace kelvo {

/// The key map of one class: its storage names and their upload names. A class without a map keeps its names.
/// Thread-safe.
class KLVKeyMap {
 public:
  /// An attribute's storage name and its upload name.
  struct Name {
    constexpr Name(std::string_view both) : stored(both), uploaded(both) {}
    constexpr Name(std::string_view itsStored, std::string_view itsUploaded)
        : stored(itsStored), uploaded(itsUploaded) {}

    std::string_view stored;
    std::string_view uploaded;
  };

  KLVKeyMap() = default;  ///< of a class without a map
  /// Returns the key map of `className`. A subclass does not inherit the map of its base.
  static KLVKeyMap ofClass(std::string_view className);
  /// Returns the upload name of `key`. Returns `key` if the class has no map, and nullopt (leave the attribute out) if
  /// its map lacks the key.
  [[nodiscard]] std::optional<std::string_view> convert(std::string_view key) const;

 private:
  explicit KLVKeyMap(std::span<const Name> names) : names_(names) {}

  std::span<const Name> names_;
};

/// Translates the storage names of attributes to the upload names that the service knows. Thread-safe.
class KLVServerAPIHelper {
 public:
  /// Returns `KLVKeyMap::ofClass(className).convert(key)`.
  static std::optional<std::string_view> convertInClass(std::string_view key, std::string_view className);
};

}  // namespace kelvo
