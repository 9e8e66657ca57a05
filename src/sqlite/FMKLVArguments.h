#pragma once

#include <type_traits>
#include <utility>
#include <variant>

#include "kelvo/Value.h"

namespace kelvo {

/// A type that converts to `Value`.
template <class T>
concept FMKLVBindable = std::is_convertible_v<const T&, Value>;

/// The values for the parameters of one statement.
///
/// An array or a list of values binds the parameters in order. A dictionary binds the parameters named ":key".
/// A single array or dictionary is never a value here. To bind one as JSON text, wrap it in a `Value` or an `Array`.
class FMKLVArguments {
 public:
  FMKLVArguments() noexcept = default;
  FMKLVArguments(Array values) noexcept : content_(std::move(values)) {}
  FMKLVArguments(Dictionary values) noexcept : content_(std::move(values)) {}
  template <FMKLVBindable... Values>
  requires(sizeof...(Values) > 0) FMKLVArguments(const Values&... values) : content_(list(values...)) {}

  template <FMKLVBindable... Values>
  [[nodiscard]] static Array list(const Values&... values) {
    Array all;
    (all.append(Value(values)), ...);
    return all;
  }

  /// Returns nullptr if the values are bound by name.
  [[nodiscard]] const Array* inOrder() const noexcept { return std::get_if<Array>(&content_); }
  /// Returns nullptr if the values are bound in order.
  [[nodiscard]] const Dictionary* byName() const noexcept { return std::get_if<Dictionary>(&content_); }

 private:
  std::variant<Array, Dictionary> content_;
};

}  // namespace kelvo
