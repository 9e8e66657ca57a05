#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kelvo::service {

/// A part of a text: its offset and length in bytes.
struct Span {
  std::size_t position = 0;
  std::size_t size = 0;
};

/// Locates the elements of each list in "chunk_details" within the text of a chunk. Returns list names with the spans
/// of their elements. `chunk` must be valid JSON; if a name occurs twice, the last list counts.
[[nodiscard]] std::map<std::string, std::vector<Span>> elementsOfChunk(std::string_view chunk);

}  // namespace kelvo::service
