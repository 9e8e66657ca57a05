#pragma once

#include <cstdint>
#include <string>

namespace kelvo {

/// Groups lifetime counts into ranges.
namespace KLVUtilities {

/// Returns the range that contains `count`: the number itself below 10, then ranges of 10 and of 100, then "1000+".
/// Kept: 10 gives "01-10", 100 gives "001-100", and 1000 still gives "901-1000".
std::string rangeForCount(std::int64_t count);

}  // namespace KLVUtilities
}  // namespace kelvo
