#pragma once

#include <string>
#include <string_view>

namespace kelvo {

/// Returns `name` with its ASCII letters in lower case, in any locale. SQLite compares names the same way.
[[nodiscard]] inline std::string lowerCased(std::string_view name) {
  std::string text(name);
  for (char& character : text) {
    if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
  }
  return text;
}

/// Returns `name` with every single quote doubled, for use between single quotes in SQL.
[[nodiscard]] inline std::string FMDBEscapeSavePointName(std::string_view name) {
  std::string escaped;
  for (const char character : name) escaped.append(character == '\'' ? 2 : 1, character);
  return escaped;
}

}  // namespace kelvo
