#include "records/KLVChunk.h"
#include "upload/KLVChunkBody.h"
#include "upload/KLVChunkManager.h"
#include "upload/KLVStoredEvents.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVLogger.h"
#include "util/KLVTimer.h"

namespace kelvo {

KLVChunkManager::Cut KLVChunkManager::cutToEnd(const std::string& sid, Progress& progress) {
  const auto last = delegate_.numberOfEventsWithIdentifier(sid);
  if (!last) return Cut::failed;
  const bool hasNewEvents = *last >= progress.nextEvent;
  if (hasNewEvents) {
    const auto& rules = KLVDeliveryRules::current();
    KLVChunkRanges ranges(rules.mostEventsInAChunk, rules.mostTextInAChunk);
    const auto add = [&](const KLVStoredEvent& event) { ranges.addEvent(event.index, event.text()); };
    if (!readStoredEvents(delegate_, sid, progress.nextEvent, *last, add)) return Cut::failed;
    for (const auto& range : ranges.ranges()) {
      if (!cutChunk(sid, progress, range)) return Cut::failed;
    }
    if (!ranges.ranges().empty()) return Cut::made;
  }
  const Cut cut = cutAggregates(sid, progress);
  if (cut != Cut::nothing) return cut;
  if (hasNewEvents) {
    KLV_INFO("No events to send, wait for next turn");
  } else if (sid == currentSessionIdentifier_) {
    KLV_WARN("illegal arguments (end < start)");
  }
  return Cut::nothing;
}

KLVChunkManager::Cut KLVChunkManager::cutAggregates(const std::string& sid, Progress& progress) {
  // The body of an unaccepted chunk gets the latest counts when it is posted.
  if (!KLVDeliveryRules::current().sendsAggregateTails || progress.unaccepted > 0) return Cut::nothing;
  const auto totals = delegate_.aggregateTotals(sid);
  if (!totals) return Cut::failed;
  if (totals->counted <= totals->delivered) return Cut::nothing;
  return cutChunk(sid, progress, {progress.nextEvent, progress.nextEvent - 1}) ? Cut::made : Cut::failed;
}

bool KLVChunkManager::cutChunk(const std::string& sid, Progress& progress, const KLVChunkRanges::Range& range) {
  const KLVChunkRow row{sid, progress.nextChunk, range.start, range.end, false};
  const Array reportingTimes{KLVTimer::sharedTimer().currentTimeInMillis()};
  const auto meta = std::make_shared<KLVChunkMetaInfo>(sid, row.cid, row.start, row.end, reportingTimes);
  std::optional<Dictionary> records;
  const auto device = delegate_.deviceInfo();
  const auto token = device != nullptr ? device->tokenCall() : KLVWaitingCall();
  if (KLVDeliveryRules::current().keepsRecordsOfTheCut) records = recordsOfTheCut(delegate_);
  if (!delegate_.saveChunkMetaInfo(meta, records)) {
    KLV_WARN("failed to store the row of chunk - {}, it is not sent", meta->identifier());
    return false;
  }
  if (records) token.finish();
  // Kept: the indices advance before the service accepts the chunk. An unaccepted chunk is resent from its row.
  progress.nextChunk += 1;
  progress.nextEvent = range.end + 1;
  progress.unaccepted += 1;
  sender_.sendNew(row, reportingTimes);
  return true;
}

}  // namespace kelvo
