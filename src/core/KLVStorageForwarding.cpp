#include "core/KLVStorageForwarding.h"

#include <utility>

#include "util/KLVLogger.h"
#include "util/KLVUtilities+Cleaning.h"

namespace kelvo {

std::optional<std::uint64_t> KLVStorageForwarding::numberOfEventsWithIdentifier(
    const std::optional<std::string>& identifier) {
  if (!identifier) {
    KLV_WARN("identifier is nil");
    return 0;
  }
  const auto handler = dataHandler();
  if (handler == nullptr) return 0;
  return handler->numberOfEventsWithIdentifier(*identifier);
}

std::optional<std::vector<Dictionary>> KLVStorageForwarding::getEventsBetween(
    std::uint64_t start, std::uint64_t end, const std::optional<std::string>& identifier,
    std::optional<KLVEventType> eventType) {
  if (!identifier || !eventType) {
    KLV_WARN("identifier/eventType is nil");
    return std::vector<Dictionary>();
  }
  const auto handler = dataHandler();
  if (handler == nullptr) return std::vector<Dictionary>();
  std::optional<std::string> typeName;  // none: events of every type
  if (*eventType != KLVEventType::system) typeName = std::string(stringFromType(*eventType));
  return handler->getEventsBetween(start, end, *identifier, typeName);
}

std::optional<std::uint64_t> KLVStorageForwarding::readEvents(const std::string& sid, std::uint64_t first,
                                                              std::uint64_t last, std::uint64_t most,
                                                              const std::function<void(const KLVStoredEvent&)>& take) {
  const auto handler = dataHandler();
  return handler ? handler->readEvents(sid, first, last, most, take) : 0;
}

std::vector<std::string> KLVStorageForwarding::getSessions() {
  const auto handler = dataHandler();
  return handler ? handler->getSessions() : std::vector<std::string>();
}

std::vector<std::string> KLVStorageForwarding::getSessionsWithAggregates() {
  const auto handler = dataHandler();
  return handler ? handler->getSessionsWithAggregates() : std::vector<std::string>();
}

std::vector<std::string> KLVStorageForwarding::getSessionDirectories() {
  const auto handler = dataHandler();
  return handler ? handler->getSessionDirectories() : std::vector<std::string>();
}

std::optional<AggregateTotals> KLVStorageForwarding::aggregateTotals(const std::string& sid) {
  const auto handler = dataHandler();
  return handler ? handler->aggregateTotals(sid) : AggregateTotals();
}

std::optional<std::vector<std::shared_ptr<KLVChunkMetaInfo>>> KLVStorageForwarding::retrieveChunkMetaInfo() {
  const auto handler = dataHandler();
  return handler ? handler->retrieveChunkMetaInfo() : std::vector<std::shared_ptr<KLVChunkMetaInfo>>();
}

std::shared_ptr<KLVUser> KLVStorageForwarding::retrieveUser() {
  const auto handler = dataHandler();
  return handler ? handler->retrieveUser() : nullptr;
}

bool KLVStorageForwarding::saveChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta,
                                             const std::optional<Dictionary>& records) {
  if (meta == nullptr) {
    KLV_WARN("cannot update, event is nil");
    return false;
  }
  const auto handler = dataHandler();
  return handler != nullptr && handler->saveChunkMetaInfo(meta, records);
}

std::optional<Dictionary> KLVStorageForwarding::retrieveChunkRecords(const std::string& chunkId) {
  const auto handler = dataHandler();
  return handler ? handler->retrieveChunkRecords(chunkId) : std::nullopt;
}

void KLVStorageForwarding::updateChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta) {
  if (meta == nullptr) {
    KLV_WARN("cannot update, event is nil");
  } else if (const auto handler = dataHandler()) {
    handler->updateChunkMetaInfoTimestamp(meta);
  }
}

void KLVStorageForwarding::updateChunkMetaStatus(const std::shared_ptr<KLVInfo>& chunk, std::int64_t aggregateTotal,
                                                 std::function<void()> committed) {
  if (chunk == nullptr) {
    KLV_WARN("cannot update, event is nil");
  } else if (const auto handler = dataHandler()) {
    handler->updateChunkMetaStatus(chunk, aggregateTotal, std::move(committed));
  }
}

