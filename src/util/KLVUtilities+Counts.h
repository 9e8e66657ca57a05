#pragma once

#include <cstdint>
#include <string>

namespace kelvo {

/// Texts for counts.
namespace KLVUtilities {

/// Returns "1 event" or "3 events" for the noun "event".
std::string numberOf(std::uint64_t count, const char* noun);

/// Returns the range that contains `count`: the number itself below 10, then ranges of 10 and of 100, then "1000+".
/// Kept: 10 gives "01-10", 100 gives "001-100", and 1000 still gives "901-1000".
std::string rangeForCount(std::int64_t count);

}  // namespace KLVUtilities
}  // namespace kelvo
