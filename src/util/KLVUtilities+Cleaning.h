#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

/// Checks of single values, and the removal of nulls and empty values from attributes.
namespace KLVUtilities {

inline bool isValidObject(const Value& value) {
  return !value.isNull();
}
inline bool isValidString(const std::optional<std::string>& text) {
  return text.has_value() && !text->empty();
}
inline bool isInvalidString(const std::optional<std::string>& text) {
  return !isValidString(text);
}
/// Kept: returns its argument in every case, valid or not.
std::optional<std::string> validStringForString(std::optional<std::string> text);
/// True for the empty text, too.
bool isNumericString(std::string_view text);
/// A dictionary with at least one key.
bool isValidDictionary(const Value& value);
inline bool isInvalidDictionary(const Value& value) {
  return !isValidDictionary(value);
}
/// The second wins on equal keys.
Dictionary addTwoDictionaries(const Dictionary& first, const Dictionary& second);
Dictionary dictionaryByRemovingNulls(const Dictionary& dictionary);
/// nullopt for nothing or an empty dictionary. Throws `KLVInvalidArgument` when an array, at whatever depth, is
/// empty or holds an empty array or dictionary: callers log the reason and drop the call. Shares the content of
/// a dictionary that has nothing to remove.
std::optional<Dictionary> dictionaryByRemovingNullsAndEmptyValues(const std::optional<Dictionary>& dictionary);
/// As above, element by element; empty texts stay.
std::optional<Array> validArrayForArray(const Array& array);
/// The bucket of a count: "7", "11-20", "101-200", "1000+".
std::string rangeForCount(std::int64_t count);

}  // namespace KLVUtilities
}  // namespace kelvo
