#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kelvo/Value.h"

namespace kelvo {

/// A text argument (UTF-8), or nil. Converts from literals, C strings (a null pointer is nil), `std::string`,
/// `std::string_view`, `std::optional<std::string>` and `std::nullopt`.
class OptionalText : public std::optional<std::string> {
 public:
  OptionalText() noexcept = default;
  OptionalText(std::nullopt_t) noexcept {}
  OptionalText(std::nullptr_t) noexcept {}
  OptionalText(const char* text) {
    if (text != nullptr) emplace(text);
  }
  OptionalText(std::string text) noexcept : std::optional<std::string>(std::move(text)) {}
  OptionalText(std::string_view text) : std::optional<std::string>(std::in_place, text) {}
  OptionalText(std::optional<std::string> text) noexcept : std::optional<std::string>(std::move(text)) {}
};

/// A dictionary argument, or nil. Converts from `{{"key", value}, ...}`, `Dictionary`, `std::optional<Dictionary>` and
/// `std::nullopt`; `{}` is nil.
class OptionalDictionary : public std::optional<Dictionary> {
 public:
  OptionalDictionary() noexcept = default;
  OptionalDictionary(std::nullopt_t) noexcept {}
  OptionalDictionary(std::nullptr_t) noexcept {}
  OptionalDictionary(std::initializer_list<Dictionary::Entry> entries) : std::optional<Dictionary>(entries) {}
  OptionalDictionary(Dictionary dictionary) noexcept : std::optional<Dictionary>(std::move(dictionary)) {}
  OptionalDictionary(std::optional<Dictionary> dictionary) noexcept
      : std::optional<Dictionary>(std::move(dictionary)) {}
};

}  // namespace kelvo
