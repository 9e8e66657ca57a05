#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelvo {

class FMKLVDatabase;

/// Counts of stored data that the service has not accepted yet. Only events of the types that chunks carry count.
struct KLVWaiting {
  std::uint64_t chunks = 0;
  std::uint64_t events = 0;     ///< in these chunks, and after the last chunk of each session
  std::uint64_t newEvents = 0;  ///< those of them after the last chunk of the current session

  /// Counts in `db`. `currentSession` may be empty. Returns nullopt if a read fails.
  static std::optional<KLVWaiting> in(FMKLVDatabase& db, std::string_view currentSession);
  /// Returns the number of events from `first` to `last` of an events table. Returns nullopt if a read fails.
  static std::optional<std::uint64_t> eventsIn(FMKLVDatabase& db, std::string_view table, std::uint64_t first,
                                               std::uint64_t last);
  /// Counts in the database of the home `home`, which this process must not use. Returns nothing if there is none, or
  /// it cannot be read.
  static KLVWaiting inHome(const std::string& home);
};

}  // namespace kelvo
