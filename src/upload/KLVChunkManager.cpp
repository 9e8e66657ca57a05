#include "upload/KLVChunkManager.h"

#include <algorithm>
#include <utility>

#include "records/KLVEvents.h"
#include "records/KLVRecordKeys.h"
#include "util/KLVLogger.h"
#include "util/KLVServicePaths.h"
#include "util/KLVTimer.h"

namespace kelvo {
namespace {

constexpr double kDefaultIntervalSeconds = 30;
constexpr std::uint64_t kEventsPerRead = 1000;
/// One body for each connection that the HTTP client opens to a host, and two so that no connection is ever idle.
constexpr std::size_t kMaxBodies = 8;
constexpr long kAcceptedStatus = 200;
/// Kept: as a filter of a read, this type means every type.
constexpr KLVEventType kEveryType = KLVEventType::system;

KLVChunkRow rowOf(const KLVChunkMetaInfo& meta) {
  const Dictionary info = meta.additionalInfo();
  return {info[kKLVChunkSid].asText().value_or(""), info[kKLVChunkCid].asUInt64(), info[kKLVChunkStart].asUInt64(),
          info[kKLVChunkEnd].asUInt64(), info[kKLVChunkStatus].asBool()};
}

/// Leaves the section out of the body if its record is missing.
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
  queue_.async([self = shared_from_this()] {
    self->queue_.assertCurrent();
    self->cutCurrentSession();
  });
}

void KLVChunkManager::flushPreviousChunks() {
  queue_.async([self = shared_from_this()] {
    self->queue_.assertCurrent();
    self->flush();
  });
}

void KLVChunkManager::cutCurrentSession() {
  delegate_.dispatchEvent(std::make_shared<KLVChunkEvent>());
  delegate_.waitUntilDelivered();  // then the session has saved itself, and the chunk carries its latest duration
  const std::uint64_t last = delegate_.numberOfEventsWithIdentifier(currentSessionIdentifier_);
  sendNewChunk({currentSessionIdentifier_, currentChunkIndex_, currentEventIndex_, last});
}

void KLVChunkManager::flush() {
  std::vector<KLVChunkRow> rows;
  for (const auto& meta : delegate_.retrieveChunkMetaInfo()) rows.push_back(rowOf(*meta));
  const auto cuts = cutsOfEarlierSessions(rows, delegate_.getSessions(), currentSessionIdentifier_);
  if (!cuts) return;
  for (const KLVChunkCut& cut : *cuts) {
    const std::uint64_t last = delegate_.numberOfEventsWithIdentifier(cut.sid);
    const bool nothingLeft = cut.hasEarlierChunk && last < cut.start;
    if (!nothingLeft) sendNewChunk({cut.sid, cut.cid, cut.start, last});
  }
  checkChunkStatusAndCleanTables(rows);
}

void KLVChunkManager::checkChunkStatusAndCleanTables(const std::vector<KLVChunkRow>& rows) {
  // The order matters. A cut must read its events before a purge deletes them. A purge must not wait for the chunks to
  // resend, which belong to other sessions and may take as long as the service likes.
  for (const std::string& sid : deliveredSessions(rows)) {
    enqueue([this, sid] { purge(sid); });
  }
  for (const KLVChunkRow& row : rows) {
    if (row.sent) continue;
    enqueue([this, row] {
      queue_.assertCurrent();
      resendChunk(row);
    });
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

void KLVChunkManager::sendNewChunk(const KLVChunkRow& chunk) {
  const auto reportingTimes = recordChunk(chunk, RowChange::create);
  if (!reportingTimes) return;
  enqueue([this, chunk, times = *reportingTimes] {
    queue_.assertCurrent();
    buildAndPost(chunk, times);
  });
}

void KLVChunkManager::resendChunk(const KLVChunkRow& chunk) {
  if (const auto reportingTimes = recordChunk(chunk, RowChange::update)) buildAndPost(chunk, *reportingTimes);
}

std::optional<Array> KLVChunkManager::recordChunk(const KLVChunkRow& chunk, RowChange change) {
  if (chunk.end < chunk.start) {
    KLV_WARN("illegal arguments (end < start)");
    return std::nullopt;
  }
  if (!hasEvents(chunk.sid, chunk.start, chunk.end)) {
    KLV_INFO("No events to send, wait for next turn");
    return std::nullopt;
  }
  const Array reportingTimes{KLVTimer::sharedTimer().currentTimeInMillis()};
  const auto meta = std::make_shared<KLVChunkMetaInfo>(chunk.sid, chunk.cid, chunk.start, chunk.end, reportingTimes);
  const bool isCurrent = chunk.sid == currentSessionIdentifier_;
  // Kept: the indices advance before the service accepts the chunk. An unaccepted chunk is resent from its row.
  if (isCurrent) updateCurrentIndicies(chunk.end);
  // Kept: a chunk of the current session always inserts its row.
  if (isCurrent || change == RowChange::create) {
    delegate_.saveChunkMetaInfo(meta);
  } else {
    delegate_.updateChunkMetaInfo(meta);
  }
  return reportingTimes;
}

void KLVChunkManager::updateCurrentIndicies(std::uint64_t end) {
  currentEventIndex_ = end + 1;
  currentChunkIndex_ += 1;
}

bool KLVChunkManager::hasEvents(const std::string& sid, std::uint64_t start, std::uint64_t end) {
  const auto any = [&](std::uint64_t last) {
    return !delegate_.getEventsBetween(start, last, sid, kEveryType).empty();
  };
  return any(start) || any(std::min(end, start + kEventsPerRead - 1));
}

/// Reads in slices, so that a long range's rows are never all in memory at once.
KLVChunkDetails KLVChunkManager::readEvents(const std::string& sid, std::uint64_t start, std::uint64_t end) {
  KLVChunkDetails details;
  for (std::uint64_t first = start; first <= end; first += kEventsPerRead) {
    auto rows = delegate_.getEventsBetween(first, std::min(end, first + kEventsPerRead - 1), sid, kEveryType);
    if (rows.empty()) break;
    details.addEvents(std::move(rows));
  }
  return details;
}

void KLVChunkManager::buildAndPost(const KLVChunkRow& row, const Array& reportingTimes) {
  KLVChunk chunk(row.cid, row.sid);
  chunk.setInfo(reportingTimes, kKLVChunkReportingTimes);
  const KLVChunkDetails details = readEvents(row.sid, row.start, row.end);
  // This read waits for all earlier writes, so the chunk's row is in the database before its body leaves the process.
  const Array aggregateEvents = delegate_.retrieveAggregateEventsWithSessionIdentifier(row.sid);
  const auto user = delegate_.user();
  const auto currentSession = delegate_.session();
  Dictionary body;
  setForm(body, kKLVBodySDKInfo, delegate_.sdkInfo());
  setForm(body, kKLVBodySessionInfo, delegate_.retrieveSessionInfoWithIdentifier(row.sid));
  setForm(body, kKLVBodyAppInfo, delegate_.appInfo());
  setForm(body, kKLVBodyDeviceInfo, delegate_.deviceInfo());
  body.set(kKLVBodyChunkMeta, chunk.jsonDictModified());
  // Kept: the attributes of the current user and session, also for a chunk of an earlier session.
  body.set(kKLVBodyChunkDetails,
           details.constructChunkDetails(user ? user->userAttributes() : Dictionary(),
                                         currentSession ? currentSession->sessionAttributes() : Dictionary(),
                                         chunk.chunkAttributes(), aggregateEvents));
  postChunk(body, chunk.identifier());
}

void KLVChunkManager::postChunk(const Dictionary& body, const std::string& chunkId) {
  const auto completion = [this, chunkId, slot = takeSlot()](const auto&, const auto& response, const auto& error) {
    const long statusCode = response ? response->statusCode : 0;
    if (error || statusCode != kAcceptedStatus) {
      KLV_WARN("failed to send chunk - {}, responsecode - {}", chunkId, statusCode);
      return;
    }
    delegate_.updateChunkMetaStatus(std::make_shared<KLVChunk>(chunkId));
    KLV_DEBUG("Successfully sent chunk - {}, responsecode - {}", chunkId, statusCode);
  };
  delegate_.postDataToURL(byReplacing(kKLVSDKChunkURL, "<app-id>", delegate_.applicationIdentifier()), body,
                          std::nullopt, completion);
}

// --- The send queue

void KLVChunkManager::whenPosted(std::function<void()> done) {
  queue_.async([self = shared_from_this(), done = std::move(done)]() mutable {
    self->queue_.assertCurrent();
    self->enqueue(std::move(done));
  });
}

void KLVChunkManager::enqueue(Task task) {
  sendQueue_.push_back(std::move(task));
  runSendQueue();
}

void KLVChunkManager::runSendQueue() {
  while (!sendQueue_.empty() && slotsTaken_ < kMaxBodies) {
    const Task next = std::move(sendQueue_.front());
    sendQueue_.pop_front();
    next();
  }
}

/// The completion of a request holds the slot. So the slot is free again once the completion has been called, or
/// destroyed without a call.
KLVChunkManager::Slot KLVChunkManager::takeSlot() {
  ++slotsTaken_;
  return Slot(nullptr, [weak = weak_from_this()](void*) {
    const auto self = weak.lock();
    if (self == nullptr) return;
    self->queue_.async([self] {
      self->queue_.assertCurrent();
      --self->slotsTaken_;
      self->runSendQueue();
    });
  });
}

}  // namespace kelvo
