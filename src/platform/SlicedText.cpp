#include "platform/SlicedText.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace kelvo {

void SlicedText::Unmap::operator()(char* bytes) const noexcept {
  ::munmap(bytes, kSliceSize);
}

void SlicedText::append(std::string_view text) {
  while (!text.empty()) {
    if (slices_.empty() || slices_.back().length == kSliceSize) {
      void* const bytes = ::mmap(nullptr, kSliceSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (bytes == MAP_FAILED) throw std::bad_alloc();
      std::unique_ptr<char, Unmap> owned(static_cast<char*>(bytes));
      slices_.push_back({std::move(owned), 0});
    }
    Slice& last = slices_.back();
    const std::size_t count = std::min(text.size(), kSliceSize - last.length);
    std::memcpy(last.bytes.get() + last.length, text.data(), count);
    last.length += count;
    text.remove_prefix(count);
  }
}

void SlicedText::splice(SlicedText other) {
  for (Slice& slice : other.slices_) {
    if (!slices_.empty() && slice.length <= kSliceSize - slices_.back().length) {
      append({slice.bytes.get(), slice.length});
    } else {
      slices_.push_back(std::move(slice));
    }
  }
}

std::optional<std::string_view> SlicedText::onlySlice() const noexcept {
  if (slices_.empty()) return "";
  if (slices_.size() > 1) return std::nullopt;
  return std::string_view(slices_.front().bytes.get(), slices_.front().length);
}

std::size_t SlicedText::size() const noexcept {
  std::size_t bytes = 0;
  for (const Slice& slice : slices_) bytes += slice.length;
  return bytes;
}

std::string SlicedText::inOnePiece() const {
  std::string text;
  text.reserve(size());
  for (const Slice& slice : slices_) text.append(slice.bytes.get(), slice.length);
  return text;
}

std::size_t SlicedText::Reader::read(char* to, std::size_t most) noexcept {
  std::size_t done = 0;
  while (done < most && slice_ < text_.slices_.size()) {
    const Slice& slice = text_.slices_[slice_];
    const std::size_t count = std::min(most - done, slice.length - offset_);
    std::memcpy(to + done, slice.bytes.get() + offset_, count);
    done += count;
    offset_ += count;
    if (offset_ < slice.length) break;
    ++slice_;
    offset_ = 0;
  }
  return done;
}

bool SlicedText::Reader::seek(std::uint64_t offset) noexcept {
  if (offset > text_.size()) return false;
  slice_ = 0;
  while (slice_ < text_.slices_.size() && offset >= text_.slices_[slice_].length) {
    offset -= text_.slices_[slice_++].length;
  }
  offset_ = offset;
  return true;
}

}  // namespace kelvo
