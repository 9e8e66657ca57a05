#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "platform/ThreadSafety.h"

namespace kelvo {

/// Remembers counts of the database by name, so that a frequent name needs no query. Thread-safe.
///
/// Callers pass the number of rollbacks so far, the generation. A new generation empties the cache, because a rollback
/// undoes counts that the cache holds. A call with an old generation finds and caches nothing.
class KLVCountCache {
 public:
  [[nodiscard]] std::optional<std::int64_t> find(const std::string& name, std::uint64_t generation);
  /// Caches a query's result unless a later write has superseded it, or there is no room. `generation` is the one when
  /// the query began.
  void found(const std::string& name, std::int64_t count, std::uint64_t generation);
  /// Caches the count that a statement has just written, or that the transaction will write. Writers must take turns.
  void written(const std::string& name, std::int64_t count, std::uint64_t generation);
  /// Forgets all names if there is no room for more. Not while counts wait that the database does not know.
  void makeRoom();

 private:
  /// Moves on to `generation` if it is newer. Returns false if it is old.
  [[nodiscard]] bool enter(std::uint64_t generation) REQUIRES(mutex_);

  Mutex mutex_;
  std::uint64_t generation_ GUARDED_BY(mutex_) = 0;
  std::map<std::string, std::int64_t> counts_ GUARDED_BY(mutex_);
};

}  // namespace kelvo
