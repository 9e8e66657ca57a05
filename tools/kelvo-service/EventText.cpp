#include "kelvo-service/EventText.h"

#include "platform/JSON.h"

namespace kelvo::service {
namespace {

/// Scans valid JSON without building values.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  /// Calls `visit(key)` for each member of an object. `visit` must consume the member's value.
  template <class Visit>
  void members(Visit visit) {
    each('{', '}', [&] {
      const Span key = value();
      skip(':');
      const auto name = parseJSON(text_.substr(key.position, key.size));
      visit(name ? description(*name) : std::string());
    });
  }

  /// Consumes one value. Returns the spans of its elements if it is a list, else nothing.
  std::vector<Span> elements() {
    std::vector<Span> found;
    skipBlanks();
    if (peek() == '[') {
      each('[', ']', [&] { found.push_back(value()); });
    } else {
      value();
    }
    return found;
  }

  /// Consumes one value and returns its span.
  Span value() {
    skipBlanks();
    const std::size_t begin = at_;
    if (peek() == '"') {
      skipText();
    } else if (peek() == '{' || peek() == '[') {
      skipNested();
    } else {
      while (at_ < text_.size() && std::string_view(",:]} \t\r\n").find(text_[at_]) == std::string_view::npos) ++at_;
    }
    return {begin, at_ - begin};
  }

  [[nodiscard]] bool startsWith(char bracket) {
    skipBlanks();
    return peek() == bracket;
  }

 private:
  [[nodiscard]] char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }

  void skipBlanks() {
    while (at_ < text_.size() && std::string_view(" \t\r\n").find(text_[at_]) != std::string_view::npos) ++at_;
  }

  void skip(char expected) {
    skipBlanks();
    if (peek() == expected) ++at_;
  }

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

  void skipText() {
    for (++at_; at_ < text_.size() && text_[at_] != '"'; ++at_) {
      if (text_[at_] == '\\') ++at_;
    }
    ++at_;
  }

  /// Consumes an object or list by counting brackets.
  void skipNested() {
    int depth = 0;
    do {
      const char here = peek();
      if (here == '"') {
        skipText();
        continue;
      }
      if (here == '{' || here == '[') ++depth;
      if (here == '}' || here == ']') --depth;
      ++at_;
    } while (depth > 0 && at_ < text_.size());
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

}  // namespace

std::map<std::string, std::vector<Span>> elementsOfChunk(std::string_view chunk) {
  std::map<std::string, std::vector<Span>> lists;
  Scanner scanner(chunk);
  scanner.members([&](const std::string& part) {
    if (part != "chunk_details" || !scanner.startsWith('{')) {
      scanner.value();
      return;
    }
    lists.clear();
    scanner.members([&](const std::string& list) { lists[list] = scanner.elements(); });
  });
  return lists;
}

}  // namespace kelvo::service
