#include "kelvo-service/JSONScanner.h"

#include "platform/JSON.h"

namespace kelvo::service {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";
constexpr std::string_view kEndsOfWord = ",:]} \t\r\n";

}  // namespace

Span JSONScanner::value() {
  const std::size_t begin = position();
  if (peek() == '"') {
    skipText();
  } else if (peek() == '{' || peek() == '[') {
    skipNested();
  } else {
    while (at_ < text_.size() && kEndsOfWord.find(text_[at_]) == std::string_view::npos) ++at_;
  }
  return {begin, at_ - begin};
}

bool JSONScanner::startsWith(char bracket) {
  skipBlanks();
  return peek() == bracket;
}

std::size_t JSONScanner::position() {
  skipBlanks();
  return at_;
}

std::string JSONScanner::textOf(const Span& span) const {
  const auto text = parseJSON(text_.substr(span.position, span.size));
  return text ? description(*text) : std::string();
}

void JSONScanner::skipBlanks() {
  while (at_ < text_.size() && kBlanks.find(text_[at_]) != std::string_view::npos) ++at_;
}

void JSONScanner::skip(char expected) {
  skipBlanks();
  if (peek() == expected) ++at_;
}

void JSONScanner::skipText() {
  for (++at_; at_ < text_.size() && text_[at_] != '"'; ++at_) {
    if (text_[at_] == '\\') ++at_;
  }
  ++at_;
}

/// Consumes an object or list by counting brackets.
void JSONScanner::skipNested() {
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

}  // namespace kelvo::service
