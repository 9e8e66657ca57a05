#pragma once

#include <cstdint>
#include <optional>

#include "kelvo/Value.h"
#include "platform/SlicedText.h"
#include "upload/KLVChunkManagerDelegate.h"
#include "upload/KLVFlushPlan.h"

namespace kelvo {

/// The body of one upload.
struct KLVChunkBody {
  SlicedText text;                  ///< JSON
  std::int64_t aggregateTotal = 0;  ///< the body has the session's aggregate counts at least up to this sum
  std::uint64_t events = 0;         ///< that the service receives

  /// Returns the body of the chunk `row`, with exactly the events of its row. Returns nullopt, after one line, if
  /// not all of them could be read, or JSON cannot represent the body. Thread: the chunk queue.
  static std::optional<KLVChunkBody> build(const KLVChunkRow& row, const Array& reportingTimes,
                                           KLVChunkManagerDelegate& delegate);
};

/// Returns the upload forms of the user, the application and the device, for a chunk that keeps those of its cut. With
/// `KLVHostLimits::sendsLedger`, the ledger is among them.
Dictionary recordsOfTheCut(KLVChunkManagerDelegate& delegate);

}  // namespace kelvo
