#include "platform/JSON.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/src.hpp>  // compiles Boost.JSON: no other source may include it
#include <charconv>
#include <cmath>
#include <limits>
#include <utility>
#include <variant>
#include <vector>

namespace kelvo {
namespace {

namespace json = boost::json;

constexpr std::size_t kDeepestNesting = 256;
constexpr unsigned char kFirstPrintable = 0x20;  // smaller characters must be escaped
constexpr std::size_t kLongestInteger = 24;      // characters; 20 are enough for 64 bits and a sign

// --- Writing

/// Appends the escape sequence of a character.
void appendEscaped(std::string& json, unsigned char character) {
  constexpr std::string_view kShort = "\bb\tt\nn\ff\rr\"\"\\\\";  // pairs of a character and its letter
  for (std::size_t i = 0; i < kShort.size(); i += 2) {
    if (static_cast<unsigned char>(kShort[i]) != character) continue;
    json += '\\';
    json += kShort[i + 1];
    return;
  }
  constexpr std::string_view kDigits = "0123456789abcdef";
  json += "\\u00";
  json += kDigits[character >> 4U];
  json += kDigits[character & 15U];
}

bool isPlain(unsigned char character) {
  return character >= kFirstPrintable && character != '"' && character != '\\';
}

/// Returns the number of characters before the first one that must be escaped.
std::size_t plainLength(std::string_view text) {
  std::size_t length = 0;
  while (length < text.size() && isPlain(static_cast<unsigned char>(text[length]))) ++length;
  return length;
}

/// Copies the stretches between escaped characters. `plain` is the length of the first one.
void appendWithEscapes(std::string& json, std::string_view text, std::size_t plain) {
  json += '"';
  while (plain < text.size()) {
    json += text.substr(0, plain);
    appendEscaped(json, static_cast<unsigned char>(text[plain]));
    text.remove_prefix(plain + 1);
    plain = plainLength(text);
  }
  json += text;
  json += '"';
}

/// Appends `text` in quotes, and `end` after them.
void appendText(std::string& json, std::string_view text, std::string_view end) {
  const std::size_t plain = plainLength(text);
  if (plain < text.size()) {
    appendWithEscapes(json, text, plain);
    json += end;
    return;
  }
  // Most texts: all of it in one step.
  const std::size_t start = json.size();
  json.resize(start + text.size() + end.size() + 2);
  char* to = json.data() + start;
  *to++ = '"';
  to = std::copy(text.begin(), text.end(), to);
  *to++ = '"';
  std::copy(end.begin(), end.end(), to);
}

class Writer {
 public:
  enum class Mode { strict, describing };
  explicit Writer(Mode mode) : mode_(mode) {}

  /// Returns false, with `error` set, at the first member that JSON cannot represent. Never fails in describing mode.
  bool write(const Value& value, std::size_t depth = 0) {
    if (const auto* content = value.get<std::string>()) return writeText(*content);
    if (const auto* array = value.get<Array>()) return writeArray(*array, depth + 1);
    if (const auto* dictionary = value.get<Dictionary>()) return writeDictionary(*dictionary, depth + 1);
    if (const auto* flag = value.get<bool>()) return add(*flag ? "true" : "false");
    if (const auto* number = value.get<float>()) return writeFloating(*number, value);
    if (const auto* number = value.get<double>()) return writeFloating(*number, value);
    if (const auto* number = value.get<std::int64_t>()) return writeInteger(*number);
    if (const auto* number = value.get<std::uint64_t>()) return writeInteger(*number);
    if (value.get<Data>() != nullptr) return refuse("bytes", value);
    if (value.get<Date>() != nullptr) return refuse("a date", value);
    return add("null");
  }

  std::string text;
  std::string error;

 private:
  bool add(std::string_view piece) {
    text += piece;
    return true;
  }

  /// Writes the text between quotes, and `end` after them.
  bool writeText(std::string_view content, std::string_view end = {}) {
    appendText(text, content, end);
    return true;
  }

  template <class Integer>
  bool writeInteger(Integer number) {
    std::array<char, kLongestInteger> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    return add({digits.data(), static_cast<std::size_t>(end - digits.data())});
  }

  /// Always writes a fraction or an exponent, so that a reader gets a floating-point number again.
  bool writeFloating(double number, const Value& value) {
    if (!std::isfinite(number)) return refuse(std::isnan(number) ? "NaN" : "an infinity", value);
    const std::size_t start = text.size();
    text += fmt::format("{}", number);
    if (text.find_first_of(".e", start) == std::string::npos) text += ".0";
    return true;
  }

  bool writeArray(const Array& array, std::size_t depth) {
    if (depth > kDeepestNesting) return refuseDepth();
    text += '[';
    for (const Value& value : array) {
      if (&value != array.begin()) text += ',';
      if (!write(value, depth)) return false;
    }
    return add("]");
  }

  bool writeDictionary(const Dictionary& dictionary, std::size_t depth) {
    if (depth > kDeepestNesting) return refuseDepth();
    text += '{';
    bool first = true;
    for (const auto& [key, value] : dictionary) {
      if (!std::exchange(first, false)) text += ',';
      writeText(key, ":");
      if (write(value, depth)) continue;
      if (error.find(" (key: ") == std::string::npos) error += " (key: " + key + ")";
      return false;
    }
    return add("}");
  }

