#pragma once

#include <map>
#include <memory>
#include <string>

#include "kelvo-server/db/Query.h"
#include "kelvo-service/ServiceState.h"

namespace kelvo::server {

/// Selects the rows that `documentsFrom` reads.
inline constexpr const char* kSelectDocuments = "SELECT app, name, body FROM documents";

/// The documents of each application that has any. Instances replace the whole map at a change, so that a request reads
/// one version of all documents.
using AppDocuments = std::map<std::string, std::shared_ptr<const service::ServiceState>>;

/// Returns the documents in the rows of `kSelectDocuments`. Leaves out a document that is not valid: another version of
/// the server may have stored it.
[[nodiscard]] AppDocuments documentsFrom(const db::Rows& rows);

}  // namespace kelvo::server
