#pragma once

#include <string>
#include <string_view>

#include "kelvo-events/Registry.h"

// The texts that several forms share.

namespace kelvo::registry {

/// The first line of each generated file, behind the marks of its comment.
inline constexpr std::string_view kNote = "Written by kelvo-events from the registry of events. Do not edit.";

/// Returns `text` with a full stop, unless it ends with a mark.
[[nodiscard]] std::string sentence(const std::string& text);

/// Returns what an event is, in sentences: its meaning, owner, last day, and whether it is only counted.
[[nodiscard]] std::string describe(const Event& event);

/// Returns the rule of an attribute: "a number from 0 to 1000, in EUR" or "a text".
[[nodiscard]] std::string ruleOf(const Attribute& attribute);

/// Returns a number without a needless fraction.
[[nodiscard]] std::string shownNumber(double number);

/// Returns `text` as a literal of C, C++ and JavaScript, quotes included.
[[nodiscard]] std::string literal(std::string_view text);

/// Returns `text` with each `from` replaced.
[[nodiscard]] std::string replaced(std::string text, std::string_view from, std::string_view to);

}  // namespace kelvo::registry