  bool refuse(const char* what, const Value& value) {
    if (mode_ == Mode::describing) return writeText(description(value));
    error = fmt::format("JSON cannot hold {}", what);
    return false;
  }

  bool refuseDepth() {
    if (mode_ == Mode::describing) return writeText("...");
    error = fmt::format("nested deeper than {} levels", kDeepestNesting);
    return false;
  }

  Mode mode_;
};

// --- Reading

/// Builds a value from the parser's callbacks. The parser prescribes the names and signatures of the public members.
class Builder {
 public:
  explicit Builder(std::size_t mostValues) : left_(mostValues) {}

  static constexpr std::size_t max_object_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_array_size = max_object_size;
  static constexpr std::size_t max_key_size = max_object_size;
  static constexpr std::size_t max_string_size = max_object_size;

  bool on_document_begin(json::error_code&) { return true; }
  bool on_document_end(json::error_code&) { return true; }
  bool on_object_begin(json::error_code&) { return open(Dictionary()); }
  bool on_object_end(std::size_t, json::error_code& error) { return close(error); }
  bool on_array_begin(json::error_code&) { return open(Array()); }
  bool on_array_end(std::size_t, json::error_code& error) { return close(error); }
  bool on_key_part(json::string_view part, std::size_t, json::error_code&) { return collect(part); }
  bool on_key(json::string_view part, std::size_t, json::error_code&) {
    collect(part);
    open_.back().key = std::exchange(text_, {});
    return true;
  }
  bool on_string_part(json::string_view part, std::size_t, json::error_code&) { return collect(part); }
  bool on_string(json::string_view part, std::size_t, json::error_code& error) {
    collect(part);
    return add(std::exchange(text_, {}), error);
  }
  bool on_number_part(json::string_view part, json::error_code&) { return collect(part); }
  bool on_int64(std::int64_t number, json::string_view, json::error_code& error) { return addNumber(number, error); }
  bool on_uint64(std::uint64_t number, json::string_view, json::error_code& error) { return addNumber(number, error); }
  /// Converts the digits again, because the parser's conversion may be off by the last bit.
  bool on_double(double number, json::string_view part, json::error_code& error) {
    collect(part);
    double precise = number;
    std::from_chars(text_.data(), text_.data() + text_.size(), precise);
    if (!std::isfinite(precise)) {
      error = json::error::exponent_overflow;
      return false;
    }
    return addNumber(precise, error);
  }
  bool on_bool(bool flag, json::error_code& error) { return add(flag, error); }
  bool on_null(json::error_code& error) { return add(nullptr, error); }
  bool on_comment_part(json::string_view, json::error_code&) { return true; }
  bool on_comment(json::string_view, json::error_code&) { return true; }

  Value result;

 private:
  struct Container {
    std::variant<Array, Dictionary> content;
    std::string key;  ///< the key of the next member
  };

  bool collect(json::string_view part) {
    text_.append(part.data(), part.size());
    return true;
  }

  bool open(std::variant<Array, Dictionary> content) {
    open_.push_back({std::move(content), {}});
    return true;
  }

  bool close(json::error_code& error) {
    auto content = std::move(open_.back().content);
    open_.pop_back();
    return std::visit([&](auto& container) { return add(std::move(container), error); }, content);
  }

  template <class Number>
  bool addNumber(Number number, json::error_code& error) {
    text_.clear();
    return add(number, error);
  }

  bool add(Value value, json::error_code& error) {
    if (left_ == 0) {
      error = json::error::array_too_large;
      return false;
    }
    --left_;
    if (open_.empty()) {
      result = std::move(value);
    } else if (auto* array = std::get_if<Array>(&open_.back().content)) {
      array->append(std::move(value));
    } else {
      std::get<Dictionary>(open_.back().content).set(open_.back().key, std::move(value));
    }
    return true;
  }

  std::vector<Container> open_;
  std::string text_;
  std::size_t left_;  // values
};

std::optional<Value> refused(std::string* error, std::string_view what, std::size_t offset) {
  if (error != nullptr) *error = fmt::format("{} at offset {}", what, offset);
  return std::nullopt;
}

}  // namespace

/// Copies the stretches between escaped characters. Most texts have no such character.
void appendQuoted(std::string& json, std::string_view text) {
  appendText(json, text, {});
}

std::optional<std::string> jsonText(const Value& value, std::string* error) {
  Writer writer(Writer::Mode::strict);
  if (writer.write(value)) return std::move(writer.text);
  if (error != nullptr) *error = std::move(writer.error);
  return std::nullopt;
}

std::string describingJSONText(const Value& value) {
  Writer writer(Writer::Mode::describing);
  writer.write(value);
  return std::move(writer.text);
}

std::optional<Value> parseJSON(std::string_view text, std::string* error, std::size_t mostValues) {
  json::parse_options options;
  options.max_depth = kDeepestNesting;
  options.allow_trailing_commas = true;
  json::basic_parser<Builder> parser(options, mostValues);
  json::error_code failure;
  const std::size_t consumed = parser.write_some(false, text.data(), text.size(), failure);
  if (failure == json::error::array_too_large) return refused(error, "too many values", consumed);
  if (failure) return refused(error, failure.message(), consumed);
  if (consumed < text.size()) return refused(error, "extra data", consumed);
  return std::move(parser.handler().result);
}

}  // namespace kelvo
