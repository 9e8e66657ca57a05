#pragma once

#include <span>

namespace kelvo::server {

/// The statements of the store's connections. Each is prepared once per connection.
enum Statement : unsigned char {
  kBegin,
  kCommit,
  kRollback,
  kReportDevices,
  kFindErased,
  kInsertIds,
  kFindIds,
  kInsertEvents,
  kAddToSessions,
  kRaiseAggregates,
  kCountDuplicates,
  kKeepConflicts,
  kForgetDevices,
  kKeepUnreadable,
  kLockDevice,
  kErase,
  kAddPartitions,
  kCountDays,
  kDropPartitions,
  kDeleteBefore,
  kNumberOfStatements
};

/// Returns the SQL texts in the order of `Statement`.
[[nodiscard]] std::span<const char* const> statements();

}  // namespace kelvo::server
