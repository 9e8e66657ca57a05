#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

class Descriptor;

/// Returns the value of an XML or binary property list. Returns nullopt, with the reason in `error`, for any other
/// text.
std::optional<Value> parsePropertyList(std::string_view text, std::string* error = nullptr);

/// Returns the dictionary in the file at `path`. Returns nullopt, with the reason in `error`, if the file cannot be
/// read or its root is not a dictionary.
std::optional<Dictionary> readPropertyList(const std::string& path, std::string* error = nullptr);
std::optional<Dictionary> readPropertyList(const Descriptor& file, std::string* error = nullptr);

/// Returns `content` as an XML property list. Leaves out values that a property list cannot represent: null, NaN,
/// infinities, dates more than 68 years from 2001, and nesting deeper than 128 levels.
std::string serialisePropertyList(const Dictionary& content);

}  // namespace kelvo
