#pragma once

#include <cstddef>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

/// Returns `value` as compact JSON. Returns nullopt, with the reason in `error`, if JSON cannot represent the value:
/// bytes, dates, NaN, infinities, or nesting deeper than 256 levels.
std::optional<std::string> jsonText(const Value& value, std::string* error = nullptr);

/// Appends `text` to `json` as `jsonText` writes it: in quotes, with escapes.
void appendQuoted(std::string& json, std::string_view text);

/// Returns compact JSON for people to read. It never fails: a member that JSON cannot represent becomes its quoted
/// description, and a container deeper than 256 levels becomes "...".
std::string describingJSONText(const Value& value);

/// Returns the value of a JSON text. Integers stay integers, and a comma before a closing bracket is accepted. Returns
/// nullopt, with the reason in `error`, if `text` is not JSON, nests deeper than 256 levels, or has more than
/// `mostValues` values, containers included.
std::optional<Value> parseJSON(std::string_view text, std::string* error = nullptr,
                               std::size_t mostValues = std::numeric_limits<std::size_t>::max());

}  // namespace kelvo
