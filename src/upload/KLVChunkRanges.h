#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kelvo {

/// Divides the events of a cut into the ranges of its chunks. A range has no gap: events that were deleted belong to no
/// chunk, because a chunk is posted only with every event of its row. Not thread-safe.
class KLVChunkRanges {
 public:
  struct Range {
    std::uint64_t start = 0;
    std::uint64_t end = 0;  ///< included
    friend bool operator==(const Range&, const Range&) = default;
  };

  /// A range has at most `mostEvents` events and about `mostText` bytes of their stored text, but at least one event.
  KLVChunkRanges(std::uint64_t mostEvents, std::size_t mostText) : mostEvents_(mostEvents), mostText_(mostText) {}

  /// Adds the event number `index`, which has `text` bytes. The indices ascend.
  void addEvent(std::uint64_t index, std::size_t text);
  [[nodiscard]] const std::vector<Range>& ranges() const noexcept { return ranges_; }

 private:
  const std::uint64_t mostEvents_;
  const std::size_t mostText_;
  std::vector<Range> ranges_;
  std::size_t text_ = 0;  // of the last range
};

}  // namespace kelvo
