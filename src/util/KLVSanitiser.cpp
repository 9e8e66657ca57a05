#include "util/KLVSanitiser.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr int kDeepestLevel = 64;
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// The range of the bytes of a character after the first.
constexpr unsigned char kLowestContinuation = 0x80;
constexpr unsigned char kHighestContinuation = 0xBF;
// The high bits of eight bytes. Text in which none is set is ASCII.
constexpr std::uint64_t kHighBits = 0x8080808080808080U;

/// The bytes that must follow the first byte of a UTF-8 character.
struct Lead {
  std::size_t following = 0;                     ///< 0 if no character starts with this byte
  unsigned char lowest = kLowestContinuation;    ///< of the second byte: excludes overlong forms
  unsigned char highest = kHighestContinuation;  ///< of the second byte: excludes surrogates and all above U+10FFFF
};

Lead leadOf(unsigned char byte) noexcept {
  if (byte >= 0xC2 && byte <= 0xDF) return {1};
  if (byte == 0xE0) return {2, 0xA0, kHighestContinuation};
  if (byte == 0xED) return {2, kLowestContinuation, 0x9F};
  if (byte >= 0xE1 && byte <= 0xEF) return {2};
  if (byte == 0xF0) return {3, 0x90, kHighestContinuation};
  if (byte >= 0xF1 && byte <= 0xF3) return {3};
  if (byte == 0xF4) return {3, kLowestContinuation, 0x8F};
  return {};
}

struct Character {
  std::size_t size = 1;
  bool valid = true;
};

/// Returns the character at the start of `text`, or the invalid part there. `text` must not be empty.
Character firstCharacter(std::string_view text) noexcept {
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  if (byte(0) < kLowestContinuation) return {};
  const Lead lead = leadOf(byte(0));
  if (lead.following == 0) return {1, false};
  for (std::size_t i = 1; i <= lead.following; ++i) {
    const unsigned char lowest = i == 1 ? lead.lowest : kLowestContinuation;
    const unsigned char highest = i == 1 ? lead.highest : kHighestContinuation;
    if (i >= text.size() || byte(i) < lowest || byte(i) > highest) return {i, false};
  }
  return {lead.following + 1, true};
}

/// Returns the length of the valid UTF-8 at the start of `text`. Checks ASCII eight bytes at a time.
std::size_t validSize(std::string_view text) noexcept {
  std::size_t at = 0;
  while (at < text.size()) {
    std::uint64_t eight = 0;
    const std::size_t checked = std::min(sizeof eight, text.size() - at);
    std::memcpy(&eight, text.data() + at, checked);
    if ((eight & kHighBits) == 0) {
      at += checked;
      continue;
    }
    const Character character = firstCharacter(text.substr(at));
    if (!character.valid) return at;
    at += character.size;
  }
  return at;
}

template <class Word>
Word wordAt(std::string_view text, std::size_t at) noexcept {
  Word word = 0;
  std::memcpy(&word, text.data() + at, sizeof word);
  return word;
}

/// Reads words of fixed size only; the last word overlaps the one before.
bool isASCII(std::string_view text) noexcept {
  constexpr std::size_t kLong = sizeof(std::uint64_t), kShort = sizeof(std::uint32_t);
  std::uint64_t bits = 0;
  if (text.size() >= kLong) {
    for (std::size_t at = 0; at + kLong <= text.size(); at += kLong) bits |= wordAt<std::uint64_t>(text, at);
    bits |= wordAt<std::uint64_t>(text, text.size() - kLong);
  } else if (text.size() >= kShort) {
    bits = wordAt<std::uint32_t>(text, 0) | wordAt<std::uint32_t>(text, text.size() - kShort);
  } else {
    for (const char byte : text) bits |= static_cast<unsigned char>(byte);
  }
  return (bits & kHighBits) == 0;
}

bool isValid(std::string_view text) noexcept {
  return isASCII(text) || validSize(text) == text.size();
}

std::string repaired(std::string_view text) {
  std::string result;
  result.reserve(text.size() + kReplacement.size());
  while (!text.empty()) {
    const std::size_t good = validSize(text);
    result += text.substr(0, good);
    text.remove_prefix(good);
    if (text.empty()) break;
    result += kReplacement;
    text.remove_prefix(firstCharacter(text).size);
  }
  return result;
}

constexpr bool isPrintableASCII(char byte) noexcept {
  return byte >= ' ' && byte <= '~';
}

/// Returns true for a C1 control character, U+0080 to U+009F, and for a line or paragraph separator.
bool isControlBeyondASCII(std::string_view character) noexcept {
  return (character.size() == 2 && character >= "\u0080" && character <= "\u009f") || character == "\u2028" ||
         character == "\u2029";
}

/// Returns the code point of a valid character of two or three bytes.
unsigned codePointOf(std::string_view character) noexcept {
  constexpr unsigned kPayload = 0x3F, kBits = 6;  // of each byte after the first
  unsigned point = static_cast<unsigned char>(character[0]) & (character.size() == 2 ? 0x1FU : 0x0FU);
  for (const char byte : character.substr(1)) point = point << kBits | (static_cast<unsigned char>(byte) & kPayload);
  return point;
}

/// Returns the escape of a character that must not be printed, or of the bytes of an invalid one.
std::string escaped(std::string_view character, bool valid) {
  if (character == "\n") return "\\n";
  if (character == "\r") return "\\r";
  if (character == "\t") return "\\t";
  if (valid && character.size() > 1) return fmt::format("\\u{:04x}", codePointOf(character));
  std::string bytes;
  for (const char byte : character) bytes += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
  return bytes;
}

