#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "storage/KLVPersistantStore.h"

namespace kelvo {

// The space that the database takes on the disk. Nothing here waits for another connection.

/// Returns the bytes of the database, without free pages and the write-ahead log; nullopt if that cannot be read.
[[nodiscard]] std::optional<std::uint64_t> usedBytes(KLVPersistantStore& store);

/// Gives free pages back, a few milliseconds of work. Returns false if there were none, or too few to care. Not inside
/// a transaction, like all below.
[[nodiscard]] bool giveSpaceBack(KLVPersistantStore& store);
/// Has the write-ahead log copied into the file when it reaches `bytes`.
void limitLog(KLVPersistantStore& store, std::uint64_t bytes);
/// Copies the write-ahead log into the file and empties it, if it has at least `bytes`.
void truncateLog(KLVPersistantStore& store, std::uint64_t bytes);
/// Rewrites a file that cannot give space back yet, if that is quick and the disk has room.
void rewriteOldFile(KLVPersistantStore& store);

/// Removes the damaged databases that were set aside, but the `kept` latest ones. Returns their size in bytes.
std::uint64_t removeSetAside(std::size_t kept);

}  // namespace kelvo
