#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "storage/KLVDataHandler.h"
#include "upload/KLVChunkManager.h"

namespace kelvo {

/// The controller's methods that check their arguments and forward to the data handler.
///
/// A missing argument costs one WARN or ERROR line and has no other effect. Before the start-up has made the data
/// handler, writes do nothing, and reads return 0, nullptr or nothing. `KLVChunkManagerDelegate` documents the rest.
/// Thread: any.
class KLVStorageForwarding : public KLVChunkManagerDelegate {
 public:
  std::optional<std::uint64_t> numberOfEventsWithIdentifier(const std::optional<std::string>& identifier) override;
  /// Returns the stored events `start` to `end`, both included, in their storage forms, nullopt if the read failed.
  /// Kept: `KLVEventType::system` means every type.
  std::optional<std::vector<Dictionary>> getEventsBetween(std::uint64_t start, std::uint64_t end,
                                                          const std::optional<std::string>& identifier,
                                                          std::optional<KLVEventType> eventType);
  std::optional<std::uint64_t> readEvents(const std::string& sid, std::uint64_t first, std::uint64_t last,
                                          std::uint64_t most,
                                          const std::function<void(const KLVStoredEvent&)>& take) override;
  std::vector<std::string> getSessions() override;
  std::vector<std::string> getSessionsWithAggregates() override;
  std::vector<std::string> getSessionDirectories() override;
  std::optional<AggregateTotals> aggregateTotals(const std::string& sid) override;
  std::optional<std::vector<std::shared_ptr<KLVChunkMetaInfo>>> retrieveChunkMetaInfo() override;
  void saveFrequencyInfo(const Value& info, const std::optional<std::string>& identifier);
  std::optional<Value> retrieveFrequencyConfigWithIdentifier(const std::optional<std::string>& identifier);
  /// As `KLVDataHandler::waiting`.
  std::optional<KLVWaiting> waiting();

 protected:
  ~KLVStorageForwarding() = default;  // never deleted through this type

  /// Returns the data handler of the current session, nullptr before the start-up has made it.
  virtual std::shared_ptr<KLVDataHandler> dataHandler() = 0;
  std::shared_ptr<KLVUser> retrieveUser();
  std::shared_ptr<KLVSession> retrieveSessionInfoWithIdentifier(const std::optional<std::string>& identifier) override;

 private:
  bool saveChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta,
                         const std::optional<Dictionary>& records) override;
  std::optional<Dictionary> retrieveChunkRecords(const std::string& chunkId) override;
  void updateChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta) override;
  void updateChunkMetaStatus(const std::shared_ptr<KLVInfo>& chunk, std::int64_t aggregateTotal,
                             std::function<void()> committed) override;
  void deleteChunkMetaInfo(const std::shared_ptr<KLVInfo>& chunk) override;
  void deleteSession(const std::optional<std::string>& identifier) override;
  void deleteItemAtPath(const std::optional<std::string>& path) override;
  void deleteAggregateEventsWithSessionId(const std::optional<std::string>& identifier) override;
  void writeTogether(const std::function<void()>& deletions, std::function<void()> committed) override;
  std::optional<std::uint64_t> storedBytes(std::uint64_t limit) override;
  void deleteSettledData(std::uint64_t bytes) override;
  KLVEviction evictChunks(const std::vector<std::shared_ptr<KLVChunkMetaInfo>>& chunks, std::uint64_t bytes,
                          KLVLedgerEntry why) override;
  std::optional<KLVEviction> reportedEvictions(const std::string& chunkId) override;
  std::optional<Date> timeOfEvent(const std::string& sid, std::uint64_t index) override;
  void tidy(bool isIdle) override;
  void whenGrown(std::uint64_t bytes, std::function<void()> report) override;
};

}  // namespace kelvo
