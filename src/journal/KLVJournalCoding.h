#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

/// A dictionary's binary form: the number of entries, then each key and value. Numbers take 8 bytes, counts and lengths
/// one byte for each 7 bits. Every type of `Value` has a form.

/// Returns the size of the form in bytes. Returns nullopt if containers are nested deeper than 64 levels.
[[nodiscard]] std::optional<std::size_t> codedSize(const Dictionary& dictionary) noexcept;

/// Writes the form to `target`, which has room for `codedSize` bytes.
void encode(const Dictionary& dictionary, std::byte* target) noexcept;

/// Reads such a form. Returns nullopt if `bytes` is none, or has bytes behind it. Trusts nothing in it.
[[nodiscard]] std::optional<Dictionary> decodeDictionary(std::string_view bytes);

}  // namespace kelvo
