#include "upload/KLVChunkRanges.h"

namespace kelvo {

void KLVChunkRanges::addEvent(std::uint64_t index, std::size_t text) {
  const bool fits = !ranges_.empty() && ranges_.back().end + 1 == index && index - ranges_.back().start < mostEvents_ &&
                    text <= mostText_ && text_ <= mostText_ - text;
  if (!fits) {
    ranges_.push_back({index, index});
    text_ = text;
    return;
  }
  ranges_.back().end = index;
  text_ += text;
}

}  // namespace kelvo
