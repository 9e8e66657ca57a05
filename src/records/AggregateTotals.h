#pragma once

#include <cstdint>

namespace kelvo {

/// Two sums over the aggregate counts of one session. If they differ, the service does not have all counts yet.
struct AggregateTotals {
  std::int64_t counted = 0;    ///< the sum of all counts
  std::int64_t delivered = 0;  ///< the sum at the cut of the last accepted chunk
};

}  // namespace kelvo
