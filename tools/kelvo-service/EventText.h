#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo-service/JSONScanner.h"

namespace kelvo::service {

/// Locates the elements of each list in "chunk_details" within the text of a chunk. Returns list names with the spans
/// of their elements. `chunk` must be valid JSON; if a name occurs twice, the last list counts.
[[nodiscard]] std::map<std::string, std::vector<Span>> elementsOfChunk(std::string_view chunk);

}  // namespace kelvo::service
