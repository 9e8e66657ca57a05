#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kelvo::service {

/// A part of a text: its offset and length in bytes.
struct Span {
  std::size_t position = 0;
  std::size_t size = 0;
};

/// Scans valid JSON without building values, and so knows the place of each value. In a text that is not JSON, the
/// places are undefined; each call ends.
class JSONScanner {
 public:
  /// `text` must outlive the scanner.
  explicit JSONScanner(std::string_view text) : text_(text) {}

  /// Calls `visit(name, key)` for each member of an object, with the span of its key. `visit` must consume the value.
  template <class Visit>
  void members(Visit visit) {
    each('{', '}', [&] {
      const Span key = value();
      skip(':');
      visit(textOf(key), key);
    });
  }

  /// Calls `visit()` for each element of a list. `visit` must consume the element.
  template <class Visit>
  void elements(Visit visit) {
    each('[', ']', visit);
  }

  /// Consumes one value and returns its span.
  Span value();

  [[nodiscard]] bool startsWith(char bracket);
  /// Returns the place of the next value.
  [[nodiscard]] std::size_t position();

 private:
  [[nodiscard]] char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
  /// Returns a text without its quotes and escapes.
  [[nodiscard]] std::string textOf(const Span& span) const;
  void skipBlanks();
  void skip(char expected);
  void skipText();
  void skipNested();

  template <class Visit>
  void each(char open, char close, Visit visit) {
    skip(open);
    for (skipBlanks(); at_ < text_.size() && peek() != close; skipBlanks()) {
      const std::size_t before = at_;
      visit();
      skip(',');
      if (at_ == before) return;  // not JSON: avoids an endless loop
    }
    skip(close);
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

}  // namespace kelvo::service
