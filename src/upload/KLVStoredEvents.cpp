#include "upload/KLVStoredEvents.h"

#include <limits>

#include "records/KLVRecordKeys.h"

namespace kelvo {
namespace {

constexpr std::uint64_t kEventsPerRead = 1000;

}  // namespace

bool readStoredEvents(KLVChunkManagerDelegate& delegate, const std::string& sid, std::uint64_t first,
                      std::uint64_t last, const std::function<void(const KLVStoredEvent&)>& take) {
  while (first <= last) {
    const auto count = delegate.readEvents(sid, first, last, kEventsPerRead, [&](const KLVStoredEvent& event) {
      take(event);
      first = event.index + 1;
    });
    if (!count) return false;
    if (*count < kEventsPerRead) break;
  }
  return true;
}

std::optional<std::vector<KLVChunkRow>> storedChunks(KLVChunkManagerDelegate& delegate) {
  const auto metas = delegate.retrieveChunkMetaInfo();
  if (!metas) return std::nullopt;
  std::vector<KLVChunkRow> rows;
  for (const auto& meta : *metas) {
    const Dictionary info = meta->additionalInfo();
    rows.push_back({info[kKLVChunkSid].asText().value_or(""), info[kKLVChunkCid].asUInt64(),
                    info[kKLVChunkStart].asUInt64(), info[kKLVChunkEnd].asUInt64(), info[kKLVChunkStatus].asBool()});
  }
  return rows;
}

std::optional<bool> hasEventsFrom(KLVChunkManagerDelegate& delegate, const std::string& sid, std::uint64_t first) {
  constexpr auto kLast = std::numeric_limits<std::int64_t>::max();
  const auto count = delegate.readEvents(sid, first, kLast, 1, [](const auto&) {});
  return count ? std::optional(*count > 0) : std::nullopt;
}

}  // namespace kelvo
