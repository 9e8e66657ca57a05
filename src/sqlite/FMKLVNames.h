#pragma once

#include <string>
#include <string_view>

namespace kelvo {

/// As SQLite compares names: ASCII letters only, whatever the locale is.
[[nodiscard]] inline std::string lowerCased(std::string_view name) {
  std::string text(name);
  for (char& character : text) {
    if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
  }
  return text;
}

/// Doubles every single quote, so that the name can stand between two of them.
[[nodiscard]] inline std::string FMDBEscapeSavePointName(std::string_view name) {
  std::string escaped;
  for (const char character : name) escaped.append(character == '\'' ? 2 : 1, character);
  return escaped;
}

}  // namespace kelvo
