#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace kelvo {

/// Splits a JSON text into its members without building values. It takes only a text that the library's own writer
/// makes: `jsonText(*parseJSON(text)) == text`. The parts of such a text can be copied into another one as they are.
///
/// It keeps its memory from one text to the next. Not thread-safe.
class WrittenJSON {
 public:
  /// The key as it is written, with its escapes and without its quotes, and the JSON text of its value.
  struct Member {
    std::string_view key;
    std::string_view value;
  };

  /// Reads the text of a dictionary that nests at most `deepest` levels, itself included. Returns false for any other
  /// text, JSON or not, and for one with more than 64 keys in one dictionary: `parseJSON` decides then.
  [[nodiscard]] bool read(std::string_view text, std::size_t deepest);
  /// Returns the members of the text that was read. They point into it.
  [[nodiscard]] const std::vector<Member>& members() const noexcept { return members_; }

 private:
  // Each reads one part of the text, and returns false if the writer would not write it so. Depths begin at 1.
  [[nodiscard]] bool value(std::size_t depth);
  [[nodiscard]] bool dictionary(std::size_t depth);
  [[nodiscard]] bool member(std::size_t depth, std::size_t firstKey);
  [[nodiscard]] bool array(std::size_t depth);
  [[nodiscard]] bool text();
  [[nodiscard]] bool escape();
  [[nodiscard]] bool multibyte();
  [[nodiscard]] bool number();
  [[nodiscard]] bool takeWord(std::string_view word);
  [[nodiscard]] bool take(char c) noexcept { return at_ != end_ && *at_ == c ? (++at_, true) : false; }
  /// Returns the next character, NUL at the end.
  [[nodiscard]] char next() const noexcept { return at_ == end_ ? '\0' : *at_; }

  const char* at_ = nullptr;
  const char* end_ = nullptr;
  std::size_t deepest_ = 0;
  std::vector<Member> members_;
  std::vector<std::string_view> keys_;  // of the dictionaries that are open
};

}  // namespace kelvo
