#pragma once

#include <string>
#include <vector>

#include "kelvo/Value.h"

namespace kelvo::collector {

class ServiceState;
class Store;

// The documents that steer the service: "enabled", "config", "client-events", "actions/rta" and "actions/survey".

/// Takes over `body` as the document of that name. Returns what is wrong with it; nothing is changed then.
[[nodiscard]] std::vector<std::string> applyDocument(ServiceState& state, const std::string& name, const Value& body);

/// Takes over what an earlier run kept; documents that cannot be used any more are left out.
void loadDocuments(ServiceState& state, const Store& store);

/// All documents as they are, with the hashes that the library is told.
[[nodiscard]] Dictionary documentsOf(const ServiceState& state);

}  // namespace kelvo::collector
