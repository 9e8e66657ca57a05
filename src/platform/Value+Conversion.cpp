// Conversion, comparison and description of values.
#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <limits>

#include "kelvo/Value.h"
#include "platform/ClassicLocale.h"
#include "platform/JSON.h"

namespace kelvo {

namespace {

constexpr bool isBlank(char character) noexcept {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

/// Returns `text` without leading blanks and without a plus sign, which from_chars does not accept.
std::string_view numberIn(std::string_view text) noexcept {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
  return text;
}

template <class Integer>
Integer leadingInteger(std::string_view text) noexcept {
  text = numberIn(text);
  const bool negative = !text.empty() && text.front() == '-';
  if (negative && std::is_unsigned_v<Integer>) return 0;
  Integer result = 0;
  if (std::from_chars(text.data(), text.data() + text.size(), result).ec != std::errc::result_out_of_range) {
    return result;
  }
  return negative ? std::numeric_limits<Integer>::min() : std::numeric_limits<Integer>::max();
}

double leadingDouble(std::string_view text) {
  text = numberIn(text);
  const std::size_t digit = !text.empty() && text.front() == '-' ? 1 : 0;
  // from_chars would accept "inf" and "nan".
  if (text.size() <= digit || (text[digit] != '.' && (text[digit] < '0' || text[digit] > '9'))) return 0;
  double result = 0;
  if (std::from_chars(text.data(), text.data() + text.size(), result).ec != std::errc::result_out_of_range) {
    return result;
  }
  constexpr double kLargest = std::numeric_limits<double>::max();
  // The number is too large or too small: strtod_l returns infinity or a value near 0.
  const double rough = ::strtod_l(std::string(text).c_str(), nullptr, classicLocale());
  return std::isinf(rough) ? std::copysign(kLargest, rough) : rough;
}

template <class Integer>
Integer clamped(double number) noexcept {
  // As a double, the upper limit rounds to the next power of two, which is the first number that does not fit.
  constexpr auto kUpper = static_cast<double>(std::numeric_limits<Integer>::max());
  constexpr auto kLower = static_cast<double>(std::numeric_limits<Integer>::min());
  if (std::isnan(number)) return 0;
  if (number >= kUpper) return std::numeric_limits<Integer>::max();
  if (number <= kLower) return std::numeric_limits<Integer>::min();
  return static_cast<Integer>(number);
}

template <class Integer>
Integer asInteger(const Value& value) noexcept {
  if (const auto* text = value.get<std::string>()) return leadingInteger<Integer>(*text);
  if (const auto* number = value.get<bool>()) return *number ? 1 : 0;
  if (const auto* number = value.get<float>()) return clamped<Integer>(*number);
  if (const auto* number = value.get<double>()) return clamped<Integer>(*number);
  constexpr Integer kLargest = std::numeric_limits<Integer>::max();
  if (const auto* number = value.get<std::int64_t>()) {
    return std::is_unsigned_v<Integer> && *number < 0 ? Integer{0} : static_cast<Integer>(*number);
  }
  if (const auto* number = value.get<std::uint64_t>()) {
    return *number > static_cast<std::uint64_t>(kLargest) ? kLargest : static_cast<Integer>(*number);
  }
  return 0;
}

/// Represents every integer and every double without loss.
using Exact = long double;
static_assert(std::numeric_limits<Exact>::digits >= 64);

Exact exact(const Value& number) noexcept {
  if (const auto* value = number.get<bool>()) return *value ? 1 : 0;
  if (const auto* value = number.get<std::int64_t>()) return static_cast<Exact>(*value);
  if (const auto* value = number.get<std::uint64_t>()) return static_cast<Exact>(*value);
  if (const auto* value = number.get<float>()) return *value;
  if (const auto* value = number.get<double>()) return *value;
  return 0;
}

}  // namespace

std::optional<Value> Value::fromJSON(std::string_view text, std::string* error) {
  return parseJSON(text, error);
}

bool Value::isNumber() const noexcept {
  return isInteger() || get<bool>() != nullptr || get<double>() != nullptr || get<float>() != nullptr;
}
bool Value::isInteger() const noexcept {
  return get<std::int64_t>() != nullptr || get<std::uint64_t>() != nullptr;
}

std::optional<std::string> Value::asText() const {
  const auto* text = get<std::string>();
  return text != nullptr ? std::optional(*text) : std::nullopt;
}

std::optional<Array> Value::asArray() const noexcept {
  const auto* array = get<Array>();
  return array != nullptr ? std::optional(*array) : std::nullopt;
}

std::optional<Dictionary> Value::asDictionary() const noexcept {
  const auto* dictionary = get<Dictionary>();
  return dictionary != nullptr ? std::optional(*dictionary) : std::nullopt;
}

std::int64_t Value::asInt64() const noexcept {
  return asInteger<std::int64_t>(*this);
}
std::uint64_t Value::asUInt64() const noexcept {
  return asInteger<std::uint64_t>(*this);
}

double Value::asDouble() const noexcept {
  if (const auto* text = get<std::string>()) return leadingDouble(*text);
  return static_cast<double>(exact(*this));
}

bool Value::asBool() const noexcept {
  const auto* text = get<std::string>();
  if (text == nullptr) return isNumber() && exact(*this) != 0;
  return !text->empty() && std::string_view("YyTt123456789").find(text->front()) != std::string_view::npos;
}

// --- Equality

namespace {

using Pair = std::pair<const Value*, const Value*>;

/// Returns whether two containers have the same size, and dictionaries the same keys. Appends their members to
/// `members` in pairs, for the caller to compare.
bool sameShape(const Array& left, const Array& right, std::vector<Pair>& members) {
  if (left.size() != right.size()) return false;
  if (left.begin() == right.begin()) return true;
  for (std::size_t i = 0; i < left.size(); ++i) members.emplace_back(&left[i], &right[i]);
  return true;
}

bool sameShape(const Dictionary& left, const Dictionary& right, std::vector<Pair>& members) {
  if (left.size() != right.size()) return false;
  if (left.begin() == right.begin()) return true;
  for (const auto& [key, value] : left) {
    const Value* other = right.find(key);
    if (other == nullptr) return false;
    members.emplace_back(&value, other);
  }
  return true;
}

template <class T>
bool same(const Value& left, const Value& right) noexcept {
  const T* a = left.get<T>();
  const T* b = right.get<T>();
  return a != nullptr && b != nullptr && *a == *b;
}

bool sameLeaf(const Value& left, const Value& right) noexcept {
  if (left.isNumber() && right.isNumber()) return exact(left) == exact(right);
  if (left.isNull() && right.isNull()) return true;
  return same<std::string>(left, right) || same<Data>(left, right) || same<Date>(left, right);
}

/// Returns whether all pairs are equal. Uses a list instead of recursion, so that deep nesting cannot overflow the
/// stack.
bool allSame(std::vector<Pair> pending) {
  while (!pending.empty()) {
    const auto [left, right] = pending.back();
    pending.pop_back();
    const auto* leftArray = left->get<Array>();
    const auto* rightArray = right->get<Array>();
    const auto* leftDictionary = left->get<Dictionary>();
    const auto* rightDictionary = right->get<Dictionary>();
    if (leftArray != nullptr && rightArray != nullptr) {
      if (!sameShape(*leftArray, *rightArray, pending)) return false;
    } else if (leftDictionary != nullptr && rightDictionary != nullptr) {
      if (!sameShape(*leftDictionary, *rightDictionary, pending)) return false;
    } else if (!sameLeaf(*left, *right)) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool operator==(const Array& left, const Array& right) noexcept {
  std::vector<Pair> members;
  return sameShape(left, right, members) && allSame(std::move(members));
}

bool operator==(const Dictionary& left, const Dictionary& right) noexcept {
  std::vector<Pair> members;
  return sameShape(left, right, members) && allSame(std::move(members));
}

bool operator==(const Value& left, const Value& right) noexcept {
  return allSame({{&left, &right}});
}

// --- Description

namespace {

std::string hexadecimal(const Data& bytes) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const std::uint8_t byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

std::string dateText(Date date) {
  const std::time_t seconds = std::chrono::floor<std::chrono::seconds>(date).time_since_epoch().count();
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                     utc.tm_hour, utc.tm_min, utc.tm_sec);
}

}  // namespace

std::string description(const Value& value) {
  if (const auto* text = value.get<std::string>()) return *text;
  if (const auto* number = value.get<bool>()) return *number ? "1" : "0";
  if (const auto* number = value.get<std::int64_t>()) return fmt::format("{}", *number);
  if (const auto* number = value.get<std::uint64_t>()) return fmt::format("{}", *number);
  if (const auto* number = value.get<float>()) return std::isnan(*number) ? "nan" : fmt::format("{}", *number);
  if (const auto* number = value.get<double>()) return std::isnan(*number) ? "nan" : fmt::format("{}", *number);
  if (const auto* bytes = value.get<Data>()) return hexadecimal(*bytes);
  if (const auto* date = value.get<Date>()) return dateText(*date);
  if (value.isNull()) return "(null)";
  return describingJSONText(value);
}

}  // namespace kelvo
