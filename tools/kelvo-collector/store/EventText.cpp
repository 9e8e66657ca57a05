#include "kelvo-collector/store/EventText.h"

#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

/// Walks over JSON that is known to be good, without building anything.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  /// Calls `visit(key)` before each member's value; `visit` must go over the value.
  template <class Visit>
  void members(Visit visit) {
    each('{', '}', [&] {
      const Span key = value();
      skip(':');
      const auto name = parseJSON(text_.substr(key.position, key.size));
      visit(name ? description(*name) : std::string());
    });
  }

  /// The elements of a list; none, having gone over it, of anything else.
  std::vector<Span> elements() {
    std::vector<Span> found;
    blank();
    if (peek() == '[') {
      each('[', ']', [&] { found.push_back(value()); });
    } else {
      value();
    }
    return found;
  }

  /// Goes over one value.
  Span value() {
    blank();
    const std::size_t begin = at_;
    if (peek() == '"') {
      text();
    } else if (peek() == '{' || peek() == '[') {
      nested();
    } else {
      while (at_ < text_.size() && std::string_view(",:]} \t\r\n").find(text_[at_]) == std::string_view::npos) ++at_;
    }
    return {begin, at_ - begin};
  }

  [[nodiscard]] bool begins(char bracket) {
    blank();
    return peek() == bracket;
  }

 private:
  [[nodiscard]] char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }

  void blank() {
    while (at_ < text_.size() && std::string_view(" \t\r\n").find(text_[at_]) != std::string_view::npos) ++at_;
  }

  void skip(char expected) {
    blank();
    if (peek() == expected) ++at_;
  }

  template <class Visit>
  void each(char open, char close, Visit visit) {
    skip(open);
    for (blank(); at_ < text_.size() && peek() != close; blank()) {
      const std::size_t before = at_;
      visit();
      skip(',');
      if (at_ == before) return;  // no JSON after all
    }
    skip(close);
  }

  void text() {
    for (++at_; at_ < text_.size() && text_[at_] != '"'; ++at_) {
      if (text_[at_] == '\\') ++at_;
    }
    ++at_;
  }

  void nested() {
    int depth = 0;
    do {
      const char here = peek();
      if (here == '"') {
        text();
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
    if (part != "chunk_details" || !scanner.begins('{')) {
      scanner.value();
      return;
    }
    lists.clear();
    scanner.members([&](const std::string& list) { lists[list] = scanner.elements(); });
  });
  return lists;
}

}  // namespace kelvo::collector
