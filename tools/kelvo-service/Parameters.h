#pragma once

#include <charconv>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace kelvo::service {

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
    const std::string digits = text(name);
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error != std::errc() || end != digits.data() + digits.size() || number < least || number > most) {
      return std::nullopt;
    }
    return number;
  }

 private:
  const Pairs& pairs_;
};

}  // namespace kelvo::service
