#include "kelvo-server/db/Migrate.h"

#include <libpq-fe.h>

#include <cstdio>
#include <memory>
#include <set>
#include <stdexcept>

#include "kelvo-server/db/SchemaFiles.h"

namespace kelvo::server::db {
namespace {

struct Closer {
  void operator()(PGconn* connection) const noexcept { PQfinish(connection); }
  void operator()(PGresult* result) const noexcept { PQclear(result); }
};
using Connection = std::unique_ptr<PGconn, Closer>;
using Result = std::unique_ptr<PGresult, Closer>;

/// Runs statements, all of them or none. Returns the rows of the last one.
Result run(PGconn* connection, const std::string& sql) {
  Result result(PQexec(connection, sql.c_str()));
  const auto status = PQresultStatus(result.get());
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) throw std::runtime_error(PQerrorMessage(connection));
  return result;
}

}  // namespace

void migrate(const std::string& database) {
  const Connection connection(PQconnectdb(database.c_str()));
  if (PQstatus(connection.get()) != CONNECTION_OK) throw std::runtime_error(PQerrorMessage(connection.get()));
  run(connection.get(), "SET client_min_messages = warning");
  // One caller at a time; the lock ends with the connection.
  run(connection.get(), "SELECT pg_advisory_lock(hashtext('kelvo-server migrate'))");
  run(connection.get(),
      "CREATE TABLE IF NOT EXISTS schema_files (name text PRIMARY KEY,"
      " applied timestamptz NOT NULL DEFAULT now())");
  std::set<std::string> applied;
  const Result rows = run(connection.get(), "SELECT name FROM schema_files");
  for (int row = 0; row < PQntuples(rows.get()); ++row) applied.insert(PQgetvalue(rows.get(), row, 0));
  for (const SchemaFile& file : schemaFiles()) {
    const std::string name(file.name);
    if (applied.contains(name)) continue;
    // One call is one transaction.
    run(connection.get(), std::string(file.content) + "\n;INSERT INTO schema_files (name) VALUES ('" + name + "')");
    std::printf("%s\n", name.c_str());
  }
  run(connection.get(), "SELECT kelvo_add_partitions(3)");
}

}  // namespace kelvo::server::db
