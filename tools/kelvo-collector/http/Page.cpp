#include "kelvo-collector/http/Page.h"

namespace kelvo::collector {

// Defined in a source that the build generates from the files in page/.
extern const PageFile kPageFiles[];
extern const unsigned kNumberOfPageFiles;

const PageFile* pageFile(std::string_view path) {
  constexpr std::string_view assets = "/assets/";
  const std::string_view name = path == "/"                               ? "index.html"
                                : path.substr(0, assets.size()) == assets ? path.substr(assets.size())
                                                                          : "";
  for (unsigned i = 0; i < kNumberOfPageFiles; ++i) {
    if (kPageFiles[i].name == name) return &kPageFiles[i];
  }
  return nullptr;
}

std::string contentTypeOf(std::string_view fileName) {
  constexpr std::string_view types[][2] = {{".html", "text/html; charset=utf-8"},
                                           {".css", "text/css; charset=utf-8"},
                                           {".js", "text/javascript; charset=utf-8"},
                                           {".mjs", "text/javascript; charset=utf-8"},
                                           {".json", "application/json"},
                                           {".svg", "image/svg+xml"},
                                           {".png", "image/png"},
                                           {".ico", "image/x-icon"}};
  const auto dot = fileName.rfind('.');
  for (const auto& [ending, type] : types) {
    if (dot != std::string_view::npos && fileName.substr(dot) == ending) return std::string(type);
  }
  return "application/octet-stream";
}

}  // namespace kelvo::collector
