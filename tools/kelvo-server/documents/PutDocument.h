#pragma once

#include <string>

namespace kelvo::server {

/// The channel on which `putDocument` wakes the instances. The payload is empty.
inline constexpr const char* kDocumentsChannel = "kelvo_documents";

struct PutRequest {
  std::string database;  ///< a connection string of libpq
  std::string document;  ///< "config", "client-events", "actions" or "enabled"
  std::string app;       ///< id of the application
  std::string file;      ///< path of the document, JSON; "-" means standard input
};

/// Validates a document, stores it in one transaction and wakes all instances. "actions" is an object with a list for
/// "rta", for "survey", or for both; a list that is missing stays as it is. Writes the new versions to standard output
/// and errors to standard error. Returns the exit status: 0 if the document is stored, 1 if it is not valid or could
/// not be stored (nothing changes then), 2 for wrong usage. Blocks while it waits for the database.
[[nodiscard]] int putDocument(const PutRequest& request);

}  // namespace kelvo::server
