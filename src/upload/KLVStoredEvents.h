#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kelvo/Value.h"
#include "upload/KLVChunkManagerDelegate.h"
#include "upload/KLVFlushPlan.h"

namespace kelvo {

/// Reads the events `first` to `last` of the session `sid`, both included, in slices, so that a long range's rows are
/// never all in memory at once. Calls `take` with each slice that has events, until it returns false. Returns false if
/// a read failed. Thread: the chunk queue.
[[nodiscard]] bool readStoredEvents(KLVChunkManagerDelegate& delegate, const std::string& sid, std::uint64_t first,
                                    std::uint64_t last, const std::function<bool(std::vector<Dictionary>)>& take);

/// Returns whether the session `sid` has an event number `first` or higher, nullopt if a read failed.
[[nodiscard]] std::optional<bool> hasEventsFrom(KLVChunkManagerDelegate& delegate, const std::string& sid,
                                                std::uint64_t first);

/// Returns the rows of all chunks.
[[nodiscard]] std::vector<KLVChunkRow> storedChunks(KLVChunkManagerDelegate& delegate);

}  // namespace kelvo
