#include "kelvo-server/documents/PutDocument.h"

#include <libpq-fe.h>

#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "kelvo-service/Documents.h"
#include "kelvo-service/ServiceState.h"
#include "platform/Files.h"
#include "platform/JSON.h"

namespace kelvo::server {
namespace {

struct Closer {
  void operator()(PGconn* connection) const noexcept { PQfinish(connection); }
  void operator()(PGresult* result) const noexcept { PQclear(result); }
};
using Connection = std::unique_ptr<PGconn, Closer>;
using Result = std::unique_ptr<PGresult, Closer>;

/// A document under its name in the table, as JSON text.
using Row = std::pair<std::string, std::string>;

constexpr const char* kUpsert =
    "INSERT INTO documents (app, name, body) VALUES ($1, $2, $3)"
    " ON CONFLICT (app, name) DO UPDATE SET body = excluded.body, version = documents.version + 1, changed = now()"
    " RETURNING version";

/// Writes `what` to standard error as one line, and returns `status`.
int failure(std::string what, int status = 1) {
  if (what.empty() || what.back() != '\n') what += '\n';
  std::cerr << "kelvo-server: " << what;
  return status;
}

std::optional<std::string> textOf(const std::string& file, FileError& error) {
  if (file == "-") return std::string(std::istreambuf_iterator<char>(std::cin), {});
  return readFile(file, &error);
}

/// Adds the rows of `body` to `rows`. Returns the errors.
std::vector<std::string> rowsOf(const std::string& document, const std::string& text, const Value& body,
                                std::vector<Row>& rows) {
  service::ServiceState scratch;
  if (document != "actions") {
    rows.emplace_back(document, text);
    return service::applyDocument(scratch, document, body);
  }
  const auto* lists = body.get<Dictionary>();
  if (lists == nullptr || lists->empty()) return {"the body is not {\"rta\": [...], \"survey\": [...]}"};
  std::vector<std::string> errors;
  for (const auto& [type, list] : *lists) {
    for (std::string& error : service::applyDocument(scratch, "actions/" + type, list)) {
      errors.push_back(type + ": " + std::move(error));
    }
    rows.emplace_back("actions/" + type, jsonText(list).value_or(""));
  }
  return errors;
}

class Transaction {
 public:
  explicit Transaction(PGconn* connection) : connection_(connection) {}

  /// Runs `sql` and returns the result, null after an error, which it reports.
  [[nodiscard]] Result run(const char* sql, const std::vector<const char*>& parameters = {}) {
    Result result(PQexecParams(connection_, sql, static_cast<int>(parameters.size()), nullptr, parameters.data(),
                               nullptr, nullptr, 0));
    const auto status = PQresultStatus(result.get());
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) return result;
    failure(PQerrorMessage(connection_));
    return nullptr;
  }

  /// Wakes the instances at the commit. An engine without notifications refuses; its instances poll.
  [[nodiscard]] bool notify() {
    if (!run("SAVEPOINT before_notify")) return false;
    const std::string sql = std::string("NOTIFY ") + kDocumentsChannel;
    const Result notified(PQexec(connection_, sql.c_str()));
    return PQresultStatus(notified.get()) == PGRES_COMMAND_OK || run("ROLLBACK TO before_notify") != nullptr;
  }

 private:
  PGconn* connection_;
};

bool store(PGconn* connection, const std::string& app, const std::vector<Row>& rows) {
  Transaction transaction(connection);
  std::string report;
  if (!transaction.run("BEGIN")) return false;
  for (const auto& [name, body] : rows) {
    const Result stored = transaction.run(kUpsert, {app.c_str(), name.c_str(), body.c_str()});
    if (!stored) return false;
    report += app + ": " + name + " is version " + PQgetvalue(stored.get(), 0, 0) + "\n";
  }
  if (!transaction.notify() || !transaction.run("COMMIT")) return false;
  std::cout << report << std::flush;
  return true;
}

}  // namespace

int putDocument(const PutRequest& request) {
  const std::string& document = request.document;
  if (document != "config" && document != "client-events" && document != "actions" && document != "enabled") {
    return failure("there is no document " + document, 2);
  }
  if (request.app.empty() || request.app.find('/') != std::string::npos) {
    return failure("the application's id is empty or contains a slash", 2);
  }
  std::string error;
  const auto text = textOf(request.file, error);
  if (!text) return failure("cannot read " + request.file + ": " + error);
  const auto body = parseJSON(*text, &error);
  if (!body) return failure(request.file + " is not JSON: " + error);
  std::vector<Row> rows;
  const auto errors = rowsOf(document, *text, *body, rows);
  for (const std::string& each : errors) failure(request.file + ": " + each);
  if (!errors.empty()) return 1;

  const Connection connection(PQconnectdb(request.database.c_str()));
  if (PQstatus(connection.get()) != CONNECTION_OK) return failure(PQerrorMessage(connection.get()));
  return store(connection.get(), request.app, rows) ? 0 : 1;
}

}  // namespace kelvo::server
