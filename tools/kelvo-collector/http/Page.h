#pragma once

#include <string>
#include <string_view>

namespace kelvo::collector {

/// One file of the collector's web page. The build embeds the files of page/ into the program.
struct PageFile {
  std::string_view name;
  std::string_view content;
};

/// Returns the file for the URL path `path` ("/" or "/assets/NAME"), null if there is none.
[[nodiscard]] const PageFile* pageFile(std::string_view path);

/// Returns the media type for the ending of `fileName`.
[[nodiscard]] std::string contentTypeOf(std::string_view fileName);

}  // namespace kelvo::collector
