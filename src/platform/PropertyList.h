#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

/// Property lists, XML or binary. nullopt, with the reason in `error`, for anything else.
std::optional<Value> parsePropertyList(std::string_view text, std::string* error = nullptr);

/// XML text. Null values are left out, since a property list cannot hold them.
std::string serialisePropertyList(const Dictionary& content);

}  // namespace kelvo
