#include "kelvo-server/db/Migrate.h"

#include <cstdio>
#include <set>

#include "kelvo-server/db/Blocking.h"
#include "kelvo-server/db/SchemaFiles.h"

namespace kelvo::server::db {

void migrate(const std::string& database) {
  const Handle connection = connect(database);
  run(connection, "SET client_min_messages = warning");
  // One caller at a time; the lock ends with the connection.
  run(connection, "SELECT pg_advisory_lock(hashtext('kelvo-server migrate'))");
  run(connection,
      "CREATE TABLE IF NOT EXISTS schema_files (name text PRIMARY KEY,"
      " applied timestamptz NOT NULL DEFAULT now())");
  std::set<std::string> applied;
  const Rows rows = run(connection, "SELECT name FROM schema_files");
  for (std::size_t row = 0; row < rows.size(); ++row) applied.insert(rows.text(row, 0));
  for (const SchemaFile& file : schemaFiles()) {
    const std::string name(file.name);
    if (applied.contains(name)) continue;
    // One call is one transaction.
    run(connection, std::string(file.content) + "\n;INSERT INTO schema_files (name) VALUES ('" + name + "')");
    std::printf("%s\n", name.c_str());
  }
  run(connection, "SELECT kelvo_add_partitions(3)");
}

}  // namespace kelvo::server::db