bool isNotFinite(const Value& value) noexcept {
  if (const auto* number = value.get<double>()) return !std::isfinite(*number);
  const auto* number = value.get<float>();
  return number != nullptr && !std::isfinite(*number);
}

bool isContainer(const Value& value) noexcept {
  return value.get<Array>() != nullptr || value.get<Dictionary>() != nullptr;
}

/// Walks over one argument, and allocates nothing. It stops at the deepest level, so a deeper value cannot exhaust the
/// stack.
class Inspection {
 public:
  /// Returns false if something in the dictionary needs a repair.
  [[nodiscard]] bool isSane(const Dictionary& dictionary, int level) noexcept {
    if (dictionary.empty()) isClean_ = false;
    for (const auto& [key, value] : dictionary) {
      const auto* text = value.get<std::string>();
      if (text != nullptr && text->empty()) isClean_ = false;
      if (!isValid(key) || !(text != nullptr ? isValid(*text) : isSane(value, level + 1))) return false;
    }
    return true;
  }

  [[nodiscard]] bool isSane(const Value& value, int level) noexcept {
    if (const auto* text = value.get<std::string>()) return isValid(*text);
    if (value.get<std::int64_t>() != nullptr || value.get<std::uint64_t>() != nullptr || value.get<bool>() != nullptr) {
      return true;
    }
    if (value.get<double>() != nullptr || value.get<float>() != nullptr) return !isNotFinite(value);
    if (isContainer(value) && level > kDeepestLevel) return false;
    if (const auto* dictionary = value.get<Dictionary>()) return isSane(*dictionary, level);
    const auto* array = value.get<Array>();
    if (array == nullptr || array->empty()) isClean_ = false;
    return array == nullptr ||
           std::all_of(array->begin(), array->end(), [&](const Value& element) { return isSane(element, level + 1); });
  }

  /// Returns whether cleaning would leave alone what the walk has seen.
  [[nodiscard]] bool isClean() const noexcept { return isClean_; }

 private:
  bool isClean_ = true;
};

/// Repairs one argument and remembers which kinds of repair it made. Copies only what needs a repair.
class Sanitiser {
 public:
  Dictionary repair(const Dictionary& dictionary, int level) {
    if (Inspection().isSane(dictionary, level)) return dictionary;
    Dictionary result;
    for (const auto& [key, value] : dictionary) {
      if (!drops(value, level + 1)) result.set(repair(key), repair(value, level + 1));
    }
    return result;
  }

  std::string repair(const std::string& text) {
    if (isValid(text)) return text;
    repairsText_ = true;
    return repaired(text);
  }

  void report() const {
    if (dropsNumbers_) KLV_WARN("NaN or infinity dropped: only finite numbers can be kept");
    if (dropsDepth_) KLV_WARN("Value dropped: it is nested deeper than {} levels", kDeepestLevel);
    if (repairsText_) KLV_WARN("Invalid UTF-8 in a text or key replaced by U+FFFD");
  }

 private:
  bool drops(const Value& value, int level) {
    const bool tooDeep = level > kDeepestLevel && isContainer(value);
    dropsDepth_ = dropsDepth_ || tooDeep;
    dropsNumbers_ = dropsNumbers_ || isNotFinite(value);
    return tooDeep || isNotFinite(value);
  }

  Value repair(const Value& value, int level) {
    if (const auto* text = value.get<std::string>()) return repair(*text);
    if (const auto* dictionary = value.get<Dictionary>()) return repair(*dictionary, level);
    const auto* array = value.get<Array>();
    if (array == nullptr || Inspection().isSane(value, level)) return value;
    Array result;
    for (const Value& element : *array) {
      if (!drops(element, level + 1)) result.append(repair(element, level + 1));
    }
    return result;
  }

  bool dropsNumbers_ = false;
  bool dropsDepth_ = false;
  bool repairsText_ = false;
};

}  // namespace

KLVHostAttributes sanitisedAttributes(std::optional<Dictionary> dictionary) {
  Inspection inspection;
  if (dictionary && !inspection.isSane(*dictionary, 1)) {
    Sanitiser sanitiser;
    dictionary = sanitiser.repair(*dictionary, 1);
    sanitiser.report();
    return dictionary;
  }
  return {std::move(dictionary), inspection.isClean()};
}

std::optional<Dictionary> sanitised(std::optional<Dictionary> dictionary) {
  return sanitisedAttributes(std::move(dictionary)).values;
}

std::optional<std::string> sanitised(std::optional<std::string> text) {
  if (!text || isValid(*text)) return text;
  Sanitiser sanitiser;
  text = sanitiser.repair(*text);
  sanitiser.report();
  return text;
}

std::string onOneLine(std::string text) {
  if (std::all_of(text.begin(), text.end(), isPrintableASCII)) return text;
  std::string line;
  for (std::string_view rest = text; !rest.empty();) {
    const auto [size, valid] = firstCharacter(rest);
    const auto character = rest.substr(0, size);
    const bool prints = size == 1 ? isPrintableASCII(rest[0]) : valid && !isControlBeyondASCII(character);
    prints ? line.append(character) : line.append(escaped(character, valid));
    rest.remove_prefix(size);
  }
  return line;
}

}  // namespace kelvo
