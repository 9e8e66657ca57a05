#pragma once

#include <span>
#include <string_view>

namespace kelvo::server::db {

/// A file of schema/, part of the program.
struct SchemaFile {
  std::string_view name;
  std::string_view content;
};

/// Returns the files in the order of their numbers.
[[nodiscard]] std::span<const SchemaFile> schemaFiles();

}  // namespace kelvo::server::db
