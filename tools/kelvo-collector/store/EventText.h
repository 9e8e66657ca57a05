#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kelvo::collector {

/// Where a part of a text lies, in bytes.
struct Span {
  std::size_t position = 0;
  std::size_t size = 0;
};

/// Where the elements of the lists in "chunk_details" lie in the text of a chunk, by the name of the list. The text
/// must be good JSON; for a list that stands twice, the last one counts.
[[nodiscard]] std::map<std::string, std::vector<Span>> elementsOfChunk(std::string_view chunk);

}  // namespace kelvo::collector
