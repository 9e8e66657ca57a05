#include "upload/KLVStoredEvents.h"

#include <utility>

#include "records/KLVRecordKeys.h"

namespace kelvo {
namespace {

constexpr std::uint64_t kEventsPerRead = 1000;
/// Kept: as a filter of a read, this type means every type.
constexpr KLVEventType kEveryType = KLVEventType::system;

}  // namespace

bool readStoredEvents(KLVChunkManagerDelegate& delegate, const std::string& sid, std::uint64_t first,
                      std::uint64_t last, const std::function<bool(std::vector<Dictionary>)>& take) {
  std::uint64_t width = kEventsPerRead;
  while (first <= last) {
    const std::uint64_t end = last - first < width ? last : first + width - 1;
    auto rows = delegate.getEventsBetween(first, end, sid, kEveryType);
    if (!rows) return false;
    // A gap costs few reads, however wide it is.
    width = rows->empty() ? width * 2 : kEventsPerRead;
    if (!rows->empty() && !take(std::move(*rows))) return true;
    if (end == last) break;
    first = end + 1;
  }
  return true;
}

std::vector<KLVChunkRow> storedChunks(KLVChunkManagerDelegate& delegate) {
  std::vector<KLVChunkRow> rows;
  for (const auto& meta : delegate.retrieveChunkMetaInfo()) {
    const Dictionary info = meta->additionalInfo();
    rows.push_back({info[kKLVChunkSid].asText().value_or(""), info[kKLVChunkCid].asUInt64(),
                    info[kKLVChunkStart].asUInt64(), info[kKLVChunkEnd].asUInt64(), info[kKLVChunkStatus].asBool()});
  }
  return rows;
}

std::optional<bool> hasEventsFrom(KLVChunkManagerDelegate& delegate, const std::string& sid, std::uint64_t first) {
  const auto last = delegate.numberOfEventsWithIdentifier(sid);
  if (!last) return std::nullopt;
  bool found = false;
  const bool read = readStoredEvents(delegate, sid, first, *last, [&](const auto&) {
    found = true;
    return false;
  });
  return read ? std::optional(found) : std::nullopt;
}

}  // namespace kelvo
