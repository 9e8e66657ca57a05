#pragma once

#include <cstdint>

namespace kelvo::collector {

class Database;

/// Returns the size of the stored data in bytes, without the free pages.
[[nodiscard]] std::int64_t usedBytes(Database& database);

/// Deletes the oldest requests, with their chunks and events, until the data has at most `most` bytes. Also deletes
/// each session that has no chunk left. The totals of all sessions stay, unless they alone have more than `most` bytes.
/// A deleted chunk that arrives again counts as new. Must be called in a transaction.
void forgetOldest(Database& database, std::int64_t most);

}  // namespace kelvo::collector
