#pragma once

#include <string>
#include <string_view>

#include "kelvo/Value.h"
#include "platform/JSON.h"

namespace kelvo::collector {

// Dictionaries are stored as compact JSON text.

/// Returns the dictionary in `json`, empty if the text holds no dictionary.
[[nodiscard]] inline Dictionary dictionaryFromJSON(std::string_view json) {
  return parseJSON(json).value_or(Value()).asDictionary().value_or(Dictionary());
}

[[nodiscard]] inline std::string jsonFromDictionary(const Dictionary& dictionary) {
  return jsonText(dictionary).value_or("{}");
}

}  // namespace kelvo::collector
