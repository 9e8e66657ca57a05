#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "kelvo/Export.h"

namespace kelvo {

class Value;

/// Raw bytes.
using Data = std::vector<std::uint8_t>;
/// A moment of the wall clock.
using Date = std::chrono::system_clock::time_point;

/// An ordered list of values.
///
/// Copies share their content and cost one reference count; the first change of a copy makes it the owner of
/// its own content. Distinct copies may be used from different threads without a lock.
class KELVO_EXPORT Array {
 public:
  Array() noexcept = default;
  Array(std::initializer_list<Value> values);
  Array(const Array& other) noexcept;
  Array(Array&& other) noexcept : rep_(std::exchange(other.rep_, nullptr)) {}
  Array& operator=(Array other) noexcept;
  ~Array();

  [[nodiscard]] std::size_t size() const noexcept;
  [[nodiscard]] bool empty() const noexcept { return size() == 0; }
  /// `index` must be below `size()`.
  [[nodiscard]] const Value& operator[](std::size_t index) const noexcept;
  [[nodiscard]] const Value* begin() const noexcept;
  [[nodiscard]] const Value* end() const noexcept;

  void append(Value value);

  friend KELVO_EXPORT bool operator==(const Array& left, const Array& right) noexcept;

 private:
  struct Rep;
  Rep& own();
  Rep* rep_ = nullptr;
};

/// A map from text to value. It enumerates in the order in which its keys were first set, so the same calls
/// give the same bytes wherever it is written out.
///
/// Copies share their content as those of `Array` do.
class KELVO_EXPORT Dictionary {
 public:
  using Entry = std::pair<std::string, Value>;

  Dictionary() noexcept = default;
  /// A key that stands twice keeps its first place and its last value.
  Dictionary(std::initializer_list<Entry> entries);
  Dictionary(const Dictionary& other) noexcept;
  Dictionary(Dictionary&& other) noexcept : rep_(std::exchange(other.rep_, nullptr)) {}
  Dictionary& operator=(Dictionary other) noexcept;
  ~Dictionary();

  [[nodiscard]] std::size_t size() const noexcept;
  [[nodiscard]] bool empty() const noexcept { return size() == 0; }
  /// The value under `key`, or nullptr. It stays valid until this dictionary changes or dies.
  [[nodiscard]] const Value* find(std::string_view key) const noexcept;
  [[nodiscard]] bool contains(std::string_view key) const noexcept { return find(key) != nullptr; }
  /// The value under `key`; the null value when there is none.
  [[nodiscard]] const Value& operator[](std::string_view key) const noexcept;
  [[nodiscard]] const Entry* begin() const noexcept;
  [[nodiscard]] const Entry* end() const noexcept;

  void set(std::string_view key, Value value);
  void remove(std::string_view key);

  /// Equal when both hold the same keys with equal values, in whatever order.
  friend KELVO_EXPORT bool operator==(const Dictionary& left, const Dictionary& right) noexcept;

 private:
  struct Rep;
  Rep& own();
  Rep* rep_ = nullptr;
};

/// One piece of data that a host hands over: null, bool, signed or unsigned 64-bit integer, 32-bit float,
/// double, text (UTF-8), bytes, date, array or dictionary.
///
/// Integers stay integers all the way to the service. Not representable there, and therefore dropped with one
/// warning when a host passes them: NaN, infinities, and anything nested deeper than 64 levels. Bytes of a text
/// that are no UTF-8 are replaced by U+FFFD.
class KELVO_EXPORT Value {
 public:
  Value() noexcept = default;
  Value(std::nullptr_t) noexcept {}
  Value(std::nullopt_t) noexcept {}
  template <class T, std::enable_if_t<std::is_same_v<T, bool>, int> = 0>
  Value(T value) noexcept : content_(value) {}
  template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
  Value(T value) noexcept {
    if constexpr (std::is_signed_v<T>) {
      content_ = static_cast<std::int64_t>(value);
    } else {
      content_ = static_cast<std::uint64_t>(value);
    }
  }
  Value(float value) noexcept : content_(value) {}
  Value(double value) noexcept : content_(value) {}
  /// A null pointer makes the null value.
  Value(const char* text) {
    if (text != nullptr) content_ = std::string(text);
  }
  Value(std::string text) noexcept : content_(std::move(text)) {}
  Value(std::string_view text) : content_(std::string(text)) {}
  Value(Data bytes) noexcept : content_(std::move(bytes)) {}
  Value(Date date) noexcept : content_(date) {}
  Value(Array array) noexcept : content_(std::move(array)) {}
  Value(Dictionary dictionary) noexcept : content_(std::move(dictionary)) {}
  template <class T>
  Value(std::optional<T> value) : Value(value ? Value(*std::move(value)) : Value()) {}

  [[nodiscard]] bool isNull() const noexcept { return std::holds_alternative<std::monostate>(content_); }
  /// A bool, an integer or a floating number.
  [[nodiscard]] bool isNumber() const noexcept;
  [[nodiscard]] bool isInteger() const noexcept;

  /// The content when it is of that type, else nullptr:
  /// `value.get<std::string>()`, `value.get<Dictionary>()`, `value.get<std::int64_t>()` ...
  template <class T>
  [[nodiscard]] const T* get() const noexcept {
    return std::get_if<T>(&content_);
  }

  /// The text, array or dictionary if the value is one, else nullopt. The array and the dictionary share their content
  /// with the value.
  [[nodiscard]] std::optional<std::string> asText() const;
  [[nodiscard]] std::optional<Array> asArray() const noexcept;
  [[nodiscard]] std::optional<Dictionary> asDictionary() const noexcept;

  /// The number, or the number that a text begins with, truncated towards zero and clamped to the range of the
  /// result; 0 for everything else.
  [[nodiscard]] std::int64_t asInt64() const noexcept;
  [[nodiscard]] std::uint64_t asUInt64() const noexcept;
  [[nodiscard]] double asDouble() const noexcept;
  /// True for a number other than 0, and for a text that begins with Y, y, T, t or a digit from 1 to 9.
  [[nodiscard]] bool asBool() const noexcept;

  /// Numbers compare by what they stand for (false equals 0, and 1 equals 1.0); everything else by type and content.
  friend KELVO_EXPORT bool operator==(const Value& left, const Value& right) noexcept;

 private:
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, float, double, std::string, Data, Date, Array,
               Dictionary>
      content_;
};

/// The text of a value: a text itself, an integer in decimal, a floating number in the shortest form that reads
/// back, a bool as 1 or 0, an array or dictionary as compact JSON, null as `(null)`.
[[nodiscard]] KELVO_EXPORT std::string description(const Value& value);

}  // namespace kelvo
