#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "kelvo/Value.h"

namespace kelvo {

/// "chunk_details" of an upload while it is built: the events of a chunk, grouped by kind in their order, each in the
/// upload form of its kind.
class KLVChunkDetails {
 public:
  /// Takes stored events (storage forms); events of kinds that are not sent are left out. Each row is freed once it is
  /// translated.
  void addEvents(std::vector<Dictionary> rows);
  /// Whether no row was ever added.
  [[nodiscard]] bool empty() const noexcept { return rows_ == 0; }

  [[nodiscard]] Dictionary constructChunkDetails(const Dictionary& userAttributes, const Dictionary& sessionAttributes,
                                                 const Dictionary& chunkAttributes, const Array& aggregateEvents) const;

 private:
  static constexpr std::size_t kGroups = 5;

  std::size_t rows_ = 0;
  std::array<Array, kGroups> groups_;
};

}  // namespace kelvo
