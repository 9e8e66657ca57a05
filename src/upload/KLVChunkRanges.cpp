#include "upload/KLVChunkRanges.h"

#include <string>

#include "records/KLVRecordKeys.h"

namespace kelvo {
namespace {

std::size_t lengthOf(const Value& value) {
  const auto* text = value.get<std::string>();
  return text != nullptr ? text->size() : 0;
}

}  // namespace

void KLVChunkRanges::addRows(const std::vector<Dictionary>& rows) {
  for (const Dictionary& row : rows) {
    addEvent(row[kKLVEventIndex].asUInt64(), lengthOf(row[kKLVId]) + lengthOf(row[kKLVAdditionalInfo]));
  }
}

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
