#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kelvo/Value.h"
#include "records/KLVEvent.h"
#include "storage/KLVCountCache.h"
#include "storage/KLVPersistantStore.h"

namespace kelvo {

/// Returns how many events of this process a write for `call` stores: 1, or 0 if an earlier process made the call.
[[nodiscard]] inline std::uint64_t eventsOf(const KLVWaitingCall& call) noexcept {
  return call.isOfEarlierProcess() ? 0 : 1;
}

// The writes that one event causes. Each is part of a job and returns false if a statement failed.

/// Returns the name of a session's events table.
[[nodiscard]] std::string eventsTable(const std::string& session);

/// Returns true if no statement can contain `text` as a value. Kept: such names and values are not counted right.
[[nodiscard]] bool isUncountable(const std::string& text);

/// Inserts an event's row. A missing table is created if `creates` allows it, or if the session has a directory. Kept:
/// the insert fails for any other session. It has been purged, and its indices would begin with 1 again.
[[nodiscard]] bool insertEvent(KLVPersistantStore& store, const std::string& session, bool creates,
                               const Dictionary& row);

/// Counts the event of `row`, made by `call`, in the ledger: as stored, or as not stored.
void countRow(KLVPersistantStore& store, const Dictionary& row, bool isStored, const KLVWaitingCall& call = {});
/// Returns 1 if no chunk carries the event of `row`, else 0.
[[nodiscard]] int notForUpload(const Dictionary& row);

/// Returns the lifetime count of `name` from the cache or the database, nullopt if it has no row.
[[nodiscard]] std::optional<std::int64_t> lifetimeCount(KLVPersistantStore& store, KLVCountCache& cache,
                                                        const std::string& name);
/// Adds 1 to the lifetime count of `name`.
[[nodiscard]] bool countLifetimeEvent(KLVPersistantStore& store, KLVCountCache& cache, const std::string& name);

/// Adds 1 to the count of the aggregate rows with these values, or inserts a row with count 1.
[[nodiscard]] bool countAttribute(KLVPersistantStore& store, Dictionary parameters);
/// The same for the row without an attribute.
[[nodiscard]] bool countOccurrence(KLVPersistantStore& store, const Dictionary& parameters);
/// Counts an aggregate event and each of its attributes. What is uncountable does not make it fail.
[[nodiscard]] bool countAggregate(KLVPersistantStore& store, const KLVEvent& event, const std::string& session);

}  // namespace kelvo
