#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace kelvo {

class FMKLVDatabase;

/// Adds up the lifetime counts of one transaction, and writes each name once at its end. Used by one thread at a time.
class KLVLifetimeWrites {
 public:
  /// Adds 1 to the count of `name`.
  void add(const std::string& name) { ++added_[name]; }
  [[nodiscard]] bool isEmpty() const noexcept { return added_.empty(); }
  /// Writes the counts, in the open transaction, and forgets them. Returns false, after logging why, if one fails.
  [[nodiscard]] bool write(FMKLVDatabase& db);
  /// The transaction is rolled back.
  void clear() { added_.clear(); }

 private:
  std::map<std::string, std::int64_t> added_;
};

}  // namespace kelvo
