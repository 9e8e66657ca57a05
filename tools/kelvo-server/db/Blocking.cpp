#include "kelvo-server/db/Blocking.h"

#include <libpq-fe.h>

#include <stdexcept>

namespace kelvo::server::db {

void Closer::operator()(pg_conn* connection) const noexcept {
  PQfinish(connection);
}

Handle connect(const std::string& database) {
  // `database` may hold any further keyword, and overrides those before it.
  const char* const keywords[] = {"application_name", "connect_timeout", "keepalives_idle", "keepalives_interval",
                                  "keepalives_count", "dbname",          "client_encoding", nullptr};
  const char* const values[] = {"kelvo-server", "10", "10", "5", "3", database.c_str(), "UTF8", nullptr};
  Handle connection(PQconnectdbParams(keywords, values, 1));
  if (!connection) throw std::runtime_error("out of memory");
  if (PQstatus(connection.get()) != CONNECTION_OK) throw std::runtime_error(PQerrorMessage(connection.get()));
  return connection;
}

Rows run(const Handle& connection, const std::string& sql, const std::vector<std::string>& parameters) {
  std::vector<const char*> values;
  for (const std::string& each : parameters) values.push_back(each.c_str());
  // Only the second form takes parameters, and only the first one takes several statements.
  pg_result* result = values.empty() ? PQexec(connection.get(), sql.c_str())
                                     : PQexecParams(connection.get(), sql.c_str(), static_cast<int>(values.size()),
                                                    nullptr, values.data(), nullptr, nullptr, 0);
  Rows rows(result);
  const auto status = PQresultStatus(result);
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
    throw std::runtime_error(PQerrorMessage(connection.get()));
  }
  return rows;
}

}  // namespace kelvo::server::db
