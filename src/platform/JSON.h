#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

/// Compact JSON of an array, a dictionary, or a single text, number, bool or null. nullopt, with the reason in
/// `error`, for what JSON cannot hold: bytes, dates, NaN, infinities, nesting deeper
/// than 256 levels.
std::optional<std::string> jsonText(const Value& value, std::string* error = nullptr);

/// Compact JSON for people to read: members that JSON cannot hold stand in it as quoted descriptions, and what
/// nests deeper than 256 levels as "...".
std::string describingJSONText(const Value& value);

/// The value that `text` holds; integers stay integers, a comma before a closing bracket is accepted. nullopt,
/// with the reason in `error`, when it is not JSON or nests deeper than 256 levels.
std::optional<Value> parseJSON(std::string_view text, std::string* error = nullptr);

}  // namespace kelvo
