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
/// A point in time of the wall clock.
using Date = std::chrono::system_clock::time_point;

/// An ordered list of values.
///
/// Copies share their content and cost one reference count. The first change of a copy copies the content.
/// Thread: different copies may be used on different threads without a lock, one copy on one thread at a time only.
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
  /// Returns the value at `index`, which must be below `size()`. The reference stays valid until this array changes or
  /// dies.
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

/// A map from text to value. It enumerates in the order in which its keys were first set, so the same calls produce the
/// same JSON bytes.
///
/// Copies share their content like copies of `Array`, with the same rule for threads.
class KELVO_EXPORT Dictionary {
 public:
  using Entry = std::pair<std::string, Value>;

  Dictionary() noexcept = default;
  /// A repeated key keeps its first position and its last value.
  Dictionary(std::initializer_list<Entry> entries);
  Dictionary(const Dictionary& other) noexcept;
  Dictionary(Dictionary&& other) noexcept : rep_(std::exchange(other.rep_, nullptr)) {}
  Dictionary& operator=(Dictionary other) noexcept;
  ~Dictionary();

  [[nodiscard]] std::size_t size() const noexcept;
  [[nodiscard]] bool empty() const noexcept { return size() == 0; }
  /// Returns the value under `key`, nullptr if there is none. It stays valid until this dictionary changes or dies.
  [[nodiscard]] const Value* find(std::string_view key) const noexcept;
  [[nodiscard]] bool contains(std::string_view key) const noexcept { return find(key) != nullptr; }
  /// Returns the value under `key`, the null value if there is none.
  [[nodiscard]] const Value& operator[](std::string_view key) const noexcept;
  [[nodiscard]] const Entry* begin() const noexcept;
  [[nodiscard]] const Entry* end() const noexcept;

  /// Adds or replaces the value under `key`. A replaced value keeps its position.
  void set(std::string_view key, Value value);
  /// Removes `key`; does nothing if it is missing.
  void remove(std::string_view key);

  /// Returns true if both have the same keys with equal values, in any order.
  friend KELVO_EXPORT bool operator==(const Dictionary& left, const Dictionary& right) noexcept;

 private:
  struct Rep;
  Rep& own();
  Rep* rep_ = nullptr;
};

/// One attribute's value: null, bool, signed or unsigned 64-bit integer, 32-bit float, double, text (UTF-8), bytes,
/// date, array or dictionary.
///
/// Integers reach the service as integers. Each kind of repair that an argument of a host needs costs one WARN line per
/// call: NaN, infinities and containers below the 64th level are dropped, and bytes that are not UTF-8 become U+FFFD.
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
  /// A null pointer becomes the null value.
  Value(const char* text) {
    if (text != nullptr) content_ = std::string(text);
  }
  Value(std::string text) noexcept : content_(std::move(text)) {}
  Value(std::string_view text) : content_(std::string(text)) {}
  Value(Data bytes) noexcept : content_(std::move(bytes)) {}
  Value(Date date) noexcept : content_(date) {}
  Value(Array array) noexcept : content_(std::move(array)) {}
  /// A dictionary: in `{{"address", {{"city", "Bern"}}}}`, the inner braces are one. An array says `Array{1, 2}`.
  Value(std::initializer_list<Dictionary::Entry> entries) : content_(Dictionary(entries)) {}
  Value(Dictionary dictionary) noexcept : content_(std::move(dictionary)) {}
  template <class T>
  Value(std::optional<T> value) : Value(value ? Value(*std::move(value)) : Value()) {}

  /// Returns the value of a JSON text. Integers stay integers. Returns nullopt, with the reason in `error`, if `text`
  /// is not JSON or nests deeper than 256 levels.
  [[nodiscard]] static std::optional<Value> fromJSON(std::string_view text, std::string* error = nullptr);

  [[nodiscard]] bool isNull() const noexcept { return std::holds_alternative<std::monostate>(content_); }
  /// Returns true for a bool, an integer or a floating-point number.
  [[nodiscard]] bool isNumber() const noexcept;
  /// Returns true for a signed or unsigned integer, false for a bool.
  [[nodiscard]] bool isInteger() const noexcept;

  /// Returns the content if it has the type `T`, else nullptr; valid until this value changes or dies:
  /// `value.get<std::string>()`, `value.get<Dictionary>()`, `value.get<std::int64_t>()` ...
  template <class T>
  [[nodiscard]] const T* get() const noexcept {
    return std::get_if<T>(&content_);
  }

  /// Return the text, array or dictionary if the value is one, else nullopt. The array and the dictionary share their
  /// content with the value.
  [[nodiscard]] std::optional<std::string> asText() const;
  [[nodiscard]] std::optional<Array> asArray() const noexcept;
  [[nodiscard]] std::optional<Dictionary> asDictionary() const noexcept;

  /// Return the number, or the number at the start of a text, clamped to the range of the result; 0 for everything
  /// else. The integer forms truncate towards zero.
  [[nodiscard]] std::int64_t asInt64() const noexcept;
  [[nodiscard]] std::uint64_t asUInt64() const noexcept;
  [[nodiscard]] double asDouble() const noexcept;
  /// Returns true for a number other than 0, and for a text that begins with Y, y, T, t or a digit from 1 to 9.
  [[nodiscard]] bool asBool() const noexcept;

  /// Compares numbers by their numeric value (false equals 0, and 1 equals 1.0), everything else by type and content.
  friend KELVO_EXPORT bool operator==(const Value& left, const Value& right) noexcept;

 private:
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, float, double, std::string, Data, Date, Array,
               Dictionary>
      content_{};
};

/// Returns a value as text: a text unchanged, an integer in decimal, a floating-point number in the shortest form that
/// reads back, a bool as 1 or 0, bytes in lower-case hexadecimal, a date as "YYYY-MM-DD hh:mm:ss +0000", an array or
/// dictionary as compact JSON, null as `(null)`.
[[nodiscard]] KELVO_EXPORT std::string description(const Value& value);

}  // namespace kelvo
