#pragma once

#include <string>
#include <vector>

#include "kelvo/Value.h"

namespace kelvo::collector {

class ServiceState;
class Store;

// Documents are the JSON values that control the service: "enabled", "config", "client-events", "actions/rta" and
// "actions/survey".

/// Validates `body` and puts it in force as the document `name`. Returns the errors, empty on success. On an error,
/// `state` does not change.
[[nodiscard]] std::vector<std::string> applyDocument(ServiceState& state, const std::string& name, const Value& body);

/// Puts the documents that `store` saved in an earlier run in force, and skips documents that are no longer valid.
void loadDocuments(ServiceState& state, const Store& store);

/// Returns all documents in force, with the hashes that the library receives.
[[nodiscard]] Dictionary documentsOf(const ServiceState& state);

}  // namespace kelvo::collector