void KLVStorageForwarding::deleteChunkMetaInfo(const std::shared_ptr<KLVInfo>& chunk) {
  if (chunk == nullptr) {
    KLV_WARN("cannot delete, event is nil");
  } else if (const auto handler = dataHandler()) {
    handler->deleteChunkMetaInfo(chunk);
  }
}

void KLVStorageForwarding::deleteSession(const std::optional<std::string>& identifier) {
  if (!identifier) {
    KLV_WARN("cannot delete, identifier is nil");
  } else if (const auto handler = dataHandler()) {
    handler->deleteSession(*identifier);
  }
}

void KLVStorageForwarding::deleteItemAtPath(const std::optional<std::string>& path) {
  if (!path) {
    KLV_WARN("cannot delete, path is nil");
  } else if (const auto handler = dataHandler()) {
    handler->deleteItemAtPath(*path);
  }
}

void KLVStorageForwarding::deleteAggregateEventsWithSessionId(const std::optional<std::string>& identifier) {
  if (!identifier) {
    KLV_WARN("cannot delete, session identifier is nil");
  } else if (const auto handler = dataHandler()) {
    handler->deleteAggregateEventsWithSessionId(*identifier);
  }
}

void KLVStorageForwarding::writeTogether(const std::function<void()>& deletions, std::function<void()> committed) {
  if (const auto handler = dataHandler()) handler->writeTogether(deletions, std::move(committed));
}

std::optional<std::uint64_t> KLVStorageForwarding::storedBytes(std::uint64_t limit) {
  const auto handler = dataHandler();
  return handler ? handler->storedBytes(limit) : std::nullopt;
}

void KLVStorageForwarding::deleteSettledData(std::uint64_t bytes) {
  if (const auto handler = dataHandler()) handler->deleteSettledData(bytes);
}

KLVEviction KLVStorageForwarding::evictChunks(const std::vector<std::shared_ptr<KLVChunkMetaInfo>>& chunks,
                                              std::uint64_t bytes, KLVLedgerEntry why) {
  const auto handler = dataHandler();
  return handler ? handler->evictChunks(chunks, bytes, why) : KLVEviction();
}

std::optional<KLVEviction> KLVStorageForwarding::reportedEvictions(const std::string& chunkId) {
  const auto handler = dataHandler();
  return handler ? handler->reportedEvictions(chunkId) : KLVEviction();
}

std::optional<Date> KLVStorageForwarding::timeOfEvent(const std::string& sid, std::uint64_t index) {
  const auto handler = dataHandler();
  return handler ? handler->timeOfEvent(sid, index) : std::nullopt;
}

void KLVStorageForwarding::tidy(bool isIdle) {
  if (const auto handler = dataHandler()) handler->tidy(isIdle);
}

void KLVStorageForwarding::whenGrown(std::uint64_t bytes, std::function<void()> report) {
  if (const auto handler = dataHandler()) handler->whenGrown(bytes, std::move(report));
}

std::shared_ptr<KLVSession> KLVStorageForwarding::retrieveSessionInfoWithIdentifier(
    const std::optional<std::string>& identifier) {
  if (!identifier) {
    KLV_ERROR("Session Info not found for nil identifier");
    return nullptr;
  }
  const auto handler = dataHandler();
  return handler ? handler->retrieveSessionInfoWithIdentifier(*identifier) : nullptr;
}

std::optional<KLVWaiting> KLVStorageForwarding::waiting() {
  const auto handler = dataHandler();
  return handler ? handler->waiting() : std::nullopt;
}

void KLVStorageForwarding::saveFrequencyInfo(const Value& info, const std::optional<std::string>& identifier) {
  const auto handler = dataHandler();
  if (handler == nullptr || KLVUtilities::isInvalidDictionary(info) || KLVUtilities::isInvalidString(identifier))
    return;
  handler->saveFrequencyInfo(info, *identifier);
}

std::optional<Value> KLVStorageForwarding::retrieveFrequencyConfigWithIdentifier(
    const std::optional<std::string>& identifier) {
  const auto handler = dataHandler();
  const auto stored = handler ? handler->retrieveFrequencyConfig() : std::nullopt;
  const auto* dictionary = stored ? stored->get<Dictionary>() : nullptr;
  const Value* entry = dictionary != nullptr && identifier ? dictionary->find(*identifier) : nullptr;
  return entry != nullptr ? std::optional(*entry) : std::nullopt;
}

}  // namespace kelvo
