#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/Value.h"

namespace kelvo::service {

class ServiceState;

// Documents are the JSON values that control the service: "enabled", "config", "client-events", "actions/rta" and
// "actions/survey".

/// Returns true for an event of the library that makes it cut or flush. A list with such a name would stop all
/// delivery.
[[nodiscard]] bool isTrigger(std::string_view name);

/// Validates `body` and puts it in force as the document `name`. Returns the errors, empty on success. On an error,
/// `state` does not change.
[[nodiscard]] std::vector<std::string> applyDocument(ServiceState& state, const std::string& name, const Value& body);

/// Puts the saved documents in force, and skips documents that are no longer valid. `saved` returns the text of the
/// document with the given name, nullopt if none is saved.
void loadDocuments(ServiceState& state, const std::function<std::optional<std::string>(const std::string&)>& saved);

/// Returns all documents in force, with the hashes that the library receives.
[[nodiscard]] Dictionary documentsOf(const ServiceState& state);

}  // namespace kelvo::service
