#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "records/KLVStoredEvent.h"
#include "upload/KLVChunkManagerDelegate.h"
#include "upload/KLVFlushPlan.h"

namespace kelvo {

/// Reads the events `first` to `last` of the session `sid`, both included, in ranges, so that other jobs of the
/// database need not wait long. Calls `take` with each event. Returns false if a read failed. Thread: the chunk queue.
[[nodiscard]] bool readStoredEvents(KLVChunkManagerDelegate& delegate, const std::string& sid, std::uint64_t first,
                                    std::uint64_t last, const std::function<void(const KLVStoredEvent&)>& take);

/// Returns whether the session `sid` has an event number `first` or higher, nullopt if a read failed.
[[nodiscard]] std::optional<bool> hasEventsFrom(KLVChunkManagerDelegate& delegate, const std::string& sid,
                                                std::uint64_t first);

/// Returns the rows of all chunks, nullopt if the read failed.
[[nodiscard]] std::optional<std::vector<KLVChunkRow>> storedChunks(KLVChunkManagerDelegate& delegate);

}  // namespace kelvo
