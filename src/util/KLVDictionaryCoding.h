#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

/// A dictionary's binary form: the number of entries, then each key and value. Numbers take 8 bytes, counts and lengths
/// one byte for each 7 bits. Every type of `Value` has a form.
///
/// Makes no allocation: it keeps a short form, and makes a long one again for `copyTo`.
class KLVCodedDictionary {
 public:
  /// `dictionary` must outlive the form. nullptr has an empty form, which is no dictionary's.
  explicit KLVCodedDictionary(const Dictionary* dictionary) noexcept;

  /// Returns the size of the form in bytes. Returns nullopt if containers are nested deeper than 64 levels.
  [[nodiscard]] std::optional<std::size_t> size() const noexcept { return size_; }
  /// Writes the form to `target`, which has room for `size` bytes.
  void copyTo(std::byte* target) const noexcept;

 private:
  static constexpr std::size_t kShort = 512;

  const Dictionary* const dictionary_;
  std::optional<std::size_t> size_ = 0;
  std::array<std::byte, kShort> form_;
};

/// Returns the form of `dictionary`, nullopt if it has none.
[[nodiscard]] std::optional<std::string> codedForm(const Dictionary& dictionary);

/// Reads such a form. Returns nullopt if `bytes` is none, or has bytes behind it. Trusts nothing in it.
[[nodiscard]] std::optional<Dictionary> decodeDictionary(std::string_view bytes);

}  // namespace kelvo
