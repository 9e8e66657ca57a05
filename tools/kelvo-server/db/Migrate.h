#pragma once

#include <string>

namespace kelvo::server::db {

/// Runs the files of schema/ that the database has not run yet, each in one transaction. Safe to run twice and
/// concurrently. Writes their names to standard output. Throws std::runtime_error. Blocks.
void migrate(const std::string& database);

}  // namespace kelvo::server::db
