#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "records/KLVEviction.h"
#include "storage/KLVPersistantStore.h"

namespace kelvo {

/// Returns the condition of the rows of a session in the table of chunks.
[[nodiscard]] KLVSQLText chunksOfSession(std::string_view sid);

// The writes that settle a chunk. Each is part of a job and returns false, or nullopt, if a statement failed.

/// A chunk's row. `end` is `start` - 1 if the chunk has no events.
struct KLVStoredChunk {
  explicit KLVStoredChunk(const Dictionary& row);

  std::string id;
  std::string sid;
  std::uint64_t cid = 0, start = 0, end = 0;
};

/// Marks a chunk of which nothing will be sent again. `status` is `kKLVChunkAccepted` or `kKLVChunkEvicted`.
/// `deletesData`: its events and its records are deleted, and its row, too, if a later one of its session knows where
/// the numbers go on.
[[nodiscard]] bool settleChunk(KLVPersistantStore& store, const KLVStoredChunk& chunk, int status, bool deletesData);

/// Deletes a chunk that the service has not accepted, and notes it for a later chunk to report. An eviction that this
/// chunk should have reported waits for a later one again. If it has no events, it stands for the session's aggregate
/// counts, which are deleted.
[[nodiscard]] std::optional<KLVEviction> evictChunk(KLVPersistantStore& store, const KLVStoredChunk& chunk);

/// Has the new chunk `id` of the session `sid` report the evictions of its session, or `all` that no chunk reports.
[[nodiscard]] bool reportEvictions(KLVPersistantStore& store, const std::string& id, const std::string& sid, bool all);
/// Returns what the chunk `id` reports.
[[nodiscard]] std::optional<KLVEviction> reportedEvictions(KLVPersistantStore& store, const std::string& id);

}  // namespace kelvo
