#pragma once

#include <cstdint>

namespace kelvo::collector {

class Database;

/// Returns the size of the stored data in bytes, without the free pages.
[[nodiscard]] std::int64_t usedBytes(Database& database);

/// Deletes the oldest requests until the data has `most` bytes or fewer: with a request go its chunk and its events,
/// with the last chunk of a session the session. The totals of all sessions stay, unless they alone are larger. A
/// deleted chunk that arrives again counts as new. Thread: call it in a transaction.
void forgetOldest(Database& database, std::int64_t most);

}  // namespace kelvo::collector
