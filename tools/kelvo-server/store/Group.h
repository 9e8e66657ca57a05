#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kelvo-server/db/Connection.h"
#include "kelvo-server/loop/Task.h"
#include "kelvo-server/store/Rows.h"

namespace kelvo::server {

/// What became of a chunk or of a report of a device.
enum class Verdict : std::uint8_t {
  Unavailable,  ///< not committed: the device must send it again
  Stored,
  Duplicate,  ///< it was stored before
  Conflict,   ///< other events were stored under its id; kept aside
  Erased,     ///< its device is erased; dropped
  Refused     ///< the database refuses its data
};

/// A chunk, or the report of a device, that waits for its commit.
struct Entry {
  std::optional<Chunk> chunk;
  std::optional<DeviceRow> report;  ///< set if there is no chunk
  /// Called once, on the loop, with this entry. The text is the reason of `Refused`, for people.
  std::function<void(Verdict, Entry&, const std::string&)> done;

  [[nodiscard]] const DeviceRow& device() const { return chunk ? chunk->device : *report; }
};

/// The verdict on each entry of a group, or the failure after which nothing is committed.
struct GroupResult {
  std::vector<Verdict> verdicts;
  std::optional<db::Failure> failure;
};

/// Stores `entries` in one transaction, in two round trips. No two may have the same chunk id. Leaves the connection
/// without a transaction, unless it is lost. `entries` and `connection` must live until it ends.
[[nodiscard]] Task<GroupResult> commitGroup(const std::vector<Entry>& entries, db::Connection& connection);

/// Runs `queries` and returns their outcome.
[[nodiscard]] Callback<db::Outcome> runQueries(db::Connection& connection, std::vector<db::Query> queries);

}  // namespace kelvo::server
