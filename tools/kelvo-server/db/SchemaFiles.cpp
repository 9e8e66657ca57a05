#include "kelvo-server/db/SchemaFiles.h"

namespace kelvo::server::db {

// The build generates these.
extern const SchemaFile kSchemaFiles[];
extern const unsigned kNumberOfSchemaFiles;

std::span<const SchemaFile> schemaFiles() {
  return {kSchemaFiles, kNumberOfSchemaFiles};
}

}  // namespace kelvo::server::db
