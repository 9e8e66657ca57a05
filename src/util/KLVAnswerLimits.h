#pragma once

#include <cstddef>
#include <limits>

namespace kelvo {

/// The limits of a request and its answer. A request that exceeds one fails. The file that keeps an answer has the same
/// limits: a larger file counts as missing, and is not read.
struct KLVAnswerLimits {
  std::size_t bytes;   ///< of the answer's body, once decoded, or of the file
  std::size_t values;  ///< in the JSON document, containers included
  /// Bytes per second. The request fails after 30 seconds of less. 0: it fails after 30 seconds in all.
  long lowestSpeed;
};

namespace detail {
inline constexpr std::size_t kMiB = std::size_t{1} << 20;
inline constexpr long kUsableSpeed = 1000;
}  // namespace detail

/// Enabled status, configuration, lists, and the validations: a start-up waits for them.
inline constexpr KLVAnswerLimits kStartUpLimits{2 * detail::kMiB, 250'000, 0};
/// Chunks and the user's record. Nobody reads these answers.
inline constexpr KLVAnswerLimits kUploadLimits{2 * detail::kMiB, 0, detail::kUsableSpeed};
/// Actions carry their content.
inline constexpr KLVAnswerLimits kActionsLimits{64 * detail::kMiB, 500'000, detail::kUsableSpeed};
/// Files with the host's own data. Not for requests.
inline constexpr KLVAnswerLimits kOwnFileLimits{64 * detail::kMiB, std::numeric_limits<std::size_t>::max(), 0};

}  // namespace kelvo
