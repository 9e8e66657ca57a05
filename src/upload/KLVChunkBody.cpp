#include "upload/KLVChunkBody.h"

#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "records/KLVRecordKeys.h"
#include "upload/KLVChunkDetails.h"
#include "upload/KLVStoredEvents.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVHostLimits.h"
#include "util/KLVLedger.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr std::string_view kLedger = "ledger";  // a chunk attribute, if the host sends the ledger

/// Leaves the section out of the body if its record is missing.
template <class Record>
void setForm(Dictionary& body, std::string_view key, const std::shared_ptr<Record>& record) {
  if (record != nullptr) body.set(key, record->jsonDictModified());
}

/// Copies the section `key` of `records`, if they have one.
void copyForm(Dictionary& body, std::string_view key, const Dictionary& records) {
  if (const auto* form = records.find(key)) body.set(key, *form);
}

std::optional<KLVChunkDetails> readDetails(const KLVChunkRow& row, KLVChunkManagerDelegate& delegate) {
  KLVChunkDetails details;
  std::uint64_t count = 0;
  const bool read = readStoredEvents(delegate, row.sid, row.start, row.end, [&](const KLVStoredEvent& event) {
    details.addEvent(event);
    ++count;
  });
  if (!read || count != row.end + 1 - row.start) return std::nullopt;
  return details;
}

/// A session whose record is gone gets one made from its id: services refuse a chunk without "session_info".
std::shared_ptr<KLVSession> sessionOf(const KLVChunkRow& row, KLVChunkManagerDelegate& delegate) {
  const auto stored = delegate.retrieveSessionInfoWithIdentifier(row.sid);
  return stored ? stored : KLVSession::rebuiltFromIdentifier(row.sid);
}

Dictionary sessionAttributes(const std::shared_ptr<KLVSession>& ofChunk, KLVChunkManagerDelegate& delegate) {
  // Kept: without the rule, the attributes of the current session, also for a chunk of an earlier one.
  const auto session = KLVDeliveryRules::current().keepsRecordsOfTheCut ? ofChunk : delegate.session();
  return session ? session->sessionAttributes() : Dictionary();
}

/// Returns "chunk_attributes", empty unless there is something to say. `records` are those of the chunk's cut. Returns
/// nullopt if a read failed.
std::optional<Dictionary> chunkAttributes(const std::string& chunkId, const Dictionary& records,
                                          KLVChunkManagerDelegate& delegate) {
  const auto evicted = delegate.reportedEvictions(chunkId);
  if (!evicted) return std::nullopt;
  Dictionary attributes;
  if (evicted->chunks > 0) {
    attributes.set("evicted", Dictionary{{"events", evicted->events}, {"chunks", evicted->chunks}});
  }
  copyForm(attributes, kLedger, records);
  return attributes;
}

}  // namespace

Dictionary recordsOfTheCut(KLVChunkManagerDelegate& delegate) {
  const auto user = delegate.user();
  Dictionary records;
  records.set(kKLVBodyUserAttributes, user ? user->userAttributes() : Dictionary());
  setForm(records, kKLVBodyAppInfo, delegate.appInfo());
  setForm(records, kKLVBodyDeviceInfo, delegate.deviceInfo());
  if (KLVHostLimits::current().sendsLedger) records.set(kLedger, KLVLedger::shared().form());
  return records;
}

std::optional<KLVChunkBody> KLVChunkBody::build(const KLVChunkRow& row, const Array& reportingTimes,
                                                KLVChunkManagerDelegate& delegate) {
  KLVChunk chunk(row.cid, row.sid);
  chunk.setInfo(reportingTimes, kKLVChunkReportingTimes);
  auto details = readDetails(row, delegate);
  // The sum is read first: counts that are added in between are in the body, but count as not sent.
  const auto totals = delegate.aggregateTotals(row.sid);
  const Array aggregateEvents = delegate.retrieveAggregateEventsWithSessionIdentifier(row.sid);
  if (!details || !totals || (aggregateEvents.empty() && totals->counted > 0)) {
    KLV_WARN("failed to read all events of chunk - {}, it waits", chunk.identifier());
    return std::nullopt;
  }
  std::optional<Dictionary> kept;
  if (KLVDeliveryRules::current().keepsRecordsOfTheCut) kept = delegate.retrieveChunkRecords(chunk.identifier());
  const Dictionary records = kept ? *kept : recordsOfTheCut(delegate);
  const auto attributes = chunkAttributes(chunk.identifier(), records, delegate);
  if (!attributes) {
    KLV_WARN("failed to read the evictions before chunk - {}, it waits", chunk.identifier());
    return std::nullopt;
  }
  const auto session = sessionOf(row, delegate);

  Dictionary body;
  setForm(body, kKLVBodySDKInfo, delegate.sdkInfo());
  setForm(body, kKLVBodySessionInfo, session);
  copyForm(body, kKLVBodyAppInfo, records);
  copyForm(body, kKLVBodyDeviceInfo, records);
  body.set(kKLVBodyChunkMeta, chunk.jsonDictModified());
  auto text = details->takeBody(std::move(body), {records[kKLVBodyUserAttributes].asDictionary().value_or(Dictionary()),
                                                  sessionAttributes(session, delegate), *attributes, aggregateEvents});
  if (!text) return std::nullopt;
  return KLVChunkBody{*std::move(text), totals->counted, details->events()};
}

}  // namespace kelvo
