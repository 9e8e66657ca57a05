#pragma once

#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "kelvo-server/db/Query.h"
#include "kelvo-server/store/Rows.h"

// The parameters of the store's statements: each function turns rows into the columns that one statement expects.

namespace kelvo::server {

/// Application, session and number.
using ChunkKey = std::tuple<std::string, std::string, std::int32_t>;
[[nodiscard]] ChunkKey keyOf(const Chunk& chunk);

using Chunks = std::vector<const Chunk*>;

/// Folds the reports of each device into one: the newest, with the first secret. The order is that of application and
/// device.
[[nodiscard]] std::vector<DeviceRow> foldDevices(const std::vector<const DeviceRow*>& reports);

[[nodiscard]] db::Query reportDevices(const std::vector<DeviceRow>& devices);
/// For a statement that only needs the devices' keys.
[[nodiscard]] db::Query withDevices(std::size_t statement, const std::vector<DeviceRow>& devices);
[[nodiscard]] db::Query insertIds(const Chunks& chunks);
/// For a statement that only needs the chunks' keys.
[[nodiscard]] db::Query withKeys(std::size_t statement, const Chunks& chunks);
[[nodiscard]] db::Query insertEvents(const Chunks& chunks);
/// Folds the chunks of each session into one row.
[[nodiscard]] db::Query addToSessions(const Chunks& chunks);
/// Folds the totals of each session, in the order of their keys. Without totals, the statement is kNumberOfStatements.
[[nodiscard]] db::Query raiseAggregates(const Chunks& chunks);
[[nodiscard]] db::Query keepConflicts(const Chunks& chunks);

}  // namespace kelvo::server
