#include "platform/WrittenJSON.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <string>
#include <system_error>

#include "platform/JSON.h"

namespace kelvo {
namespace {

constexpr std::size_t kMostKeys = 64;  // in one dictionary, because each is compared with all before it

constexpr unsigned char kFirstPrintable = 0x20;
constexpr unsigned char kFirstMultibyte = 0x80;

/// Tells of each byte whether JSON writes it in a text without an escape.
constexpr auto kIsPlain = [] {
  std::array<bool, 256> plain{};
  for (std::size_t c = kFirstPrintable; c < kFirstMultibyte; ++c) plain[c] = c != '"' && c != '\\';
  return plain;
}();

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

template <class Number>
bool reads(std::string_view text, Number& number) {
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

bool areDigits(std::string_view text) {
  return std::all_of(text.begin(), text.end(), isDigit);
}

/// Returns whether the writer writes this decimal so. Knows only those that need no conversion: a double keeps up to 15
/// digits, and the writer uses no exponent from 0.0001 on.
bool isPlainDecimal(std::string_view whole, std::string_view fraction) {
  constexpr std::size_t kExactDigits = 15;
  constexpr std::size_t kMostZeros = 3;
  if (fraction.empty() || whole.size() + fraction.size() > kExactDigits || !areDigits(whole) || !areDigits(fraction)) {
    return false;
  }
  if (fraction == "0") return true;
  return fraction.back() != '0' && (whole != "0" || fraction.find_first_not_of('0') <= kMostZeros);
}

/// Returns whether the writer writes this number so.
bool isWritten(std::string_view text) {
  constexpr std::size_t kSafeDigits = 18;  // of a signed integer
  const auto digits = text.substr(text.substr(0, 1) == "-" ? 1 : 0);
  const auto whole = digits.substr(0, digits.find_first_of(".e"));
  if (whole.empty() || (whole.front() == '0' && whole.size() > 1)) return false;
  if (whole.size() == digits.size() && areDigits(digits)) {
    std::int64_t number = 0;
    std::uint64_t large = 0;
    return text != "-0" && (digits.size() <= kSafeDigits || reads(text, number) || reads(text, large));
  }
  if (digits.size() > whole.size() && isPlainDecimal(whole, digits.substr(whole.size() + 1)) &&
      digits[whole.size()] == '.') {
    return true;
  }
  double number = 0;
  return reads(text, number) && jsonText(number) == text;
}

}  // namespace

bool WrittenJSON::read(std::string_view text, std::size_t deepest) {
  at_ = text.data();
  end_ = at_ + text.size();
  deepest_ = deepest;
  members_.clear();
  keys_.clear();
  return next() == '{' && dictionary(1) && at_ == end_;
}

bool WrittenJSON::value(std::size_t depth) {
  switch (next()) {
    case '"': return text();
    case '{': return dictionary(depth + 1);
    case '[': return array(depth + 1);
    case 't': return takeWord("true");
    case 'f': return takeWord("false");
    case 'n': return takeWord("null");
    default: return number();
  }
}

bool WrittenJSON::dictionary(std::size_t depth) {
  if (depth > deepest_ || !take('{')) return false;
  if (take('}')) return true;
  const std::size_t firstKey = keys_.size();
  do {
    if (!member(depth, firstKey)) return false;
  } while (take(','));
  keys_.resize(firstKey);
  return take('}');
}

bool WrittenJSON::member(std::size_t depth, std::size_t firstKey) {
  const char* begin = at_ + 1;
  if (next() != '"' || !text()) return false;
  const std::string_view key(begin, static_cast<std::size_t>(at_ - 1 - begin));
  const auto first = keys_.begin() + static_cast<std::ptrdiff_t>(firstKey);
  if (keys_.size() - firstKey == kMostKeys || std::find(first, keys_.end(), key) != keys_.end()) return false;
  keys_.push_back(key);
  if (!take(':')) return false;
  begin = at_;
  if (!value(depth)) return false;
  if (depth == 1) members_.push_back({key, {begin, static_cast<std::size_t>(at_ - begin)}});
  return true;
}

bool WrittenJSON::array(std::size_t depth) {
  if (depth > deepest_ || !take('[')) return false;
  if (take(']')) return true;
  do {
    if (!value(depth)) return false;
  } while (take(','));
  return take(']');
}

bool WrittenJSON::text() {
  ++at_;  // the quote
  for (;;) {
    while (at_ != end_ && kIsPlain[static_cast<unsigned char>(*at_)]) ++at_;
    const char special = next();
    if (special == '"') return take('"');
    if (special == '\\' ? !escape() : !multibyte()) return false;
  }
}

bool WrittenJSON::escape() {
  constexpr std::string_view kLetters = "btnfr\"\\";
  ++at_;  // the backslash
  if (kLetters.find(next()) != std::string_view::npos) return ++at_, true;
  if (!takeWord("u00") || end_ - at_ < 2) return false;
  // Only control characters without a letter are written so.
  constexpr std::string_view kLow = "0123456789abcdef";
  constexpr std::string_view kWithLetter = "89acd";
  const char high = *at_++;
  const char low = *at_++;
  return (high == '1' || (high == '0' && kWithLetter.find(low) == std::string_view::npos)) &&
         kLow.find(low) != std::string_view::npos;
}

/// Reads one character of more than one byte.
bool WrittenJSON::multibyte() {
  struct Range {
    unsigned char first, last;      // of the first byte
    unsigned char lowest, highest;  // of the second one
    std::ptrdiff_t length;
  };
  static constexpr Range kRanges[] = {{0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
                                      {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3},
                                      {0xEE, 0xEF, 0x80, 0xBF, 3}, {0xF0, 0xF0, 0x90, 0xBF, 4},
                                      {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4}};
  const auto byte = [this](std::ptrdiff_t index) { return static_cast<unsigned char>(at_[index]); };
  for (const Range& range : kRanges) {
    if (end_ - at_ < range.length || byte(0) < range.first || byte(0) > range.last) continue;
    if (byte(1) < range.lowest || byte(1) > range.highest) return false;
    for (std::ptrdiff_t index = 2; index < range.length; ++index) {
      if (byte(index) < 0x80 || byte(index) > 0xBF) return false;
    }
    at_ += range.length;
    return true;
  }
  return false;
}

bool WrittenJSON::number() {
  constexpr std::string_view kOthers = "-+.e";
  const char* const begin = at_;
  while (at_ != end_ && (isDigit(*at_) || kOthers.find(*at_) != std::string_view::npos)) ++at_;
  return isWritten({begin, static_cast<std::size_t>(at_ - begin)});
}

bool WrittenJSON::takeWord(std::string_view word) {
  if (static_cast<std::size_t>(end_ - at_) < word.size() || std::string_view(at_, word.size()) != word) return false;
  at_ += word.size();
  return true;
}

}  // namespace kelvo
