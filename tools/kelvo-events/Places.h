#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo-service/JSONScanner.h"

namespace kelvo::registry {

/// A line and a column in a text, both from 1. Columns count bytes.
struct Position {
  std::size_t line = 1;
  std::size_t column = 1;
};

/// Returns where the byte at `offset` is; behind the end, the end.
[[nodiscard]] Position positionOf(std::string_view text, std::size_t offset);

/// The places of all members and elements of a JSON text, by their paths: "events[0].name".
class Places {
 public:
  /// `text` must be valid JSON, and must outlive the object.
  explicit Places(std::string_view text);

  /// Returns the position of a member's key, or of an element. If the path is unknown: of the nearest place around it.
  [[nodiscard]] Position of(std::string path) const;
  /// Returns the paths of members whose object has an earlier member of the same name.
  [[nodiscard]] const std::vector<std::string>& repeated() const { return repeated_; }

 private:
  void walk(service::JSONScanner& scanner, const std::string& path);

  std::string_view text_;
  std::map<std::string, std::size_t> offsets_;
  std::vector<std::string> repeated_;
};

}  // namespace kelvo::registry
