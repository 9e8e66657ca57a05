#pragma once

#include <cstdint>
#include <optional>

#include "kelvo-collector/store/Problems.h"
#include "kelvo/Value.h"

// The chunk numbers that are missing in sessions, and what devices say about chunks that they evicted. Thread: inside a
// transaction of the database.

namespace kelvo::collector {

class Database;

/// What a chunk says about unsent chunks that its device deleted since the chunk before.
struct Evicted {
  std::int64_t events = 0;
  std::int64_t chunks = 0;
};
/// Reads the member "evicted" of "chunk_attributes". Returns nullopt if it is missing.
[[nodiscard]] std::optional<Evicted> evictedOf(const Dictionary& chunkAttributes);

/// Opens a gap below the new chunk at `place` if it leaves numbers above `highestSoFar` out, or takes its number out of
/// a gap. Reports the numbers that are missing and that no eviction explains.
///
/// `evicted` explains missing numbers below the chunk: those of its session, the highest first, then those of earlier
/// sessions of the same device, the latest first. It considers the latest 500 sessions of a device.
void noteNumber(Database& database, const Place& place, std::int64_t highestSoFar,
                const std::optional<Evicted>& evicted);

/// Returns what the session's chunks say about evictions ("events", "chunks"), and how many of its own missing numbers
/// evictions explain ("explained"). Returns null if all are 0.
[[nodiscard]] Value evictionsOf(Database& database, std::int64_t session);

}  // namespace kelvo::collector
