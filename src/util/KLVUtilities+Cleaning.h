#pragma once

#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// Checks whether values are empty, merges dictionaries, and removes nulls and empty values from attributes.
///
/// A dictionary or array with nothing to remove is returned with its content shared. Thread-safe.
namespace KLVUtilities {

/// Returns false for the null value.
inline bool isValidObject(const Value& value) {
  return !value.isNull();
}
/// Returns false for nullopt and for the empty text.
inline bool isValidString(const std::optional<std::string>& text) {
  return text.has_value() && !text->empty();
}
inline bool isInvalidString(const std::optional<std::string>& text) {
  return !isValidString(text);
}
/// Kept: returns its argument, whether it is valid or not.
std::optional<std::string> validStringForString(std::optional<std::string> text);
/// Returns true for a dictionary with at least one key.
bool isValidDictionary(const Value& value);
inline bool isInvalidDictionary(const Value& value) {
  return !isValidDictionary(value);
}

/// Returns the entries of both; where keys are equal, the value of `second` wins.
Dictionary addTwoDictionaries(const Dictionary& first, const Dictionary& second);

/// Removes the null values at the top level.
Dictionary dictionaryByRemovingNulls(const Dictionary& dictionary);
/// Removes, at every level, nulls, bytes, dates, and empty texts and dictionaries. Returns nullopt for nullopt and for
/// an empty dictionary, but an empty dictionary if nothing remains.
///
/// The rule `leavesOutEmptyContainers` also removes arrays that are or become empty, and such dictionaries in arrays,
/// with one WARN line for all of them. Otherwise throws `KLVInvalidArgument` if an array, at any depth, is empty or
/// holds an empty array or dictionary: callers log the reason and drop the call.
std::optional<Dictionary> dictionaryByRemovingNullsAndEmptyValues(const std::optional<Dictionary>& dictionary);
/// As above for each element, but keeps empty texts. Returns nullopt for an empty array.
std::optional<Array> validArrayForArray(const Array& array);

}  // namespace KLVUtilities
}  // namespace kelvo
