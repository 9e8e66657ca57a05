#include "kelvo-server/documents/PutDocument.h"

#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "kelvo-server/db/Blocking.h"
#include "kelvo-service/Documents.h"
#include "kelvo-service/ServiceState.h"
#include "platform/Files.h"
#include "platform/JSON.h"

namespace kelvo::server {
namespace {

/// A document under its name in the table, as JSON text.
using Row = std::pair<std::string, std::string>;

constexpr const char* kUpsert =
    "INSERT INTO documents (app, name, body) VALUES ($1, $2, $3)"
    " ON CONFLICT (app, name) DO UPDATE SET body = excluded.body, version = documents.version + 1, changed = "
    "excluded.changed"
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

/// Stores the rows in one transaction, and wakes the instances. Throws std::runtime_error.
void store(const db::Handle& connection, const std::string& app, const std::vector<Row>& rows) {
  std::string report;
  db::run(connection, "BEGIN");
  for (const auto& [name, body] : rows) {
    const std::string version = db::run(connection, kUpsert, {app, name, body}).text(0, 0);
    report += app + ": " + name + " is version " + version + "\n";
  }
  db::run(connection, "COMMIT");
  std::cout << report << std::flush;
  try {
    db::run(connection, std::string("NOTIFY ") + kDocumentsChannel);
  } catch (const std::runtime_error&) {
    // An engine without notifications refuses; its instances poll.
  }
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

  try {
    store(db::connect(request.database), request.app, rows);
  } catch (const std::runtime_error& refusal) {
    return failure(refusal.what());
  }
  return 0;
}

}  // namespace kelvo::server
