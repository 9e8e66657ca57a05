#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"
#include "records/KLVRecordKeys.h"

namespace kelvo {

/// One row of an events table. Its texts are valid only while the row is being read.
struct KLVStoredEvent {
  std::uint64_t index = 0;                                    ///< in its session, from 1
  std::string_view id;                                        ///< empty unless the column has a text, and so is `type`
  std::string_view type;                                      ///< the type's name
  std::int64_t time = 0;                                      ///< in seconds since the SDK started
  std::optional<std::string_view> attributes = std::nullopt;  ///< one JSON text; nullopt if the column has none

  /// Returns the event that `form` describes. The event points into `form`, so `form` must outlive the event.
  static KLVStoredEvent of(const Dictionary& form) {
    const auto textOf = [&](std::string_view key) -> std::optional<std::string_view> {
      const auto* text = form[key].get<std::string>();
      return text != nullptr ? std::optional<std::string_view>(*text) : std::nullopt;
    };
    return {form[kKLVEventIndex].asUInt64(), textOf(kKLVId).value_or(""), textOf(kKLVType).value_or(""),
            form[kKLVTime].asInt64(), textOf(kKLVAdditionalInfo)};
  }
  /// Returns about the number of bytes that the event adds to an upload.
  [[nodiscard]] std::size_t text() const noexcept { return id.size() + (attributes ? attributes->size() : 0); }
};

}  // namespace kelvo
