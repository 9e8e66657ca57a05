#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kelvo {

/// A set of sequence numbers, such as those of the calls whose effects the database has. It is small if most numbers
/// below some number are in it: it keeps ranges. Not thread-safe.
class KLVSequenceSet {
 public:
  /// The most ranges that `fromText` accepts.
  static constexpr std::size_t kMostRanges = std::size_t{1} << 20;

  /// Adds all numbers from `first` to `end` - 1; none if `end` is not above `first`. Costs next to nothing if the
  /// numbers come in nearly ascending order.
  void add(std::uint64_t first, std::uint64_t end);
  void add(std::uint64_t number) { add(number, number + 1); }
  /// Adds all numbers of `other`.
  void add(const KLVSequenceSet& other);
  /// Removes the numbers from `first` to `end` - 1.
  void remove(std::uint64_t first, std::uint64_t end);

  [[nodiscard]] bool contains(std::uint64_t number) const noexcept;
  [[nodiscard]] bool empty() const noexcept { return ranges_.empty(); }
  /// Returns the number of ranges.
  [[nodiscard]] std::size_t size() const noexcept { return ranges_.size(); }
  /// Returns the largest number, 0 if the set is empty.
  [[nodiscard]] std::uint64_t largest() const noexcept;

  /// Returns the set as text for a column of the database: "1+4710 9 10+4" are 1 to 4710, 4720, and 4731 to 4734. Each
  /// range is the distance from the end of the range before and, unless it is 1, the number of its members. The empty
  /// set is the empty text.
  [[nodiscard]] std::string text() const;
  /// Reads such a text. Returns nullopt if it is none, or if it has more than `kMostRanges` ranges.
  [[nodiscard]] static std::optional<KLVSequenceSet> fromText(std::string_view text);

  friend bool operator==(const KLVSequenceSet& left, const KLVSequenceSet& right) = default;

 private:
  std::map<std::uint64_t, std::uint64_t> ranges_;  ///< from the first number to the end; they never touch
};

}  // namespace kelvo
