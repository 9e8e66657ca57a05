#include "journal/KLVSequenceSet.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace kelvo {
namespace {

/// Reads a number at the start of `text`, and removes it from there.
std::optional<std::uint64_t> takeNumber(std::string_view& text) {
  std::uint64_t number = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (failure != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

}  // namespace

void KLVSequenceSet::add(std::uint64_t first, std::uint64_t end) {
  if (end <= first) return;
  auto next = ranges_.upper_bound(first);
  if (next != ranges_.begin()) {
    const auto before = std::prev(next);
    if (before->second >= first) {  // they touch: the new numbers join this range
      if (before->second >= end) return;
      before->second = end;
      for (; next != ranges_.end() && next->first <= end; next = ranges_.erase(next)) {
        before->second = std::max(before->second, next->second);
      }
      return;
    }
  }
  for (; next != ranges_.end() && next->first <= end; next = ranges_.erase(next)) end = std::max(end, next->second);
  ranges_.emplace_hint(next, first, end);
}

void KLVSequenceSet::add(const KLVSequenceSet& other) {
  for (const auto& [first, end] : other.ranges_) add(first, end);
}

void KLVSequenceSet::remove(std::uint64_t first, std::uint64_t end) {
  if (end <= first) return;
  auto range = ranges_.lower_bound(first);
  if (range != ranges_.begin() && std::prev(range)->second > first) --range;
  while (range != ranges_.end() && range->first < end) {
    const auto [rangeFirst, rangeEnd] = *range;
    range = ranges_.erase(range);
    if (rangeFirst < first) ranges_.emplace(rangeFirst, first);
    if (rangeEnd > end) ranges_.emplace(end, rangeEnd);
  }
}

bool KLVSequenceSet::contains(std::uint64_t number) const noexcept {
  const auto next = ranges_.upper_bound(number);
  return next != ranges_.begin() && number < std::prev(next)->second;
}

std::uint64_t KLVSequenceSet::largest() const noexcept {
  return ranges_.empty() ? 0 : ranges_.rbegin()->second - 1;
}

std::string KLVSequenceSet::text() const {
  std::string text;
  std::uint64_t before = 0;
  for (const auto& [first, end] : ranges_) {
    if (!text.empty()) text += ' ';
    text += std::to_string(first - before);
    if (end - first > 1) text += '+' + std::to_string(end - first);
    before = end;
  }
  return text;
}

std::optional<KLVSequenceSet> KLVSequenceSet::fromText(std::string_view text) {
  KLVSequenceSet set;
  std::uint64_t before = 0;
  while (!text.empty()) {
    if (set.size() == kMostRanges) return std::nullopt;
    if (!set.empty()) {
      if (text.front() != ' ') return std::nullopt;
      text.remove_prefix(1);
    }
    const auto gap = takeNumber(text);
    std::optional<std::uint64_t> length = 1;
    if (gap && !text.empty() && text.front() == '+') {
      text.remove_prefix(1);
      length = takeNumber(text);
    }
    if (!gap || !length || *length == 0 || (*gap == 0 && !set.empty())) return std::nullopt;
    std::uint64_t first = 0;
    std::uint64_t end = 0;
    if (__builtin_add_overflow(before, *gap, &first) || __builtin_add_overflow(first, *length, &end)) {
      return std::nullopt;
    }
    set.ranges_.emplace_hint(set.ranges_.end(), first, end);
    before = end;
  }
  return set;
}

}  // namespace kelvo
