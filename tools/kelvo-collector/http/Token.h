#pragma once

#include <string>

namespace kelvo::collector {

/// The token of a private collector: 128 random bits in hexadecimal, and a file of mode 0600 that holds it.
class Token {
 public:
  /// Makes a token and writes it to `file`. Replaces an earlier file of this user. Throws std::runtime_error on
  /// failure, and if another user has a file or a link in its place.
  explicit Token(std::string file);
  /// Deletes the file.
  ~Token();
  Token(const Token&) = delete;
  Token& operator=(const Token&) = delete;

  [[nodiscard]] const std::string& text() const noexcept { return text_; }
  [[nodiscard]] const std::string& file() const noexcept { return file_; }

 private:
  std::string file_;
  std::string text_;
};

}  // namespace kelvo::collector
