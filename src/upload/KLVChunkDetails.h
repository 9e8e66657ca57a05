#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "kelvo/Value.h"

namespace kelvo {

/// Builds "chunk_details" of an upload: a chunk's events in their upload forms, grouped by kind. Keeps their order
/// within a group. Not thread-safe.
class KLVChunkDetails {
 public:
  /// Adds events, given in their storage forms. Leaves out events of kinds that are not sent. Frees each row after its
  /// conversion.
  void addEvents(std::vector<Dictionary> rows);
  /// Returns the number of events added so far, without those left out.
  [[nodiscard]] std::size_t events() const noexcept;
  /// Returns the details with the four values and the events added so far.
  [[nodiscard]] Dictionary constructChunkDetails(const Dictionary& userAttributes, const Dictionary& sessionAttributes,
                                                 const Dictionary& chunkAttributes, const Array& aggregateEvents) const;

 private:
  static constexpr std::size_t kGroups = 5;

  std::array<Array, kGroups> groups_;
};

}  // namespace kelvo
