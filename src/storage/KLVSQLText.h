#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

/// A statement's text, or a part of it. Values are parts between single quotes.
struct KLVSQLText {
  std::string text;
  bool refused = false;  ///< a value would end its quotes, or a name is none: the statement must not run
};

/// Returns `value` as it is written between single quotes in a statement. Doubles its quotes if the delivery rules say
/// so; otherwise refuses a value with a quote. Always refuses a null character, which would end the statement.
[[nodiscard]] KLVSQLText quoted(std::string_view value);
/// Returns the name of a column or a table as it is written without quotes. Refuses any text but letters, digits and
/// "_", not beginning with a digit.
[[nodiscard]] KLVSQLText plainName(std::string_view name);
/// Returns whether `quoted` refuses `value`.
[[nodiscard]] bool isRefusedValue(std::string_view value);

/// Formats each key, which must be a plain name, and joins the texts: " a, b" or " :a, :b".
[[nodiscard]] KLVSQLText joinedKeys(const Dictionary& parameters, fmt::string_view format);

/// The insert statement of rows with the same columns. Remembers the latest text.
class KLVInsertText {
 public:
  /// Returns the statement with one named parameter for each column. It is valid until the next call.
  [[nodiscard]] const KLVSQLText& text(std::string_view table, const Dictionary& row);

 private:
  std::string table_;
  Dictionary row_;
  KLVSQLText text_;
};

/// Returns `name`, such as a table's, as an identifier between double quotes. It may contain any character.
[[nodiscard]] std::string quotedName(std::string_view name);

namespace detail {
inline const std::string& textOf(const KLVSQLText& part) {
  return part.text;
}
const auto& textOf(const auto& part) {
  return part;
}
constexpr bool isRefused(const KLVSQLText& part) {
  return part.refused;
}
constexpr bool isRefused(const auto&) {
  return false;
}
}  // namespace detail

/// Formats `parts` into `format`. The text is refused if one of its parts is.
[[nodiscard]] KLVSQLText sqlText(fmt::string_view format, const auto&... parts) {
  return {fmt::vformat(format, fmt::make_format_args(detail::textOf(parts)...)), (detail::isRefused(parts) || ...)};
}

/// Formats each entry with `format` ({0} is the key, a plain name; {1} is the value, to be quoted) and joins the texts:
/// "a='1' AND b='2'". `first` is put before the first text, `then` before each other.
[[nodiscard]] KLVSQLText joined(const Dictionary& parameters, std::string_view first, std::string_view then,
                                fmt::string_view format);

/// The failure of a statement that is refused.
inline constexpr const char* kRefusal = "a name or a value contains a character that would end it";

}  // namespace kelvo
