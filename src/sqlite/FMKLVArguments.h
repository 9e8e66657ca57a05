#pragma once

#include <type_traits>
#include <utility>
#include <variant>

#include "kelvo/Value.h"

namespace kelvo {

/// What the parameters of a statement are bound to: an array or a list of values fills them in order, a dictionary
/// fills those named ":key".
///
/// An array or a dictionary that stands alone holds the values; to bind one itself, as JSON text, put it into a
/// `Value` or an `Array`.
class FMKLVArguments {
 public:
  FMKLVArguments() noexcept = default;
  FMKLVArguments(Array values) noexcept : content_(std::move(values)) {}
  FMKLVArguments(Dictionary values) noexcept : content_(std::move(values)) {}
  template <class... Values>
  requires(sizeof...(Values) > 0 && (std::is_convertible_v<const Values&, Value> && ...))
      FMKLVArguments(const Values&... values)
      : content_(list(values...)) {}

  template <class... Values>
  [[nodiscard]] static Array list(const Values&... values) {
    Array all;
    (all.append(Value(values)), ...);
    return all;
  }

  /// nullptr when the values stand by name.
  [[nodiscard]] const Array* inOrder() const noexcept { return std::get_if<Array>(&content_); }
  /// nullptr when the values stand in order.
  [[nodiscard]] const Dictionary* byName() const noexcept { return std::get_if<Dictionary>(&content_); }

 private:
  std::variant<Array, Dictionary> content_;
};

/// An array, a dictionary, or any number of what makes a `Value`.
template <class... Values>
concept FMKLVBindable = std::is_constructible_v<FMKLVArguments, const Values&...>;

}  // namespace kelvo
