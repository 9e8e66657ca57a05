#include "upload/KLVChunkManager.h"

#include <algorithm>
#include <utility>

#include "records/KLVEvents.h"
#include "util/KLVLogger.h"
#include "util/KLVServicePaths.h"
#include "util/KLVTimer.h"

namespace kelvo {
namespace {

constexpr double kDefaultIntervalSeconds = 30;
constexpr std::uint64_t kRowsAtATime = 1000;
/// One body for each connection that the HTTP client opens to a host, and two so that none of them runs dry.
constexpr std::size_t kBodiesAtATime = 8;

KLVChunkRow rowOf(const KLVChunkMetaInfo& meta) {
  const Dictionary info = meta.additionalInfo();
  const auto* sid = info["sid"].get<std::string>();
  return {meta.identifier(),      sid != nullptr ? *sid : std::string(),
          info["cid"].asUInt64(), info["start"].asUInt64(),
          info["end"].asUInt64(), info["status"].asBool()};
}

/// An entry whose record is missing is left out of the body.
template <class Record>
void setForm(Dictionary& body, std::string_view key, const std::shared_ptr<Record>& record) {
  if (record != nullptr) body.set(key, record->jsonDictModified());
}

}  // namespace

std::shared_ptr<KLVChunkManager> KLVChunkManager::initWithConfiguration(const std::optional<Dictionary>& configuration,
                                                                        KLVChunkManagerDelegate& delegate) {
  KLV_DEBUG("Init chunk manager with config: {}", configuration);
  auto manager = std::make_shared<KLVChunkManager>(delegate);
  const double interval = configuration ? (*configuration)["max_fg_chunk_send_time"].asDouble() : 0;
  manager->registerForChunkCreationWithInterval(interval == 0 ? kDefaultIntervalSeconds : interval);
  return manager;
}

KLVChunkManager::KLVChunkManager(KLVChunkManagerDelegate& delegate)
    : delegate_(delegate), currentSessionIdentifier_(delegate.session() ? delegate.session()->identifier() : "") {}

void KLVChunkManager::registerForChunkCreationWithInterval(double seconds) {
  delegate_.registerIdentifer(identifierKey(KLVEventType::app, kKLVAppOpened), shared_from_this());
  delegate_.registerIdentifer(identifierKey(KLVEventType::system, kKLVBackground), shared_from_this());
  KLVTimer::sharedTimer().registerForTimerNotificationWithInterval(seconds, [weak = weak_from_this()] {
    if (const auto manager = weak.lock()) manager->sendCurrentChunk();
  });
}

void KLVChunkManager::onEvent(const std::shared_ptr<KLVEvent>& event) {
  if (event->eventType() == KLVEventType::app && event->identifier() == kKLVAppOpened) {
    flushPreviousChunks();
  } else if (event->eventType() == KLVEventType::system && event->identifier() == kKLVBackground) {
    sendCurrentChunk();
  }
}

void KLVChunkManager::sendCurrentChunk() {
  queue_.async([self = shared_from_this()] { self->cutCurrentSession(); });
}

void KLVChunkManager::flushPreviousChunks() {
  queue_.async([self = shared_from_this()] { self->flush(); });
}

void KLVChunkManager::cutCurrentSession() {
  delegate_.dispatchEvent(std::make_shared<KLVChunkEvent>());
  delegate_.waitUntilDelivered();  // the session has saved itself, so the chunk carries its latest duration
  const std::uint64_t last = delegate_.numberOfEventsWithIdentifier(currentSessionIdentifier_);
  sendChunk(currentSessionIdentifier_, currentChunkIndex_, currentEventIndex_, last, true);
}

void KLVChunkManager::flush() {
  std::vector<KLVChunkRow> rows;
  for (const auto& meta : delegate_.retrieveChunkMetaInfo()) rows.push_back(rowOf(*meta));
  const auto cuts = cutsOfEarlierSessions(rows, delegate_.getSessions(), currentSessionIdentifier_);
  if (!cuts) return;
  for (const KLVChunkCut& cut : *cuts) {
    const std::uint64_t last = delegate_.numberOfEventsWithIdentifier(cut.sid);
    const bool nothingBehindLastChunk = cut.start > 1 && last < cut.start;
    if (!nothingBehindLastChunk) sendChunk(cut.sid, cut.cid, cut.start, last, true);
  }
  checkChunkStatusAndCleanTables(rows);
}

void KLVChunkManager::checkChunkStatusAndCleanTables(const std::vector<KLVChunkRow>& rows) {
  // In line behind the cuts, whose events are read by then; before the chunks that are sent again, which are of other
  // sessions and may take as long as the service likes.
  for (const std::string& sid : deliveredSessions(rows)) {
    inLine([this, sid] { purge(sid); });
  }
  for (const KLVChunkRow& row : rows) {
    if (row.sent) continue;
    inLine([this, row] { sendChunk(row.sid, row.cid, row.start, row.end, false); });
  }
}

void KLVChunkManager::purge(const std::string& sid) {
  delegate_.writeTogether([&] {
    delegate_.deleteSession(sid);
    delegate_.deleteItemAtPath(sid);
    delegate_.deleteChunkMetaInfo(std::make_shared<KLVChunk>(sid));
    delegate_.deleteAggregateEventsWithSessionId(sid);
  });
}

void KLVChunkManager::updateCurrentIndicies(std::uint64_t end) {
  currentEventIndex_ = end + 1;
  currentChunkIndex_ += 1;
}

void KLVChunkManager::sendChunk(const std::optional<std::string>& sid, std::uint64_t cid, std::uint64_t start,
                                std::uint64_t end, bool shouldCreateNewEntryInMetaTable) {
  if (!sid) {
    KLV_WARN("session identifier shouldn't be nil");
    return;
  }
  if (end < start) {
    KLV_WARN("illegal arguments (end < start)");
    return;
  }
  if (!hasEvents(*sid, start, end)) {
    KLV_INFO("No events to send, wait for next turn");
    return;
  }
  const Array reportingTimes{KLVTimer::sharedTimer().currentTimeInMillis()};
  const KLVChunkRow chunk{KLVChunk::CMID(*sid, cid), *sid, cid, start, end, false};
  recordMeta(chunk, reportingTimes, shouldCreateNewEntryInMetaTable);
  if (!shouldCreateNewEntryInMetaTable) return buildAndPost(chunk, reportingTimes);  // it was in line already
  inLine([this, chunk, reportingTimes] { buildAndPost(chunk, reportingTimes); });
}

void KLVChunkManager::buildAndPost(const KLVChunkRow& row, const Array& reportingTimes) {
  KLVChunk chunk(row.cid, row.sid);
  chunk.setInfo(reportingTimes, "reporting_times");
  const KLVChunkDetails details = readEvents(row.sid, row.start, row.end);
  // This read waits for the writes before it: the meta row is in the database before the body leaves the process.
  const Array aggregateEvents = delegate_.retrieveAggregateEventsWithSessionIdentifier(row.sid);
  const auto user = delegate_.user();
  const auto currentSession = delegate_.session();
  Dictionary body;
  setForm(body, "sdk_info", delegate_.sdkInfo());
  setForm(body, "session_info", delegate_.retrieveSessionInfoWithIdentifier(row.sid));
  setForm(body, "app_info", delegate_.appInfo());
  setForm(body, "device_info", delegate_.deviceInfo());
  body.set("chunk_meta", chunk.jsonDictModified());
  body.set("chunk_details",
           details.constructChunkDetails(user ? user->userAttributes() : Dictionary(),
                                         currentSession ? currentSession->sessionAttributes() : Dictionary(),
                                         chunk.chunkAttributes(), aggregateEvents));
  postChunk(body, chunk.identifier());
}

/// In slices, so that the stored rows of a long range never stand in memory all at once.
KLVChunkDetails KLVChunkManager::readEvents(const std::string& sid, std::uint64_t start, std::uint64_t end) {
  KLVChunkDetails details;
  for (std::uint64_t first = start; first <= end; first += kRowsAtATime) {
    auto rows = delegate_.getEventsBetween(first, std::min(end, first + kRowsAtATime - 1), sid, KLVEventType::system);
    if (rows.empty()) break;
    details.addEvents(std::move(rows));
  }
  return details;
}

bool KLVChunkManager::hasEvents(const std::string& sid, std::uint64_t start, std::uint64_t end) {
  const auto any = [&](std::uint64_t last) {
    return !delegate_.getEventsBetween(start, last, sid, KLVEventType::system).empty();
  };
  return any(start) || any(std::min(end, start + kRowsAtATime - 1));
}

void KLVChunkManager::recordMeta(const KLVChunkRow& chunk, const Array& reportingTimes,
                                 bool shouldCreateNewEntryInMetaTable) {
  const auto meta = std::make_shared<KLVChunkMetaInfo>(chunk.sid, chunk.cid, chunk.start, chunk.end, reportingTimes);
  const bool isCurrent = chunk.sid == currentSessionIdentifier_;
  // Kept: the indices advance before the upload is known to succeed; a failed chunk is sent again from its row.
  if (isCurrent) updateCurrentIndicies(chunk.end);
  if (isCurrent || shouldCreateNewEntryInMetaTable) {
    delegate_.saveChunkMetaInfo(meta);
  } else {
    delegate_.updateChunkMetaInfo(meta);
  }
}

void KLVChunkManager::postChunk(const Dictionary& body, const std::string& chunkId) {
  const auto completion = [this, chunkId, place = takePlace()](const auto&, const auto& response, const auto& error) {
    const long statusCode = response ? response->statusCode : 0;
    if (error || statusCode != 200) {
      KLV_WARN("failed to send chunk - {}, responsecode - {}", chunkId, statusCode);
      return;
    }
    delegate_.updateChunkMetaStatus(std::make_shared<KLVChunk>(chunkId));
    KLV_DEBUG("Successfully sent chunk - {}, responsecode - {}", chunkId, statusCode);
  };
  delegate_.postDataToURL(byReplacing(kKLVSDKChunkURL, "<app-id>", delegate_.applicationIdentifier()), body,
                          std::nullopt, completion);
}

// --- The line

void KLVChunkManager::whenPosted(std::function<void()> done) {
  queue_.async([self = shared_from_this(), done = std::move(done)]() mutable { self->inLine(std::move(done)); });
}

void KLVChunkManager::inLine(Task task) {
  line_.push_back(std::move(task));
  serveLine();
}

void KLVChunkManager::serveLine() {
  while (!line_.empty() && placesTaken_ < kBodiesAtATime) {
    const Task next = std::move(line_.front());
    line_.pop_front();
    next();
  }
}

KLVChunkManager::Place KLVChunkManager::takePlace() {
  ++placesTaken_;
  return Place(nullptr, [weak = weak_from_this()](void*) {
    const auto self = weak.lock();
    if (self == nullptr) return;
    self->queue_.async([self] {
      --self->placesTaken_;
      self->serveLine();
    });
  });
}

}  // namespace kelvo
