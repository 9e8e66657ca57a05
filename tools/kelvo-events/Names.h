#pragma once

#include <string>
#include <string_view>

namespace kelvo::registry {

/// Returns `name` as an identifier in lower camel case: "Add to basket" and "add_to_basket" become "addToBasket".
/// Leaves out what is neither an ASCII letter nor a digit. An identifier that would begin with a digit gets the prefix
/// "n". One that is a word of C, C++ or JavaScript, or a usual macro, gets the suffix "_". Empty if nothing is left.
[[nodiscard]] std::string lowerCamel(std::string_view name);
/// The same in upper camel case: "AddToBasket".
[[nodiscard]] std::string upperCamel(std::string_view name);

/// Returns `name` with lower-case ASCII letters.
[[nodiscard]] std::string lowerCased(std::string_view name);

/// Returns true for names of identifiers, joined by "::".
[[nodiscard]] bool isNamespace(std::string_view name);

}  // namespace kelvo::registry
