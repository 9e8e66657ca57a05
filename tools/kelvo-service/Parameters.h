#pragma once

#include <charconv>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kelvo::service {

/// Sets `number` and returns true if `text` is an integer from `least` to `most`.
template <class Number>
bool readNumber(std::string_view text, std::int64_t least, std::int64_t most, Number& number) {
  std::int64_t read = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), read);
  if (error != std::errc() || end != text.data() + text.size() || read < least || read > most) return false;
  number = static_cast<Number>(read);
  return true;
}

/// Reads the decoded parameters of a URL's query. It holds a reference to `pairs`, which must outlive it.
class Parameters {
 public:
  using Pairs = std::multimap<std::string, std::string>;
  explicit Parameters(const Pairs& pairs) : pairs_(pairs) {}

  [[nodiscard]] bool has(const char* name) const { return pairs_.count(name) > 0; }
  /// Returns the first value of `name`, empty if there is none.
  [[nodiscard]] std::string text(const char* name) const {
    const auto found = pairs_.find(name);
    return found == pairs_.end() ? std::string() : found->second;
  }
  /// Returns the value of `name` if it is an integer from `least` to `most`, else nullopt.
  [[nodiscard]] std::optional<std::int64_t> number(const char* name, std::int64_t least, std::int64_t most) const {
    std::int64_t number = 0;
    return readNumber(text(name), least, most, number) ? std::optional(number) : std::nullopt;
  }

 private:
  const Pairs& pairs_;
};

}  // namespace kelvo::service
