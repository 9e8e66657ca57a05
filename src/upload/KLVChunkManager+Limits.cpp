#include <algorithm>
#include <functional>
#include <iterator>
#include <limits>
#include <tuple>

#include "platform/Clock.h"
#include "records/KLVChunk.h"
#include "upload/KLVChunkManager.h"
#include "upload/KLVStoredEvents.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVHostLimits.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

using Sessions = std::vector<KLVEarlierSession>;

constexpr std::chrono::hours kBetweenChecksOfAge(1);

// The size is checked at each cut, and each time that this part of the limit was stored, within these bounds in bytes.
constexpr std::uint64_t kPartOfLimit = 32;
constexpr std::uint64_t kLeastGrowth = std::uint64_t{16} << 10;
constexpr std::uint64_t kMostGrowth = std::uint64_t{1} << 20;

std::shared_ptr<KLVChunkMetaInfo> metaOf(const KLVChunkRow& row) {
  return std::make_shared<KLVChunkMetaInfo>(row.sid, row.cid, row.start, row.end, Array());
}

bool hasNoEvents(const KLVChunkRow& chunk) {
  return chunk.end < chunk.start;
}

}  // namespace

void KLVChunkManager::watchGrowth() {
  const auto limit = *KLVHostLimits::current().mostStoredBytes;
  if (limit == 0) return;
  delegate_.whenGrown(std::clamp(limit / kPartOfLimit, kLeastGrowth, kMostGrowth), [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->checkLimits();
  });
}

void KLVChunkManager::checkLimits() {
  perform([this] {
    queue_.assertCurrent();
    enforceLimits();
  });
}

void KLVChunkManager::enforceLimits() {
  const auto limits = KLVHostLimits::current();
  const Date now = Clock::now();
  // The clock may also be set back.
  if (limits.mostStoredDays > 0 && (!ageChecked_ || std::chrono::abs(now - *ageChecked_) >= kBetweenChecksOfAge)) {
    ageChecked_ = now;
    enforceAge(std::chrono::days(limits.mostStoredDays));
  }
  if (*limits.mostStoredBytes > 0) enforceSpace(*limits.mostStoredBytes);
}

void KLVChunkManager::enforceSpace(std::uint64_t limit) {
  const auto excess = [&] {
    const auto bytes = delegate_.storedBytes(limit);
    return bytes && *bytes > limit ? *bytes - limit : 0;
  };
  // The newest chunk stays, so that something arrives even if the limit is too small.
  const auto evictable = [&] {
    queue_.assertCurrent();
    auto chunks = evictableChunks();
    std::erase_if(chunks, [&](const auto& chunk) {
      queue_.assertCurrent();
      return chunk.sid == currentSessionIdentifier_ && (hasNoEvents(chunk) || chunk.cid + 1 == current_.nextChunk);
    });
    return chunks;
  };
  if (excess() == 0) return;
  delegate_.deleteSettledData(excess());
  evict(evictable(), excess, KLVLedgerEntry::evictedForSpace);
  if (excess() > 0) {
    const auto held = sender_.hold();
    cutTails([](const auto&) { return true; });
    static_cast<void>(cutCurrentSession());
    evict(evictable(), excess, KLVLedgerEntry::evictedForSpace);
    isBeyondLimit_ = excess() > 0;
  }
  delegate_.tidy(false);
}

void KLVChunkManager::enforceAge(std::chrono::hours limit) {
  const Date oldest = Clock::now() - limit;
  const auto isOld = [&](const auto& chunk) {
    queue_.assertCurrent();
    return isOlder(chunk, oldest);
  };
  cutTails(isOld);
  auto chunks = evictableChunks();
  std::erase_if(chunks, std::not_fn(isOld));
  evict(
      std::move(chunks), [] { return std::numeric_limits<std::uint64_t>::max(); }, KLVLedgerEntry::evictedForAge);
}

/// Whether the newest event of the chunk is older. If it has none, the launch of its session decides.
bool KLVChunkManager::isOlder(const KLVChunkRow& chunk, Date limit) {
  const Date launch(std::chrono::milliseconds(Value(chunk.sid).asInt64()));
  if (launch >= limit) return false;
  if (const auto time = delegate_.timeOfEvent(chunk.sid, chunk.end); time && !hasNoEvents(chunk)) return *time < limit;
  return chunk.sid != currentSessionIdentifier_;
}

std::vector<KLVChunkRow> KLVChunkManager::evictableChunks() {
  std::vector<KLVChunkRow> chunks;
  for (const KLVChunkRow& row : storedChunks(delegate_).value_or(std::vector<KLVChunkRow>())) {
    if (!row.sent && !sender_.isInFlight(row)) chunks.push_back(row);
  }
  const auto place = [&](const KLVChunkRow& row) {
    queue_.assertCurrent();
    return std::tuple(row.sid == currentSessionIdentifier_, row.sid, row.cid);
  };
  std::sort(chunks.begin(), chunks.end(), [&](const auto& a, const auto& b) { return place(a) < place(b); });
  return chunks;
}

void KLVChunkManager::cutTails(const std::function<bool(const KLVChunkRow& tail)>& selects) {
  if (KLVDeliveryRules::current().cutsEveryEarlierSession) return;
  for (const KLVEarlierSession& session : readEarlierSessions().value_or(Sessions())) {
    const auto last = delegate_.numberOfEventsWithIdentifier(session.sid);
    Progress progress{session.nextChunk(), session.nextEvent()};
    if (!last || *last < progress.nextEvent) continue;
    if (selects({session.sid, progress.nextChunk, progress.nextEvent, *last})) {
      static_cast<void>(cutToEnd(session.sid, progress));
    }
  }
}

void KLVChunkManager::evict(std::vector<KLVChunkRow> chunks, const std::function<std::uint64_t()>& excess,
                            KLVLedgerEntry why) {
  KLVEviction all;
  std::vector<KLVChunkRow> gone;
  while (!chunks.empty()) {
    const auto bytes = excess();
    if (bytes == 0) break;
    std::vector<std::shared_ptr<KLVChunkMetaInfo>> metas;
    std::transform(chunks.begin(), chunks.end(), std::back_inserter(metas), metaOf);
    const KLVEviction evicted = delegate_.evictChunks(metas, bytes, why);
    if (evicted.chunks == 0) break;
    all.events += evicted.events;
    all.chunks += evicted.chunks;
    const auto end = chunks.begin() + static_cast<std::ptrdiff_t>(evicted.chunks);
    gone.insert(gone.end(), chunks.begin(), end);
    chunks.erase(chunks.begin(), end);
  }
  if (gone.empty()) return;
  KLV_WARN(
      "{} events of {} chunks are deleted before the service has accepted them: {}", all.events, all.chunks,
      why == KLVLedgerEntry::evictedForAge ? "they are beyond the age of stored data" : "the data is beyond its limit");
  for (const KLVChunkRow& chunk : gone) {
    sender_.forget(chunk);
    onSettled(chunk);
  }
  if (KLVDeliveryRules::current().cutsEveryEarlierSession) return;
  for (const KLVEarlierSession& session : readEarlierSessions().value_or(Sessions())) purgeIfSettled(session);
}

}  // namespace kelvo
