#pragma once

#include <string>
#include <string_view>

namespace kelvo::collector {

/// One file of the collector's page, which is part of the program.
struct PageFile {
  std::string_view name;
  std::string_view content;
};

/// The file that is served at `path` ("/", "/assets/NAME"); null when there is none.
[[nodiscard]] const PageFile* pageFile(std::string_view path);

[[nodiscard]] std::string contentTypeOf(std::string_view fileName);

}  // namespace kelvo::collector
