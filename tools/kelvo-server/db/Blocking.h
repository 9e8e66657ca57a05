#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kelvo-server/db/Query.h"

struct pg_conn;

namespace kelvo::server::db {

struct Closer {
  void operator()(pg_conn* connection) const noexcept;
};
using Handle = std::unique_ptr<pg_conn, Closer>;

/// Connects. `database` is a connection string or URI. Throws std::runtime_error with libpq's reason. Blocks for about
/// 10 s at most for each host; the resolver of host names has limits of its own. Thread: any.
[[nodiscard]] Handle connect(const std::string& database);

/// Runs one statement with its parameters, or several without, all of them or none. Returns the rows of the last one.
/// Throws std::runtime_error. Blocks.
Rows run(const Handle& connection, const std::string& sql, const std::vector<std::string>& parameters = {});

}  // namespace kelvo::server::db
