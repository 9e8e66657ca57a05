#include <utility>

#include "storage/KLVDataHandler.h"
#include "storage/KLVDataHandlerJobs.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"
#include "util/KLVUtilities+JSON.h"

namespace kelvo {
namespace {

constexpr int kAccepted = 1;  // the "status" of a chunk that the service has accepted

/// Returns the attributes as the storage form keeps them, without empty values.
Dictionary storedAttributes(const KLVChunkMetaInfo& meta) {
  return objectFromJsonDict<KLVChunkMetaInfo>(meta.jsonDict())->additionalInfo();
}

/// Returns the row of a new chunk. "status" is missing, so the column stays NULL.
Dictionary newRow(const KLVChunkMetaInfo& meta) {
  const Dictionary attributes = storedAttributes(meta);
  Dictionary row;
  for (const auto key : {kKLVChunkSid, kKLVChunkCid, kKLVChunkReportingTimes, kKLVChunkStart, kKLVChunkEnd}) {
    if (const auto* value = attributes.find(key)) row.set(key, *value);
  }
  row.set(kKLVChunkId, meta.identifier());
  return row;
}

}  // namespace

void KLVDataHandler::saveChunkMetaInfo(std::shared_ptr<KLVChunkMetaInfo> meta) {
  if (!meta) return;
  jobs_->async([jobs = jobs_, meta = std::move(meta)] {
    auto* store = jobs->store();
    if (store != nullptr) static_cast<void>(store->insertDataWithTableName(kKLVChunkMetaInfo, newRow(*meta)));
  });
}

void KLVDataHandler::updateChunkMetaInfoTimestamp(std::shared_ptr<KLVChunkMetaInfo> meta) {
  if (!meta) return;
  jobs_->async([jobs = jobs_, meta = std::move(meta)] {
    auto* store = jobs->store();
    if (store == nullptr) return;
    const auto times = storedAttributes(*meta)[kKLVChunkReportingTimes].asArray();
    if (!times) {
      KLV_WARN("reporting_times not found, failed to update.");
      return;
    }
    Dictionary values;
    values.set(kKLVChunkReportingTimes, KLVUtilities::jsonStringFromNSArray(times));
    static_cast<void>(store->updateDataWithTableName(kKLVChunkMetaInfo, values, kKLVChunkId, meta->identifier()));
  });
}

void KLVDataHandler::updateChunkMetaStatus(std::shared_ptr<KLVInfo> chunk) {
  if (!chunk) return;
  jobs_->async([jobs = jobs_, chunk = std::move(chunk)] {
    auto* store = jobs->store();
    if (store == nullptr) return;
    Dictionary values;
    values.set(kKLVChunkStatus, kAccepted);
    static_cast<void>(store->updateDataWithTableName(kKLVChunkMetaInfo, values, kKLVChunkId, chunk->identifier()));
  });
}

void KLVDataHandler::deleteChunkMetaInfo(std::shared_ptr<KLVInfo> chunk) {
  if (!chunk) return;
  jobs_->write([chunk = std::move(chunk)](KLVPersistantStore& store) {
    return store.removeDataWithTableName(kKLVChunkMetaInfo, kKLVChunkSid, chunk->identifier());
  });
}

std::vector<std::shared_ptr<KLVChunkMetaInfo>> KLVDataHandler::retrieveChunkMetaInfo() {
  return jobs_->sync([&] {
    std::vector<std::shared_ptr<KLVChunkMetaInfo>> result;
    auto* store = jobs_->store();
    if (store == nullptr) return result;
    for (const auto& row : store->retrieveAllDataWithTableName(kKLVChunkMetaInfo)) {
      Dictionary known;
      for (const auto key : {kKLVChunkId, kKLVChunkSid, kKLVChunkCid, kKLVChunkReportingTimes, kKLVChunkStart,
                             kKLVChunkEnd, kKLVChunkStatus}) {
        if (const auto* value = row.find(key)) known.set(key, *value);
      }
      result.push_back(objectFromDictionary<KLVChunkMetaInfo>(known));
    }
    return result;
  });
}

}  // namespace kelvo
