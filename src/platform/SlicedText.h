#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvo {

/// A long text in slices. It grows without moving what it has. Its memory comes from the system and goes back there
/// when the text is destroyed, so a large text leaves nothing behind in the allocator.
///
/// Throws `std::bad_alloc` if the system has no memory. Not thread-safe.
class SlicedText {
 public:
  SlicedText() = default;
  SlicedText(std::string_view text) { append(text); }
  SlicedText(const char* text) : SlicedText(std::string_view(text)) {}

  void append(std::string_view text);
  /// Moves `other` to the end of this text. Copies what fits into the last slice, so that a short text has one.
  void splice(SlicedText other);

  /// Returns the number of bytes.
  [[nodiscard]] std::size_t size() const noexcept;
  [[nodiscard]] bool empty() const noexcept { return slices_.empty(); }
  /// Returns the text if it has one slice or none, else nullopt. It is valid until the text changes or dies.
  [[nodiscard]] std::optional<std::string_view> onlySlice() const noexcept;
  /// Returns a copy in one piece.
  [[nodiscard]] std::string inOnePiece() const;

  /// Reads a text from its beginning. The text must outlive the reader, and must not change.
  class Reader {
   public:
    explicit Reader(const SlicedText& text) : text_(text) {}
    /// Copies the next bytes to `to`, `most` at most. Returns their number, 0 at the end.
    std::size_t read(char* to, std::size_t most) noexcept;
    /// Goes on at `offset`. Returns false, and does nothing, beyond the end.
    [[nodiscard]] bool seek(std::uint64_t offset) noexcept;

   private:
    const SlicedText& text_;
    std::size_t slice_ = 0;
    std::size_t offset_ = 0;  // in the slice
  };

 private:
  struct Unmap {
    void operator()(char* bytes) const noexcept;
  };
  struct Slice {
    std::unique_ptr<char, Unmap> bytes;  // kSliceSize of them
    std::size_t length = 0;
  };

  static constexpr std::size_t kSliceSize = std::size_t{64} << 10;

  std::vector<Slice> slices_;  // none is empty
};

}  // namespace kelvo
